// Shared pieces of the interop tests: the dev gateway with a per-test policy, MCP servers from
// node_modules, and SDK clients connected to a server directly or through sentrova-mcp-bridge.

import { spawn } from 'node:child_process';
import crypto from 'node:crypto';
import { once } from 'node:events';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';
import { fileURLToPath } from 'node:url';

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

const here = path.dirname(fileURLToPath(import.meta.url));
const build = path.resolve(here, '..', '..', 'build', 'src');
// CTest passes the binaries of the tree under test; by hand, the default build tree is used.
const bridgeBinary = process.env.SENTROVA_INTEROP_BRIDGE ?? path.join(build, 'sentrova-mcp-bridge');
const gatewayBinary = process.env.SENTROVA_INTEROP_GATEWAY ?? path.join(build, 'sentrova-dev-gateway', 'sentrova-dev-gateway');

export const denyText = (tool, reason) => `Denied by Sentrova policy: ${tool} was not approved \u2014 ${reason}. ` +
  'Do not retry this exact call; ask the user or choose a different action.';

// A package's bin script, so that servers start as `node <script>`: no npx, no network.
export function serverScript(packageName) {
  const dir = path.join(here, 'node_modules', ...packageName.split('/'));
  const { bin } = JSON.parse(fs.readFileSync(path.join(dir, 'package.json'), 'utf8'));
  return path.join(dir, typeof bin === 'string' ? bin : Object.values(bin)[0]);
}
export const everythingServer = () => [serverScript('@modelcontextprotocol/server-everything'), 'stdio'];
export const memoryServer = () => [serverScript('@modelcontextprotocol/server-memory')];

export const temporaryDirectory = (label) => fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), `sentrova-${label}-`)));

export async function waitFor(what, condition, timeoutMs = 15000) {
  for (const deadline = Date.now() + timeoutMs; ;) {
    const value = await condition();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`timed out waiting for ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
}

// sentrova-dev-gateway on 127.0.0.1:0 with these policy rules, an audit log and a token.
export async function startGateway(rules) {
  const token = crypto.randomBytes(16).toString('hex');
  const dir = temporaryDirectory('gateway');
  fs.writeFileSync(path.join(dir, 'policy.json'), JSON.stringify({ rules }));
  const auditPath = path.join(dir, 'audit', 'audit.jsonl');
  const child = spawn(gatewayBinary, ['--listen', '127.0.0.1:0', '--policy', path.join(dir, 'policy.json'),
    '--audit-log', auditPath], { stdio: ['ignore', 'pipe', 'inherit'], env: { ...process.env, SENTROVA_GATEWAY_TOKEN: token } });
  const [line] = await once(readline.createInterface({ input: child.stdout }), 'line');
  const url = /listening on (http:\/\/127\.0\.0\.1:\d+)$/.exec(line)[1];
  const auditRecords = () => (fs.existsSync(auditPath) ? fs.readFileSync(auditPath, 'utf8') : '')
    .split('\n').filter(Boolean).map((l) => JSON.parse(l));
  return {
    url, token, auditRecords,
    pageURL: `${url}/#token=${token}`,
    toolcalls: () => auditRecords().filter((r) => r.kind === 'toolcall'),
    async stop() {
      child.kill('SIGTERM');
      await once(child, 'exit');
      fs.rmSync(dir, { recursive: true, force: true });
    },
  };
}

// An SDK client session with a server, through the bridge when a gateway is given. The SDK
// hands a child only a few variables of its environment, so the environment is passed whole.
export async function connect({ server, gateway, bridge = bridgeBinary, serverEnv = {}, workerName = 'interop-worker',
  heartbeat = 0.2 }) {
  const client = new Client({ name: 'sentrova-interop', version: '1.0.0' });
  const env = { PATH: process.env.PATH, HOME: process.env.HOME ?? os.tmpdir(), ...serverEnv };
  if (gateway) env.SENTROVA_GATEWAY_TOKEN = gateway.token;
  const transport = new StdioClientTransport(gateway
    ? { command: bridge, args: ['--worker-name', workerName, '--gateway', gateway.url, '--heartbeat', String(heartbeat),
      '--', process.execPath, ...server], env, stderr: 'ignore' }
    : { command: process.execPath, args: server, env, stderr: 'ignore' });
  await client.connect(transport);
  const exited = once(transport._process, 'exit'); // the SDK keeps its child private
  return {
    client,
    // Ends the child's input; gives its [code, signal].
    async close() {
      await client.close();
      return exited;
    },
  };
}
