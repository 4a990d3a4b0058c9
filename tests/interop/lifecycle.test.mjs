// How the bridge starts and ends around a real server: the exit status it hands back, and the
// bearer token it presents to the gateway.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { test } from 'node:test';

import { connect, denyText, memoryServer, startGateway, temporaryDirectory } from './harness.mjs';

const fixture = path.join(path.dirname(fileURLToPath(import.meta.url)), 'fixtures', 'exit-with-status.mjs');

test("the bridge exits with the server's status; a wrong token fails closed", async () => {
  const dir = temporaryDirectory('lifecycle');
  const gateway = await startGateway([{ tool: 'read_graph', decision: 'allow' }]);
  const serverEnv = { MEMORY_FILE_PATH: path.join(dir, 'memory.jsonl') };
  const readGraph = { name: 'read_graph', arguments: {} };
  try {
    for (const status of [0, 7]) {
      const server = [fixture, String(status), ...memoryServer()];
      assert.deepEqual(await (await connect({ server, serverEnv })).close(), [status, null], 'the server on its own');
      const bridged = await connect({ server, serverEnv, gateway });
      assert.deepEqual(JSON.parse((await bridged.client.callTool(readGraph)).content[0].text), { entities: [], relations: [] });
      assert.deepEqual(await bridged.close(), [status, null], 'the bridge');
    }
    const wrong = await connect({ server: memoryServer(), serverEnv, gateway, token: 'other-token' });
    assert.deepEqual(await wrong.client.callTool(readGraph), { content: [{ type: 'text',
      text: denyText('read_graph', 'Sentrova gateway did not answer in time; denying (fail-closed).') }], isError: true });
    await wrong.close();
    assert.deepEqual(gateway.auditRecords().map((r) => r.kind), ['toolcall', 'toolcall', 'refused']);
  } finally {
    await gateway.stop();
    fs.rmSync(dir, { recursive: true, force: true });
  }
});
