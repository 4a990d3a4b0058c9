// A person answers on the dev gateway's approval page, in a real headless Chromium, while
// an SDK client waits on the call through the bridge; and pages without the token, or from
// another origin, get nothing.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';
import { after, before, describe, test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { chromium } from 'playwright-core';

import { connect, denyText, everythingServer, startGateway, waitFor } from './harness.mjs';

const chromiumPath = process.env.SENTROVA_CHROMIUM ?? '/usr/bin/chromium';
const screenshotPath = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..', '..', 'docs', 'approval-page.png');
const payload = '<img src=x onerror="window.__ran=1"><b>bold?</b>';

describe('the approval page', { skip: !fs.existsSync(chromiumPath) && `no browser at ${chromiumPath}` }, () => {
  let gateway;
  let session;
  let browser;
  let page;

  before(async () => {
    gateway = await startGateway([{ tool: ['echo', 'get-sum'], decision: 'ask', timeoutSeconds: 60 }]);
    session = await connect({ server: everythingServer(), gateway, heartbeat: 0.2 });
    await session.client.listTools();
    // Root cannot use Chromium's sandbox; the page is our own and the test's alone.
    browser = await chromium.launch({ executablePath: chromiumPath, args: ['--no-sandbox'] });
    page = await browser.newPage({ viewport: { width: 820, height: 560 } });
    await page.goto(gateway.pageURL);
    await page.getByText('No calls are waiting for approval.').waitFor();
  });

  after(async () => {
    await browser?.close();
    await session?.close();
    await gateway?.stop();
  });

  // Starts a call with heartbeats; the page shows it as a card.
  async function ask(name, args) {
    const heartbeats = [];
    const result = session.client.callTool({ name, arguments: args }, undefined, {
      onprogress: (progress) => heartbeats.push(progress),
      timeout: 90000,
    });
    const card = page.locator('section.call', { hasText: name });
    await card.waitFor();
    return { result, heartbeats, card };
  }

  test('Allow on the page lets the waiting call through; its arguments are shown as text', async () => {
    const { result, heartbeats, card } = await ask('echo', { message: payload });
    assert.equal(await card.locator('.tool').textContent(), 'echo');
    assert.deepEqual(JSON.parse(await card.locator('pre.arguments').textContent()), { message: payload });
    assert.equal(await page.locator('main img, main b').count(), 0); // nothing of it became markup
    assert.equal(await page.evaluate(() => window.__ran), undefined);
    await page.waitForTimeout(600); // a few heartbeats while the person reads
    if (process.env.SENTROVA_UPDATE_SCREENSHOT === '1') await page.screenshot({ path: screenshotPath });
    await card.getByRole('button', { name: 'Allow' }).click();
    assert.deepEqual((await result).content, [{ type: 'text', text: `Echo: ${payload}` }]);
    assert.ok(heartbeats.length >= 2, `only ${heartbeats.length} heartbeats`);
    await page.getByText('No calls are waiting for approval.').waitFor();
    const record = gateway.toolcalls().at(-1);
    assert.equal(record.answeredBy, 'page');
    assert.equal(record.decision, 'allow');
    assert.match(record.askedAt, /^\d{4}-/);
  });

  test('Deny with a typed reason reaches the client in its deny text', async () => {
    const { result, card } = await ask('get-sum', { a: 1, b: 2 });
    await card.getByRole('textbox', { name: 'Reason' }).fill('not during the freeze');
    await card.getByRole('button', { name: 'Deny' }).click();
    assert.deepEqual(await result, {
      content: [{ type: 'text', text: denyText('get-sum', 'not during the freeze') }],
      isError: true,
    });
    assert.equal(gateway.toolcalls().at(-1).pageReason, 'not during the freeze');
  });

  test('a page without the token, or with a wrong one, sees no call', async () => {
    const { result, card } = await ask('echo', { message: 'secret plans' });
    for (const address of [gateway.url + '/', `${gateway.url}/#token=wrong`]) {
      const stranger = await browser.newPage();
      await stranger.goto(address);
      await stranger.locator('#status.problem').waitFor();
      assert.match(await stranger.locator('#status').textContent(), /token/);
      assert.equal(await stranger.locator('section.call').count(), 0);
      await stranger.close();
    }
    await card.getByRole('button', { name: 'Allow' }).click();
    await result;
  });

  test('a POST from a page of another origin is refused', async () => {
    const other = http.createServer((request, response) => {
      response.writeHead(200, { 'Content-Type': 'text/html' });
      response.end('<!doctype html><title>elsewhere</title>');
    });
    await new Promise((resolve) => other.listen(0, '127.0.0.1', resolve));
    const before = gateway.auditRecords().length;
    try {
      const stranger = await browser.newPage();
      await stranger.goto(`http://127.0.0.1:${other.address().port}/`);
      const svg = Buffer.from('<svg xmlns="http://www.w3.org/2000/svg" onload="alert(1)"/>').toString('base64');
      const outcome = await stranger.evaluate(async ({ url, body, token }) => {
        // What a hostile page can send without a preflight: a "simple" text/plain POST.
        await fetch(`${url}/v1/event`, { method: 'POST', mode: 'no-cors', headers: { 'Content-Type': 'text/plain' }, body });
        // With the token guessed right, a JSON POST still comes from the wrong origin.
        try {
          await fetch(`${url}/v1/toolcall`, {
            method: 'POST', headers: { 'Content-Type': 'application/json', Authorization: `Bearer ${token}` },
            body: '{"tool":"echo"}',
          });
          return 'read an answer';
        } catch {
          return 'blocked';
        }
      }, {
        url: gateway.url,
        body: JSON.stringify({ kind: 'screenshot', mimeType: 'image/svg+xml', base64: svg, workerName: 'x' }),
        token: gateway.token,
      });
      assert.equal(outcome, 'blocked');
      await stranger.close();
      const records = await waitFor('the refusal', () => {
        const added = gateway.auditRecords().slice(before);
        return added.length >= 1 && added;
      });
      assert.ok(records.every((r) => r.kind === 'refused' && r.status === 403), JSON.stringify(records));
      assert.deepEqual(fs.readdirSync(path.dirname(gateway.auditPath)).filter((f) => f.startsWith('screenshot')), []);
    } finally {
      other.close();
    }
  });
});
