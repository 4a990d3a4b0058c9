// server-filesystem through the bridge: the server's own roots/list requests reach the SDK
// client, and its answers reach the server, at start and after the client's roots change.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { pathToFileURL } from 'node:url';
import { test } from 'node:test';

import { ListRootsRequestSchema } from '@modelcontextprotocol/sdk/types.js';

import { connect, filesystemServer, startGateway, temporaryDirectory, waitFor } from './harness.mjs';

test('roots/list requests from the server reach the client and its answers reach the server', async () => {
  const dirs = ['started-with', 'root-one', 'root-two'].map(temporaryDirectory);
  const gateway = await startGateway([{ tool: 'list_allowed_directories', decision: 'allow' }]);
  let roots = [dirs[1]];
  let asked = 0;
  const session = await connect({
    server: filesystemServer(dirs[0]), gateway, capabilities: { roots: { listChanged: true } },
    prepare: (client) => client.setRequestHandler(ListRootsRequestSchema, async () => {
      asked += 1;
      return { roots: roots.map((dir) => ({ uri: pathToFileURL(dir).href, name: path.basename(dir) })) };
    }),
  });
  // The server serves the client's roots instead of the folder it was started with.
  const serving = (dir) => waitFor(`the server to serve ${dir}`, async () => {
    const text = (await session.client.callTool({ name: 'list_allowed_directories', arguments: {} })).content[0].text;
    return text.includes(dir) && text;
  });
  try {
    assert.equal((await serving(dirs[1])).includes(dirs[0]), false);
    roots = [dirs[2]];
    await session.client.sendRootsListChanged(); // the server asks again
    assert.equal((await serving(dirs[2])).includes(dirs[1]), false);
    assert.equal(session.received.filter((m) => m.method === 'roots/list').length, asked);
  } finally {
    await session.close();
    await gateway.stop();
    for (const dir of dirs) fs.rmSync(dir, { recursive: true, force: true });
  }
});
