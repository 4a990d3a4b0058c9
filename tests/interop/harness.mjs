// Shared pieces of the interop tests: the dev gateway on a free loopback port with a
// per-test policy, MCP servers from node_modules, and SDK clients connected either
// directly to a server or through sentrova-mcp-bridge.

import { spawn } from 'node:child_process';
import crypto from 'node:crypto';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

const here = path.dirname(fileURLToPath(import.meta.url));
const repoRoot = path.resolve(here, '..', '..');

// CTest passes the binaries of the tree under test; by hand, the default build tree is used.
export const bridgeBinary =
  process.env.SENTROVA_INTEROP_BRIDGE ?? path.join(repoRoot, 'build', 'src', 'sentrova-mcp-bridge');
export const gatewayBinary =
  process.env.SENTROVA_INTEROP_GATEWAY ??
  path.join(repoRoot, 'build', 'src', 'sentrova-dev-gateway', 'sentrova-dev-gateway');

// The bridge's own deny text (its exact wording is part of what the client sees).
export function denyText(tool, reason) {
  return `Denied by Sentrova policy: ${tool} was not approved \u2014 ${reason}. ` +
    'Do not retry this exact call; ask the user or choose a different action.';
}
export const heartbeatMessage = 'Awaiting Sentrova approval\u2026';

// Absolute path of a package's bin script, so servers start with `node <script>`: no npx,
// no network.
export function serverScript(packageName) {
  const packageDir = path.join(here, 'node_modules', ...packageName.split('/'));
  const manifestPath = path.join(packageDir, 'package.json');
  if (!fs.existsSync(manifestPath)) {
    throw new Error(`${packageName} is not installed: run scripts/setup (npm ci in tests/interop)`);
  }
  const manifest = JSON.parse(fs.readFileSync(manifestPath, 'utf8'));
  const bin = typeof manifest.bin === 'string' ? manifest.bin : Object.values(manifest.bin)[0];
  return path.join(packageDir, bin);
}

export const everythingServer = () => [serverScript('@modelcontextprotocol/server-everything'), 'stdio'];
export const filesystemServer = (...dirs) => [serverScript('@modelcontextprotocol/server-filesystem'), ...dirs];
export const memoryServer = () => [serverScript('@modelcontextprotocol/server-memory')];

export function temporaryDirectory(label) {
  return fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), `sentrova-interop-${label}-`)));
}

export async function waitFor(what, condition, timeoutMs = 15000) {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    const value = await condition();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`timed out waiting for ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
}

function firstLine(stream, timeoutMs) {
  return new Promise((resolve, reject) => {
    let buffered = '';
    const timer = setTimeout(() => reject(new Error('the gateway printed no address in time')), timeoutMs);
    const onData = (chunk) => {
      buffered += chunk;
      const end = buffered.indexOf('\n');
      if (end >= 0) {
        clearTimeout(timer);
        stream.off('data', onData);
        stream.resume(); // keep draining what follows
        resolve(buffered.slice(0, end));
      }
    };
    stream.setEncoding('utf8');
    stream.on('data', onData);
    stream.once('end', () => reject(new Error(`the gateway ended before printing its address: ${buffered}`)));
  });
}

// Starts sentrova-dev-gateway on 127.0.0.1 with a free port, the given policy rules, an
// audit log in a fresh directory and a token (a fresh random one unless given), which
// connect() hands to the bridge.
export async function startGateway(rules, { token = crypto.randomBytes(16).toString('hex') } = {}) {
  const dir = temporaryDirectory('gateway');
  const policyPath = path.join(dir, 'policy.json');
  fs.writeFileSync(policyPath, JSON.stringify({ rules }, null, 2));
  const auditPath = path.join(dir, 'audit', 'audit.jsonl');
  const args = ['--listen', '127.0.0.1:0', '--policy', policyPath, '--audit-log', auditPath];
  const child = spawn(gatewayBinary, args, {
    stdio: ['ignore', 'pipe', 'inherit'],
    env: { ...process.env, SENTROVA_GATEWAY_TOKEN: token },
  });
  const exited = new Promise((resolve) => child.once('exit', resolve));
  const line = await firstLine(child.stdout, 10000);
  const match = /listening on (http:\/\/127\.0\.0\.1:\d+)$/.exec(line);
  if (!match) throw new Error(`unexpected first line from the gateway: ${line}`);
  return {
    url: match[1],
    token,
    pageURL: `${match[1]}/#token=${token}`,
    dir,
    auditPath,
    auditRecords() {
      if (!fs.existsSync(auditPath)) return [];
      return fs.readFileSync(auditPath, 'utf8').split('\n').filter(Boolean).map((l) => JSON.parse(l));
    },
    toolcalls() {
      return this.auditRecords().filter((r) => r.kind === 'toolcall');
    },
    async stop() {
      child.kill('SIGTERM');
      await exited;
      fs.rmSync(dir, { recursive: true, force: true });
    },
  };
}

// An SDK client session with a server, through the bridge when a gateway is given.
// The SDK hands a child only a few variables of its own environment, so the environment is
// passed whole: PATH, the server's variables and, through the bridge, the gateway's.
export async function connect({
  server,
  gateway,
  serverEnv = {},
  workerName = 'interop-worker',
  heartbeat = 0.2,
  token,
  capabilities = {},
  prepare,
}) {
  const client = new Client({ name: 'sentrova-interop', version: '1.0.0' }, { capabilities });
  const clientErrors = [];
  client.onerror = (error) => clientErrors.push(error);
  prepare?.(client);
  const env = { PATH: process.env.PATH, HOME: process.env.HOME ?? os.tmpdir(), ...serverEnv };
  let command = process.execPath;
  let args = server;
  if (gateway) {
    command = bridgeBinary;
    args = ['--worker-name', workerName, '--gateway', gateway.url, '--heartbeat', String(heartbeat),
      '--', process.execPath, ...server];
    env.SENTROVA_GATEWAY_TOKEN = token ?? gateway.token;
  }
  const transport = new StdioClientTransport({ command, args, env, stderr: 'pipe' });
  let stderr = '';
  transport.stderr.on('data', (chunk) => { stderr += chunk; });
  await client.connect(transport);
  // Every message from the other side, in arrival order, also those the SDK drops (such as
  // progress for a request that has already been answered).
  const received = [];
  const deliver = transport.onmessage;
  transport.onmessage = (message, extra) => {
    received.push(message);
    deliver?.(message, extra);
  };
  // The SDK keeps the spawned process privately; the exit-status test needs it.
  const child = transport._process;
  const exited = new Promise((resolve) => child.once('exit', (code, signal) => resolve({ code, signal })));
  return {
    client,
    clientErrors,
    received,
    progressFor(token) {
      return received.filter((m) => m.method === 'notifications/progress' && m.params?.progressToken === token)
        .map((m) => m.params);
    },
    stderr: () => stderr,
    serverCommand: [process.execPath, ...server].join(' '),
    // Closes the client side (end of the child's input) and gives the child's exit.
    async close() {
      await client.close();
      return exited;
    },
  };
}
