// How the bridge starts and ends around a real server: the exit status it hands back, and
// the bearer token it presents to the gateway.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { test } from 'node:test';

import { connect, denyText, memoryServer, startGateway, temporaryDirectory } from './harness.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const exitWithStatus = (status) => [path.join(here, 'fixtures', 'exit-with-status.mjs'), String(status), ...memoryServer()];

test("the bridge exits with the server's status when the client closes", async () => {
  const dir = temporaryDirectory('lifecycle');
  const gateway = await startGateway([{ tool: 'read_graph', decision: 'allow' }]);
  try {
    for (const status of [0, 7]) {
      const serverEnv = { MEMORY_FILE_PATH: path.join(dir, `memory-${status}.jsonl`) };
      const direct = await connect({ server: exitWithStatus(status), serverEnv });
      assert.deepEqual(await direct.close(), { code: status, signal: null }, 'the server on its own');
      const bridged = await connect({ server: exitWithStatus(status), serverEnv, gateway });
      const graph = await bridged.client.callTool({ name: 'read_graph', arguments: {} });
      assert.notEqual(graph.isError, true);
      assert.deepEqual(await bridged.close(), { code: status, signal: null }, 'the bridge');
    }
  } finally {
    await gateway.stop();
    fs.rmSync(dir, { recursive: true, force: true });
  }
});

test('the bridge presents the bearer token, and a wrong one fails closed', async () => {
  const dir = temporaryDirectory('token');
  const gateway = await startGateway([{ tool: 'read_graph', decision: 'allow' }], { token: 'interop-token' });
  const serverEnv = { MEMORY_FILE_PATH: path.join(dir, 'memory.jsonl') };
  try {
    const right = await connect({ server: memoryServer(), serverEnv, gateway, token: 'interop-token' });
    const wrong = await connect({ server: memoryServer(), serverEnv, gateway, token: 'other-token' });
    try {
      const allowed = await right.client.callTool({ name: 'read_graph', arguments: {} });
      assert.notEqual(allowed.isError, true);
      assert.deepEqual(JSON.parse(allowed.content[0].text), { entities: [], relations: [] });
      const refused = await wrong.client.callTool({ name: 'read_graph', arguments: {} });
      assert.deepEqual(refused, {
        content: [{
          type: 'text',
          text: denyText('read_graph', 'Sentrova gateway did not answer in time; denying (fail-closed).'),
        }],
        isError: true,
      });
      const kinds = gateway.auditRecords().map((r) => r.kind);
      assert.deepEqual(kinds, ['toolcall', 'refused']);
    } finally {
      await right.close();
      await wrong.close();
    }
  } finally {
    await gateway.stop();
    fs.rmSync(dir, { recursive: true, force: true });
  }
});
