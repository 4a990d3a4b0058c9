// The client half of scripts/demo: one short MCP session with server-everything through
// sentrova-mcp-bridge, told as a transcript.
// Usage: node demo-client.mjs --bridge PATH --gateway URL --audit-log PATH [--heartbeat SECONDS]

import fs from 'node:fs';
import { parseArgs } from 'node:util';

import { connect, everythingServer, waitFor } from '../tests/interop/harness.mjs';

const text = { type: 'string' };
const { values: options } = parseArgs({ options: { bridge: text, gateway: text, 'audit-log': text, heartbeat: { ...text, default: '0.5' } } });
const missing = ['bridge', 'gateway', 'audit-log'].find((required) => !options[required]);
if (missing) {
  console.error(`demo-client: --${missing} is required`);
  process.exit(64);
}

const since = (start) => ((Date.now() - start) / 1000).toFixed(1).padStart(4);
const heading = (text) => console.log(`\n== ${text}`);
const say = (text) => console.log(`   ${text}`);
const clip = (text, max = 110) => (text.length > max ? `${text.slice(0, max - 1)}\u2026` : text);

const textOf = (result) => result.content.filter((block) => block.type === 'text').map((block) => block.text).join(' | ');

const auditRecords = () => (fs.existsSync(options['audit-log']) ? fs.readFileSync(options['audit-log'], 'utf8') : '')
  .split('\n').filter(Boolean).map((line) => JSON.parse(line));

console.log('sentrova-mcp-bridge demo');
say(`client  -> sentrova-mcp-bridge -> server-everything`);
say(`gateway:  ${options.gateway} (sentrova-dev-gateway, examples/demo-policy.json)`);

// The gateway's token is the one scripts/demo read from the gateway's start-up lines.
const { client, close } = await connect({ server: everythingServer(), bridge: options.bridge, workerName: 'demo-agent',
  heartbeat: options.heartbeat, gateway: { url: options.gateway, token: process.env.SENTROVA_GATEWAY_TOKEN ?? '' } });
const version = client.getServerVersion();
heading(`Connected through the bridge to ${version.name} ${version.version}`);

const { tools } = await client.listTools();
heading(`Tools listed (${tools.length}); the bridge derives each one's risk from its annotations`);
say(clip(tools.map((tool) => tool.name).join(', '), 300));

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

await close();

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
