// server-memory through the bridge: approvals run side by side, a call the SDK client gave up on
// never runs, and a destructive call denied by the risk of the server's own annotations changes nothing.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import { connect, denyText, memoryServer, startGateway, temporaryDirectory } from './harness.mjs';

test('server-memory: calls side by side, a cancelled call never runs, a destructive one is denied', async () => {
  const dir = temporaryDirectory('memory');
  const serverEnv = { MEMORY_FILE_PATH: path.join(dir, 'memory.jsonl') };
  const gateway = await startGateway([
    { risk: 'critical', decision: 'deny', reason: 'destructive memory changes need a person' },
    { tool: 'add_observations', decision: 'allow', delaySeconds: 3, comment: 'a person taking a while' },
    { tool: ['create_entities', 'read_graph'], decision: 'allow' },
  ]);
  const { client, close } = await connect({ server: memoryServer(), gateway, serverEnv });
  const memory = () => fs.readFileSync(serverEnv.MEMORY_FILE_PATH, 'utf8');
  const observe = (contents, options) => client.callTool({ name: 'add_observations',
    arguments: { observations: [{ entityName: 'Ada', contents: [contents] }] } }, undefined, options);
  try {
    await client.listTools(); // the bridge learns each tool's risk from this answer
    await client.callTool({ name: 'create_entities', arguments: { entities: [{ name: 'Ada', entityType: 'person', observations: [] }] } });
    const finished = [];
    const slow = observe('took a while').then((result) => finished.push('slow') && result);
    await client.callTool({ name: 'read_graph', arguments: {} });
    await client.ping();
    finished.push('read_graph and ping');
    assert.notEqual((await slow).isError, true);
    assert.deepEqual(finished, ['read_graph and ping', 'slow']);
    assert.match(memory(), /took a while/);

    // The SDK gives up after 1 s and sends notifications/cancelled; the allow at 3 s must not run it.
    await assert.rejects(observe('abandoned', { timeout: 1000 }));
    await new Promise((resolve) => setTimeout(resolve, 3000));
    await client.ping();
    assert.doesNotMatch(memory(), /abandoned/);

    const before = memory();
    assert.deepEqual(await client.callTool({ name: 'delete_entities', arguments: { entityNames: ['Ada'] } }), {
      content: [{ type: 'text', text: denyText('delete_entities', 'destructive memory changes need a person') }], isError: true });
    await client.ping();
    assert.equal(memory(), before);
  } finally {
    await close();
    await gateway.stop();
    fs.rmSync(dir, { recursive: true, force: true });
  }
});
