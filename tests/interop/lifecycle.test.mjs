// How the bridge ends around a real server and SDK client: it hands back the server's exit status.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { test } from 'node:test';

import { connect, memoryServer, startGateway, temporaryDirectory } from './harness.mjs';

const fixture = path.join(path.dirname(fileURLToPath(import.meta.url)), 'fixtures', 'exit-with-status.mjs');

test("the bridge exits with the server's status when the client closes", async () => {
  const dir = temporaryDirectory('lifecycle');
  const gateway = await startGateway([{ tool: 'read_graph', decision: 'allow' }]);
  const serverEnv = { MEMORY_FILE_PATH: path.join(dir, 'memory.jsonl') };
  try {
    for (const status of [0, 7]) {
      const server = [fixture, String(status), ...memoryServer()];
      assert.deepEqual(await (await connect({ server, serverEnv })).close(), [status, null], 'the server on its own');
      const bridged = await connect({ server, serverEnv, gateway });
      assert.deepEqual(JSON.parse((await bridged.client.callTool({ name: 'read_graph', arguments: {} })).content[0].text), { entities: [], relations: [] });
      assert.deepEqual(await bridged.close(), [status, null], 'the bridge');
    }
  } finally {
    await gateway.stop();
    fs.rmSync(dir, { recursive: true, force: true });
  }
});
