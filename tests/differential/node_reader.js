// How a Node MCP server reads each client line: the TypeScript SDK's stdio framing (bytes up to
// LF, decoded as UTF-8 with replacement, one trailing CR removed) and JSON.parse.
// Input on stdin: a JSON array of base64 lines. Output on stdout: a JSON array with, per line,
// the messages Node sees: [{batch, method, hasId, name, arguments}] (arguments as JSON text).
'use strict';

function describe(message, batch) {
  if (message === null || typeof message !== 'object' || Array.isArray(message)) {
    return { batch, object: false };
  }
  const params = message.params;
  const paramsIsObject = params !== null && typeof params === 'object' && !Array.isArray(params);
  let argumentsText = null;
  if (paramsIsObject && Object.prototype.hasOwnProperty.call(params, 'arguments')) {
    try {
      // Non-finite numbers (from 1e400) would print as null; mark them for the comparison.
      argumentsText = JSON.stringify(params.arguments, (key, value) =>
        typeof value === 'number' && !Number.isFinite(value) ? { $nonFinite: String(value) } : value);
    } catch (e) {
      argumentsText = null; // too deep to write back; compared as unknown
    }
  }
  return {
    batch,
    object: true,
    method: typeof message.method === 'string' ? message.method : null,
    hasId: Object.prototype.hasOwnProperty.call(message, 'id'),
    name: paramsIsObject && typeof params.name === 'string' ? params.name : null,
    arguments: argumentsText,
  };
}

function read(line) {
  const text = line.toString('utf8').replace(/\r$/, '');
  let value;
  try {
    value = JSON.parse(text);
  } catch (e) {
    return [];
  }
  if (Array.isArray(value)) return value.map((element) => describe(element, true));
  return [describe(value, false)];
}

const chunks = [];
process.stdin.on('data', (chunk) => chunks.push(chunk));
process.stdin.on('end', () => {
  const lines = JSON.parse(Buffer.concat(chunks).toString('utf8'));
  const result = lines.map((encoded) => read(Buffer.from(encoded, 'base64')));
  process.stdout.write(JSON.stringify(result));
});
