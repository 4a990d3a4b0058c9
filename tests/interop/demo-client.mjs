// The client half of scripts/demo: one short MCP session with server-everything through
// sentrova-mcp-bridge, told as a transcript.
// Usage: node demo-client.mjs --bridge PATH --gateway URL --audit-log PATH [--heartbeat SECONDS]

import fs from 'node:fs';
import { parseArgs } from 'node:util';

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

import { everythingServer, waitFor } from './harness.mjs';

const { values: options } = parseArgs({
  options: {
    bridge: { type: 'string' },
    gateway: { type: 'string' },
    'audit-log': { type: 'string' },
    heartbeat: { type: 'string', default: '0.5' },
  },
});
for (const required of ['bridge', 'gateway', 'audit-log']) {
  if (!options[required]) {
    console.error(`demo-client: --${required} is required`);
    process.exit(64);
  }
}

const since = (start) => ((Date.now() - start) / 1000).toFixed(1).padStart(4);
const heading = (text) => console.log(`\n== ${text}`);
const say = (text) => console.log(`   ${text}`);
const clip = (text, max = 110) => (text.length > max ? `${text.slice(0, max - 1)}\u2026` : text);

// The risk level the bridge derives from a tool's annotations: read-only and explicitly not
// destructive is safe; read-only or not destructive is caution; anything else critical.
function riskOf(annotations) {
  if (!annotations) return 'caution';
  const flag = (value, fallback) => (value === true || value === 1 ? true : value === false || value === 0 ? false : fallback);
  const readOnly = flag(annotations.readOnlyHint, false);
  const destructive = flag(annotations.destructiveHint, true);
  return ['safe', 'caution', 'critical'][(readOnly ? 0 : 1) + (destructive ? 1 : 0)];
}

function textOf(result) {
  return result.content.filter((block) => block.type === 'text').map((block) => block.text).join(' | ');
}

function auditRecords() {
  if (!fs.existsSync(options['audit-log'])) return [];
  return fs.readFileSync(options['audit-log'], 'utf8').split('\n').filter(Boolean).map((line) => JSON.parse(line));
}

const server = everythingServer();
const transport = new StdioClientTransport({
  command: options.bridge,
  args: ['--worker-name', 'demo-agent', '--gateway', options.gateway, '--heartbeat', options.heartbeat,
    '--', process.execPath, ...server],
  // The gateway's token, which scripts/demo read from the gateway's start-up lines.
  env: { PATH: process.env.PATH, HOME: process.env.HOME ?? '/tmp', SENTROVA_GATEWAY_TOKEN: process.env.SENTROVA_GATEWAY_TOKEN ?? '' },
  stderr: 'pipe',
});
transport.stderr.resume(); // the server's start-up chatter is not part of the story
const client = new Client({ name: 'sentrova-demo', version: '1.0.0' });

console.log('sentrova-mcp-bridge demo');
say(`client  -> sentrova-mcp-bridge -> server-everything`);
say(`gateway:  ${options.gateway} (sentrova-dev-gateway, examples/demo-policy.json)`);

await client.connect(transport);
const version = client.getServerVersion();
heading(`Connected through the bridge to ${version.name} ${version.version}`);

const { tools } = await client.listTools();
heading(`Tools listed (${tools.length}), with the risk the bridge derives from their annotations`);
for (const tool of tools) say(`${tool.name.padEnd(34)} ${riskOf(tool.annotations)}`);

heading('Allowed call: echo {"message":"Hello through the bridge"}');
const echoed = await client.callTool({ name: 'echo', arguments: { message: 'Hello through the bridge' } });
say(`result: ${textOf(echoed)}`);

heading('Denied call: get-env {}');
const denied = await client.callTool({ name: 'get-env', arguments: {} });
say(`isError: ${denied.isError === true}; the server never saw the call. The client got:`);
say(`"${textOf(denied)}"`);

heading('Slow approval: get-sum {"a":19,"b":23} (the policy takes 2 s to allow it)');
const askedAt = Date.now();
const sum = await client.callTool({ name: 'get-sum', arguments: { a: 19, b: 23 } }, undefined, {
  onprogress: (progress) => say(`${since(askedAt)} s  heartbeat ${progress.progress}: ${progress.message ?? ''}`),
});
say(`result after ${since(askedAt).trim()} s: ${textOf(sum)}`);

heading('Screenshot: get-tiny-image {}');
const imageResult = await client.callTool({ name: 'get-tiny-image', arguments: {} });
const image = imageResult.content.find((block) => block.type === 'image');
say(`result: ${clip(textOf(imageResult))} + one ${image.mimeType} image (${Buffer.from(image.data, 'base64').length} bytes)`);
const screenshot = await waitFor('the screenshot event', () =>
  auditRecords().find((record) => record.kind === 'event' && record.event.kind === 'screenshot'), 10000);
say(`the bridge reported it to the gateway, which saved it as:`);
say(screenshot.screenshotFile ?? `(not saved: ${screenshot.screenshotError})`);

await client.close();

const records = auditRecords();
heading(`Audit log: ${options['audit-log']} (${records.length} records)`);
for (const record of records) {
  if (record.kind === 'toolcall') {
    const reason = record.reason ? ` (${record.reason})` : '';
    say(`${record.time}  ${record.decision.padEnd(5)} ${record.query.tool} [risk ${record.query.risk}]${reason}`);
  } else if (record.kind === 'event') {
    say(`${record.time}  event ${record.event.kind} from ${record.event.workerName}`);
  } else {
    say(`${record.time}  ${record.kind}`);
  }
}
console.log('\nDemo finished.');
