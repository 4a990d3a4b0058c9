// A person answers on the dev gateway's approval page, in a real headless Chromium, while an SDK
// client waits on the call through the bridge; pages without the token, or from another origin,
// get nothing.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';
import { after, before, test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { chromium } from 'playwright-core';

import { connect, denyText, everythingServer, startGateway, waitFor } from './harness.mjs';

const chromiumPath = process.env.SENTROVA_CHROMIUM ?? '/usr/bin/chromium';
const skip = !fs.existsSync(chromiumPath) && `no browser at ${chromiumPath}`;
const screenshotPath = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..', '..', 'docs', 'approval-page.png');
const payload = '<img src=x onerror="window.__ran=1"><b>bold?</b>';
let gateway, session, browser, page;

before(async () => {
  if (skip) return;
  gateway = await startGateway([{ tool: ['echo', 'get-sum'], decision: 'ask', timeoutSeconds: 60 }]);
  session = await connect({ server: everythingServer(), gateway });
  await session.client.listTools();
  // Root cannot use Chromium's sandbox; the page is our own and the test's alone.
  browser = await chromium.launch({ executablePath: chromiumPath, args: ['--no-sandbox'] });
  page = await browser.newPage({ viewport: { width: 820, height: 560 } });
  await page.goto(gateway.pageURL);
});

after(async () => {
  await browser?.close();
  await session?.close();
  await gateway?.stop();
});

// Starts a call with heartbeats; the page shows it as a card.
async function ask(name, args) {
  const heartbeats = [];
  const result = session.client.callTool({ name, arguments: args }, undefined,
    { onprogress: (progress) => heartbeats.push(progress), timeout: 90000 });
  const card = page.locator('section.call', { hasText: name });
  await card.waitFor();
  return { result, heartbeats, card };
}

test('Allow lets the waiting call through, its arguments shown as text; Deny sends the typed reason', { skip }, async () => {
  const { result, heartbeats, card } = await ask('echo', { message: payload });
  assert.deepEqual(JSON.parse(await card.locator('pre.arguments').textContent()), { message: payload });
  assert.equal(await page.locator('main img, main b').count(), 0); // nothing of it became markup
  assert.equal(await page.evaluate(() => window.__ran), undefined);
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
});

test('a page without the token, with a wrong one, or from another origin gets nothing', { skip }, async () => {
  const { result, card } = await ask('echo', { message: 'secret plans' });
  for (const address of [gateway.url + '/', `${gateway.url}/#token=wrong`]) {
    const stranger = await browser.newPage();
    await stranger.goto(address);
    await stranger.locator('#status.problem').waitFor();
    assert.equal(await stranger.locator('section.call').count(), 0);
    await stranger.close();
  }
  await card.getByRole('button', { name: 'Allow' }).click();
  await result;

  const other = http.createServer((request, response) => response.end('<!doctype html><title>elsewhere</title>'));
  await new Promise((resolve) => other.listen(0, '127.0.0.1', resolve));
  const before = gateway.auditRecords().length;
  const stranger = await browser.newPage();
  await stranger.goto(`http://127.0.0.1:${other.address().port}/`);
  // What a hostile page can send without a preflight: a "simple" text/plain POST, which the browser marks with its origin.
  await stranger.evaluate(async (url) => fetch(`${url}/v1/event`, { method: 'POST', mode: 'no-cors',
    headers: { 'Content-Type': 'text/plain' }, body: '{"kind":"screenshot","mimeType":"image/png","base64":"AAAA"}' }), gateway.url);
  other.close();
  const records = await waitFor('the refusal', () => gateway.auditRecords().length > before && gateway.auditRecords().slice(before));
  assert.ok(records.every((r) => r.kind === 'refused' && r.status === 403), JSON.stringify(records));
});
