// server-everything through the bridge beside a direct connection: the SDK client sees the same
// server and results, and the server's own progress passes in order.

import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { connect, everythingServer, startGateway, waitFor } from './harness.mjs';

// Arguments that a careless relay would mangle: quotes, slashes, escapes, non-ASCII text.
const tricky = 'quote " slash / backslash \\ tab \t emoji \u{1F600} e\u0301 \u2028 end';
let gateway, direct, bridged;

before(async () => {
  gateway = await startGateway([{ tool: ['echo', 'get-sum', 'get-tiny-image', 'trigger-long-running-operation'],
    decision: 'allow' }]);
  direct = await connect({ server: everythingServer() });
  bridged = await connect({ server: everythingServer(), gateway, heartbeat: 30 }); // no heartbeat among its progress
});

after(async () => {
  await direct?.close();
  await bridged?.close();
  await gateway?.stop();
});

test('initialize, tools/list and allowed calls give what a direct connection gives', async () => {
  assert.deepEqual(bridged.client.getServerVersion(), direct.client.getServerVersion());
  assert.deepEqual(bridged.client.getServerCapabilities(), direct.client.getServerCapabilities());
  assert.deepEqual(await bridged.client.listTools(), await direct.client.listTools());
  for (const call of [{ name: 'echo', arguments: { message: tricky } }, { name: 'get-sum', arguments: { a: 2.5, b: -7 } },
    { name: 'get-tiny-image', arguments: {} }]) {
    assert.deepEqual(await bridged.client.callTool(call), await direct.client.callTool(call), call.name);
  }
  assert.deepEqual(JSON.parse(gateway.toolcalls()[0].query.argumentsJSON), { message: tricky });
});

test("the server's own progress notifications pass through in order", async () => {
  const call = (token) => ({ name: 'trigger-long-running-operation', arguments: { duration: 0.6, steps: 3 },
    _meta: { progressToken: token } });
  assert.deepEqual(await bridged.client.callTool(call('b')), await direct.client.callTool(call('d')));
  const expected = [1, 2, 3].map((progress) => ({ progress, total: 3 }));
  for (const [session, token] of [[direct, 'd'], [bridged, 'b']]) { // the last one may trail the answer
    assert.deepEqual(await waitFor(`progress ${token}`, () => session.progressFor(token).length >= 3 &&
      session.progressFor(token)), expected);
  }
});
