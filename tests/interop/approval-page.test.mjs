// A person answers on the dev gateway's approval page, in a real headless Chromium, while an SDK
// client waits on the call through the bridge; pages without the token see nothing.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { chromium } from 'playwright-core';

import { connect, denyText, everythingServer, startGateway } from './harness.mjs';

const chromiumPath = process.env.SENTROVA_CHROMIUM ?? '/usr/bin/chromium';
const screenshotPath = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..', '..', 'docs', 'approval-page.png');
const payload = '<img src=x onerror="window.__ran=1"><b>bold?</b>';

test('a person allows and denies waiting calls on the page', { skip: !fs.existsSync(chromiumPath) && 'no browser' }, async () => {
  const gateway = await startGateway([{ tool: ['echo', 'get-sum'], decision: 'ask', timeoutSeconds: 60 }]);
  const { client, close } = await connect({ server: everythingServer(), gateway });
  // Root cannot use Chromium's sandbox; the page is our own and the test's alone.
  const browser = await chromium.launch({ executablePath: chromiumPath, args: ['--no-sandbox'] });
  try {
    await client.listTools();
    const page = await browser.newPage({ viewport: { width: 820, height: 560 } });
    await page.goto(gateway.pageURL);
    const ask = async (name, args) => { // a call with heartbeats, which the page shows as a card
      const heartbeats = [];
      const result = client.callTool({ name, arguments: args }, undefined,
        { onprogress: (progress) => heartbeats.push(progress), timeout: 90000 });
      const card = page.locator('section.call', { hasText: name });
      await card.waitFor();
      return { result, heartbeats, card };
    };

    const { result, heartbeats, card } = await ask('echo', { message: payload });
    assert.deepEqual(JSON.parse(await card.locator('pre.arguments').textContent()), { message: payload });
    assert.equal(await page.locator('main img, main b').count(), 0); // nothing of it became markup
    assert.equal(await page.evaluate(() => window.__ran), undefined);
    for (const address of [gateway.url + '/', `${gateway.url}/#token=wrong`]) { // no token, no calls
      const stranger = await browser.newPage();
      await stranger.goto(address);
      await stranger.locator('#status.problem').waitFor();
      assert.equal(await stranger.locator('section.call').count(), 0);
    }
    await page.waitForTimeout(600); // a few heartbeats while the person reads
    if (process.env.SENTROVA_UPDATE_SCREENSHOT === '1') await page.screenshot({ path: screenshotPath });
    await card.getByRole('button', { name: 'Allow' }).click();
    assert.deepEqual((await result).content, [{ type: 'text', text: `Echo: ${payload}` }]);
    assert.ok(heartbeats.length >= 2, `only ${heartbeats.length} heartbeats`);
    assert.equal(gateway.toolcalls().at(-1).answeredBy, 'page');

    const denied = await ask('get-sum', { a: 1, b: 2 });
    await denied.card.getByRole('textbox', { name: 'Reason' }).fill('not during the freeze');
    await denied.card.getByRole('button', { name: 'Deny' }).click();
    assert.deepEqual(await denied.result,
      { content: [{ type: 'text', text: denyText('get-sum', 'not during the freeze') }], isError: true });
    await page.getByText('No calls are waiting for approval.').waitFor();
  } finally {
    await browser.close();
    await close();
    await gateway.stop();
  }
});
