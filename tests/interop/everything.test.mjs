// server-everything through the bridge beside a direct connection: the SDK client sees the same
// server, tools and results.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { connect, everythingServer, startGateway } from './harness.mjs';

// Arguments that a careless relay would mangle: quotes, slashes, escapes, non-ASCII text.
const tricky = 'quote " slash / backslash \\ tab \t emoji \u{1F600} e\u0301 \u2028 end';

test('initialize, tools/list and allowed calls give what a direct connection gives', async () => {
  const gateway = await startGateway([{ tool: ['echo', 'get-sum', 'get-tiny-image'], decision: 'allow' }]);
  const direct = await connect({ server: everythingServer() });
  const bridged = await connect({ server: everythingServer(), gateway });
  try {
    assert.deepEqual(bridged.client.getServerVersion(), direct.client.getServerVersion());
    assert.deepEqual(bridged.client.getServerCapabilities(), direct.client.getServerCapabilities());
    assert.deepEqual(await bridged.client.listTools(), await direct.client.listTools());
    for (const call of [{ name: 'echo', arguments: { message: tricky } }, { name: 'get-sum', arguments: { a: 2.5, b: -7 } },
      { name: 'get-tiny-image', arguments: {} }]) {
      assert.deepEqual(await bridged.client.callTool(call), await direct.client.callTool(call), call.name);
    }
    assert.deepEqual(JSON.parse(gateway.toolcalls()[0].query.argumentsJSON), { message: tricky });
  } finally {
    await direct.close();
    await bridged.close();
    await gateway.stop();
  }
});
