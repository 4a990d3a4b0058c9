// server-everything through sentrova-mcp-bridge, compared with a direct connection.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import { after, before, describe, test } from 'node:test';

import { connect, denyText, everythingServer, heartbeatMessage, startGateway, waitFor } from './harness.mjs';

const privateEnvReason = 'environment variables stay private';
const slowWorker = 'slow-approver';

const rules = [
  { tool: 'echo', workerName: slowWorker, decision: 'allow', delaySeconds: 1.2 },
  { tool: ['echo', 'get-sum', 'get-tiny-image', 'trigger-long-running-operation'], decision: 'allow' },
  { tool: 'get-env', decision: 'deny', reason: privateEnvReason },
];

// Arguments that a careless relay would mangle: quotes, slashes, escapes, non-ASCII text.
const trickyMessage = 'quote " slash / backslash \\ tab \t emoji \u{1F600} e\u0301 \u2028 end';

describe('server-everything through the bridge', () => {
  let gateway;
  let direct;
  let bridged;

  before(async () => {
    gateway = await startGateway(rules);
    direct = await connect({ server: everythingServer() });
    // A long heartbeat interval here, so that no heartbeat mixes with the server's progress.
    bridged = await connect({ server: everythingServer(), gateway, heartbeat: 30 });
    await bridged.client.listTools(); // the bridge learns pins and risks from this answer
  });

  after(async () => {
    await direct?.close();
    await bridged?.close();
    await gateway?.stop();
  });

  test('initialize and tools/list give what a direct connection gives', async () => {
    assert.deepEqual(bridged.client.getServerVersion(), direct.client.getServerVersion());
    assert.deepEqual(bridged.client.getServerCapabilities(), direct.client.getServerCapabilities());
    assert.equal(bridged.client.getInstructions(), direct.client.getInstructions());
    const viaBridge = await bridged.client.listTools();
    const viaDirect = await direct.client.listTools();
    assert.ok(viaDirect.tools.length >= 10);
    assert.deepEqual(viaBridge, viaDirect);
  });

  test('allowed calls give the same results as direct ones', async () => {
    const calls = [
      { name: 'echo', arguments: { message: trickyMessage } },
      { name: 'get-sum', arguments: { a: 2.5, b: -7 } },
      { name: 'get-tiny-image', arguments: {} },
    ];
    for (const call of calls) {
      const expected = await direct.client.callTool(call);
      assert.notEqual(expected.isError, true, `${call.name} failed directly`);
      assert.deepEqual(await bridged.client.callTool(call), expected, call.name);
    }
    const asked = gateway.toolcalls().map((r) => [r.query.tool, r.decision]);
    for (const call of calls) assert.ok(asked.some(([tool, d]) => tool === call.name && d === 'allow'), call.name);
    assert.deepEqual((await bridged.client.callTool(calls[1])).content, [
      { type: 'text', text: 'The sum of 2.5 and -7 is -4.5.' },
    ]);
  });

  test('the gateway is asked with the tool, its arguments, its risk and the worker', async () => {
    const before = gateway.toolcalls().length;
    await bridged.client.callTool({ name: 'echo', arguments: { message: trickyMessage } });
    await bridged.client.callTool({ name: 'echo', arguments: { message: 'again' } });
    const [first, second] = gateway.toolcalls().slice(before);
    assert.equal(first.decision, 'allow');
    assert.equal(first.query.tool, 'echo');
    assert.deepEqual(JSON.parse(first.query.argumentsJSON), { message: trickyMessage });
    assert.equal(first.query.risk, 'safe'); // read-only, not destructive
    assert.equal(first.query.workerName, 'interop-worker');
    assert.equal(first.query.serverCommand, bridged.serverCommand);
    assert.match(first.query.pinHash, /^[0-9a-f]{64}$/);
    assert.equal(first.query.pinChanged, false);
    assert.equal(second.query.pinHash, first.query.pinHash);
    assert.notEqual(second.query.requestID, first.query.requestID);
  });

  test('a denied call gets an error result with the deny text', async () => {
    const result = await bridged.client.callTool({ name: 'get-env', arguments: {} });
    assert.deepEqual(result, {
      content: [{ type: 'text', text: denyText('get-env', privateEnvReason) }],
      isError: true,
    });
    const record = gateway.toolcalls().at(-1);
    assert.equal(record.query.tool, 'get-env');
    assert.equal(record.decision, 'deny');
    // The server would have answered with the environment; nothing of it arrives later.
    await bridged.client.ping();
    const leaked = bridged.received.filter((m) => JSON.stringify(m).includes(JSON.stringify(process.env.PATH)));
    assert.deepEqual(leaked, []);
  });

  test('an image in an allowed result becomes a screenshot event and a saved PNG', async () => {
    const result = await bridged.client.callTool({ name: 'get-tiny-image', arguments: {} });
    const image = result.content.find((block) => block.type === 'image');
    assert.ok(image, 'the result carries an image');
    const record = await waitFor('the screenshot event', () =>
      gateway.auditRecords().find((r) => r.kind === 'event' && r.event.kind === 'screenshot'));
    assert.equal(record.event.workerName, 'interop-worker');
    assert.equal(record.event.mimeType, 'image/png');
    assert.equal(record.event.base64Length, image.data.length);
    assert.match(record.screenshotFile, /\.png$/);
    assert.deepEqual(fs.readFileSync(record.screenshotFile), Buffer.from(image.data, 'base64'));
  });

  test('heartbeats reach onprogress while the gateway takes its time', async () => {
    const slow = await connect({ server: everythingServer(), gateway, workerName: slowWorker, heartbeat: 0.2 });
    try {
      await slow.client.listTools();
      const updates = [];
      const started = Date.now();
      const result = await slow.client.callTool(
        { name: 'echo', arguments: { message: 'worth the wait' } },
        undefined,
        { onprogress: (progress) => updates.push({ ...progress, at: Date.now() }) },
      );
      const answeredAt = Date.now();
      assert.deepEqual(result, await direct.client.callTool({ name: 'echo', arguments: { message: 'worth the wait' } }));
      assert.ok(answeredAt - started >= 1100, 'the answer waited for the gateway');
      // About six ticks in 1.2 s; a slow machine may manage fewer.
      assert.ok(updates.length >= 2, `only ${updates.length} heartbeats`);
      updates.forEach((update, index) => {
        assert.equal(update.progress, index + 1);
        assert.equal(update.message, heartbeatMessage);
        assert.equal(update.total, undefined);
        assert.ok(update.at <= answeredAt);
      });
    } finally {
      await slow.close();
    }
  });

  test("the server's own progress notifications pass through in order", async () => {
    const call = (token) => ({
      name: 'trigger-long-running-operation',
      arguments: { duration: 0.6, steps: 3 },
      _meta: { progressToken: token },
    });
    const expectedResult = await direct.client.callTool(call('direct-run'));
    const result = await bridged.client.callTool(call('bridged-run'));
    assert.deepEqual(result, expectedResult);
    // The last step's notification may trail the answer, for either connection.
    const progress = (session, token) => waitFor(`three progress notifications for ${token}`, () => {
      const seen = session.progressFor(token);
      return seen.length >= 3 && seen;
    });
    const expected = [1, 2, 3].map((step) => ({ progress: step, total: 3 }));
    assert.deepEqual((await progress(direct, 'direct-run')).map(({ progressToken, ...rest }) => rest), expected);
    assert.deepEqual((await progress(bridged, 'bridged-run')).map(({ progressToken, ...rest }) => rest), expected);
    await bridged.client.ping();
    assert.equal(bridged.progressFor('bridged-run').length, 3);
  });
});
