// server-filesystem through sentrova-mcp-bridge: reads, a refused write, and the server's
// roots/list requests to the client.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { pathToFileURL } from 'node:url';
import { after, before, describe, test } from 'node:test';

import { ListRootsRequestSchema } from '@modelcontextprotocol/sdk/types.js';

import { connect, denyText, filesystemServer, startGateway, temporaryDirectory, waitFor } from './harness.mjs';

const writeReason = 'writes need a review';
const rules = [
  { tool: ['write_file', 'edit_file', 'move_file'], decision: 'deny', reason: writeReason },
  { tool: ['read_*', 'list_*', 'get_file_info'], decision: 'allow' },
];

describe('server-filesystem through the bridge', () => {
  let gateway;
  let allowed;
  let direct;
  let bridged;

  before(async () => {
    allowed = temporaryDirectory('files');
    fs.writeFileSync(path.join(allowed, 'notes.txt'), 'first line\nsecond line / \u00e9\u00e8 \u{1F600}\n');
    fs.mkdirSync(path.join(allowed, 'sub'));
    fs.writeFileSync(path.join(allowed, 'sub', 'data.json'), '{"a": [1, 2, 3]}\n');
    gateway = await startGateway(rules);
    direct = await connect({ server: filesystemServer(allowed) });
    bridged = await connect({ server: filesystemServer(allowed), gateway });
    await bridged.client.listTools(); // the bridge learns pins and risks from this answer
  });

  after(async () => {
    await direct?.close();
    await bridged?.close();
    await gateway?.stop();
    fs.rmSync(allowed, { recursive: true, force: true });
  });

  test('tools/list gives what a direct connection gives', async () => {
    assert.deepEqual(await bridged.client.listTools(), await direct.client.listTools());
  });

  test('reads inside the allowed folder give the same results as direct ones', async () => {
    const calls = [
      { name: 'read_text_file', arguments: { path: path.join(allowed, 'notes.txt') } },
      { name: 'read_text_file', arguments: { path: path.join(allowed, 'notes.txt'), head: 1 } },
      { name: 'read_multiple_files', arguments: { paths: [path.join(allowed, 'notes.txt'), path.join(allowed, 'sub', 'data.json')] } },
      { name: 'list_directory', arguments: { path: allowed } },
    ];
    for (const call of calls) {
      const expected = await direct.client.callTool(call);
      assert.notEqual(expected.isError, true, JSON.stringify(expected));
      assert.deepEqual(await bridged.client.callTool(call), expected, call.name);
    }
    const read = await bridged.client.callTool(calls[0]);
    assert.equal(read.content[0].text, fs.readFileSync(path.join(allowed, 'notes.txt'), 'utf8'));
  });

  test("the server's own refusal outside the folder is relayed unchanged", async () => {
    const call = { name: 'read_text_file', arguments: { path: '/etc/hostname' } };
    const expected = await direct.client.callTool(call);
    assert.equal(expected.isError, true);
    assert.deepEqual(await bridged.client.callTool(call), expected);
    assert.equal(gateway.toolcalls().at(-1).decision, 'allow'); // the gateway let it through
  });

  test('a denied write_file leaves no file behind', async () => {
    const target = path.join(allowed, 'written.txt');
    const result = await bridged.client.callTool({ name: 'write_file', arguments: { path: target, content: 'x' } });
    assert.deepEqual(result, { content: [{ type: 'text', text: denyText('write_file', writeReason) }], isError: true });
    const record = gateway.toolcalls().at(-1);
    assert.equal(record.query.tool, 'write_file');
    assert.equal(record.query.risk, 'critical'); // neither read-only nor non-destructive
    // The server handles requests in order: once a later call is answered, an earlier write
    // that had reached it would have happened.
    const listing = await bridged.client.callTool({ name: 'list_directory', arguments: { path: allowed } });
    assert.doesNotMatch(listing.content[0].text, /written\.txt/);
    assert.equal(fs.existsSync(target), false);
  });
});

test('roots/list requests from the server reach the client and its answers reach the server', async () => {
  const started = temporaryDirectory('started-with');
  const firstRoot = temporaryDirectory('root-one');
  const secondRoot = temporaryDirectory('root-two');
  const gateway = await startGateway([{ tool: 'list_allowed_directories', decision: 'allow' }]);
  let roots = [firstRoot];
  let rootRequests = 0;
  const session = await connect({
    server: filesystemServer(started),
    gateway,
    capabilities: { roots: { listChanged: true } },
    prepare: (client) => client.setRequestHandler(ListRootsRequestSchema, async () => {
      rootRequests += 1;
      return { roots: roots.map((dir) => ({ uri: pathToFileURL(dir).href, name: path.basename(dir) })) };
    }),
  });
  try {
    const allowedDirectories = async () =>
      (await session.client.callTool({ name: 'list_allowed_directories', arguments: {} })).content[0].text;
    // Asked right after initialisation; the server then serves the client's root instead.
    await waitFor('the first roots/list request', () => rootRequests >= 1);
    const firstText = await waitFor('the server to take the first root', async () => {
      const text = await allowedDirectories();
      return text.includes(firstRoot) && text;
    });
    assert.equal(firstText.includes(started), false);

    // A client notification about changed roots makes the server ask again.
    roots = [secondRoot];
    await session.client.sendRootsListChanged();
    await waitFor('the second roots/list request', () => rootRequests >= 2);
    const secondText = await waitFor('the server to take the second root', async () => {
      const text = await allowedDirectories();
      return text.includes(secondRoot) && text;
    });
    assert.equal(secondText.includes(firstRoot), false);
    const requests = session.received.filter((m) => m.method === 'roots/list');
    assert.equal(requests.length, rootRequests);
  } finally {
    await session.close();
    await gateway.stop();
    for (const dir of [started, firstRoot, secondRoot]) fs.rmSync(dir, { recursive: true, force: true });
  }
});
