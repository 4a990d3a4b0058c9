// A remote (Streamable HTTP) server behind the bridge: server-everything over HTTP on 127.0.0.1,
// reached through the stdio adapter mcp-remote, which the bridge starts as its server.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import { test } from 'node:test';

import { connect, denyText, serverScript, startGateway, temporaryDirectory, waitFor } from './harness.mjs';

// Arguments that a careless relay would mangle: quotes, slashes, escapes, non-ASCII text.
const tricky = 'quote " slash / backslash \\ tab \t emoji \u{1F600} e\u0301 \u2028 end';
// server-everything listens on $PORT on every address; this preload keeps it on 127.0.0.1 with a
// port of the system's choosing, and names the port.
const loopbackOnly = 'data:text/javascript,' + encodeURIComponent(`
  import net from 'node:net';
  const listen = net.Server.prototype.listen;
  net.Server.prototype.listen = function (...args) {
    this.once('listening', () => console.error('loopback port ' + this.address().port));
    return listen.call(this, 0, '127.0.0.1', args.find((arg) => typeof arg === 'function'));
  };`);

test('an allowed call returns the remote result; a denied call never reaches the remote server', async () => {
  const remote = spawn(process.execPath, ['--import', loopbackOnly, serverScript('@modelcontextprotocol/server-everything'),
    'streamableHttp'], { stdio: ['ignore', 'pipe', 'pipe'] });
  let log = '', errors = '';
  remote.stdout.on('data', (chunk) => { log += chunk; });
  remote.stderr.on('data', (chunk) => { errors += chunk; });
  const home = temporaryDirectory('mcp-remote'); // mcp-remote keeps OAuth state there: a fresh one
  const gateway = await startGateway([{ tool: 'echo', decision: 'allow' }, { tool: 'get-env', decision: 'deny', reason: 'private' }]);
  try {
    const port = await waitFor('the remote server', () => /loopback port (\d+)/.exec(errors)?.[1]);
    const { client, close } = await connect({ gateway, serverEnv: { HOME: home, MCP_REMOTE_CONFIG_DIR: home },
      server: [serverScript('mcp-remote'), `http://127.0.0.1:${port}/mcp`, '--transport', 'http-only'] });
    try {
      assert.ok((await client.listTools()).tools.some((tool) => tool.name === 'get-env'));
      const echo = (message) => client.callTool({ name: 'echo', arguments: { message } });
      assert.deepEqual(await echo(tricky), { content: [{ type: 'text', text: `Echo: ${tricky}` }] });
      // The server logs every POST: after the deny only those of the echo and tools/list arrive.
      const posts = () => log.split('Received MCP POST request').length - 1;
      const before = posts();
      assert.deepEqual(await client.callTool({ name: 'get-env', arguments: {} }),
        { content: [{ type: 'text', text: denyText('get-env', 'private') }], isError: true });
      assert.equal((await echo('after the deny')).content[0].text, 'Echo: after the deny');
      await client.listTools();
      await waitFor('the POSTs of the echo and tools/list', () => posts() >= before + 2);
      assert.equal(posts(), before + 2);
    } finally {
      await close();
    }
  } finally {
    await gateway.stop();
    remote.kill();
    fs.rmSync(home, { recursive: true, force: true });
  }
});
