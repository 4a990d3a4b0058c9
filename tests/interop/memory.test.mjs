// server-memory through sentrova-mcp-bridge: refused changes leave the memory file as it
// was; allowed ones land, and read back as a direct connection reads them.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { after, before, describe, test } from 'node:test';

import { connect, denyText, memoryServer, startGateway, temporaryDirectory } from './harness.mjs';

const destructiveReason = 'destructive memory changes need a person';
const rules = [
  { risk: 'critical', decision: 'deny', reason: destructiveReason },
  { tool: 'create_entities', workerName: 'writer', decision: 'allow' },
  { tool: 'add_observations', decision: 'allow', delaySeconds: 3, comment: 'a person taking a while' },
  { tool: ['read_graph', 'search_nodes', 'open_nodes'], decision: 'allow' },
];

const ada = { name: 'Ada', entityType: 'person', observations: ['wrote the first program'] };
const babbage = { name: 'Babbage', entityType: 'person', observations: ['designed the engine'] };

describe('server-memory through the bridge', () => {
  let gateway;
  let dir;
  let memoryFile;
  // The bridge learns each tool's risk from the server's tools/list answer.
  const session = async (workerName) => {
    const opened = await connect({ server: memoryServer(), gateway, workerName, serverEnv: { MEMORY_FILE_PATH: memoryFile } });
    await opened.client.listTools();
    return opened;
  };

  before(async () => {
    dir = temporaryDirectory('memory');
    memoryFile = path.join(dir, 'memory.jsonl');
    gateway = await startGateway(rules);
  });

  after(async () => {
    await gateway?.stop();
    fs.rmSync(dir, { recursive: true, force: true });
  });

  test('an allowed create_entities lands and reads back as a direct connection reads it', async () => {
    const writer = await session('writer');
    try {
      const created = await writer.client.callTool({ name: 'create_entities', arguments: { entities: [ada] } });
      assert.notEqual(created.isError, true, JSON.stringify(created));
      assert.match(fs.readFileSync(memoryFile, 'utf8'), /"name":"Ada"/);
      const record = gateway.toolcalls().at(-1);
      assert.deepEqual([record.query.tool, record.query.workerName, record.decision], ['create_entities', 'writer', 'allow']);
      const viaBridge = await writer.client.callTool({ name: 'read_graph', arguments: {} });
      const direct = await connect({ server: memoryServer(), serverEnv: { MEMORY_FILE_PATH: memoryFile } });
      try {
        assert.deepEqual(viaBridge, await direct.client.callTool({ name: 'read_graph', arguments: {} }));
      } finally {
        await direct.close();
      }
    } finally {
      await writer.close();
    }
  });

  test('approvals run side by side, and a call the client gave up on never runs', async () => {
    const writer = await session('writer');
    try {
      const started = Date.now();
      const finished = [];
      const slow = writer.client.callTool({ name: 'add_observations',
        arguments: { observations: [{ entityName: 'Ada', contents: ['took a while'] }] } })
        .then((result) => { finished.push('slow'); return result; });
      const fast = writer.client.callTool({ name: 'read_graph', arguments: {} })
        .then((result) => { finished.push('fast'); return result; });
      await fast;
      await writer.client.ping();
      assert.ok(Date.now() - started < 2000, 'neither the other call nor a ping waits for a pending approval');
      assert.notEqual((await slow).isError, true);
      assert.deepEqual(finished, ['fast', 'slow']);

      // The SDK gives up after 1 s and sends notifications/cancelled; the allow at 3 s must not run it.
      const before = fs.readFileSync(memoryFile);
      await assert.rejects(writer.client.callTool({ name: 'add_observations',
        arguments: { observations: [{ entityName: 'Ada', contents: ['abandoned'] }] } }, undefined, { timeout: 1000 }));
      await new Promise((resolve) => setTimeout(resolve, 3000));
      await writer.client.ping();
      assert.deepEqual(fs.readFileSync(memoryFile), before);
    } finally {
      await writer.close();
    }
  });

  test('a denied create_entities leaves the memory file unchanged', async () => {
    const before = fs.readFileSync(memoryFile);
    const reader = await session('reader');
    try {
      const result = await reader.client.callTool({ name: 'create_entities', arguments: { entities: [babbage] } });
      assert.deepEqual(result, {
        content: [{ type: 'text', text: denyText('create_entities', 'no policy rule matched') }],
        isError: true,
      });
      assert.equal(gateway.toolcalls().at(-1).query.risk, 'caution'); // writes, but not destructive
      const graph = await reader.client.callTool({ name: 'read_graph', arguments: {} });
      assert.doesNotMatch(graph.content[0].text, /Babbage/);
    } finally {
      await reader.close();
    }
    assert.deepEqual(fs.readFileSync(memoryFile), before);
  });

  test('a destructive call is denied by its risk and changes nothing', async () => {
    const before = fs.readFileSync(memoryFile);
    const writer = await session('writer');
    try {
      const result = await writer.client.callTool({ name: 'delete_entities', arguments: { entityNames: ['Ada'] } });
      assert.deepEqual(result, {
        content: [{ type: 'text', text: denyText('delete_entities', destructiveReason) }],
        isError: true,
      });
      const record = gateway.toolcalls().at(-1);
      assert.equal(record.query.risk, 'critical');
      assert.equal(record.rule, 0);
      const graph = await writer.client.callTool({ name: 'open_nodes', arguments: { names: ['Ada'] } });
      assert.match(graph.content[0].text, /wrote the first program/);
    } finally {
      await writer.close();
    }
    assert.deepEqual(fs.readFileSync(memoryFile), before);
  });
});
