// How a Node MCP server reads each client line: the TypeScript SDK's stdio framing (bytes up to
// LF, UTF-8 with replacement, one trailing CR dropped), JSON.parse, each batch element executed.
// stdin: the lines, each ending in LF. stdout: per line, [method, hasId, name, argumentsJSON] of
// each message; argumentsJSON is null when absent or too deep to write back, and marks the
// non-finite numbers (from 1e400) that JSON.stringify would print as null.
'use strict';
const own = (o, key) => Object.prototype.hasOwnProperty.call(o, key);
const isObject = (v) => v !== null && typeof v === 'object' && !Array.isArray(v);
const marked = (key, v) => (typeof v === 'number' && !Number.isFinite(v) ? { $nonFinite: String(v) } : v);
const attempt = (f) => { try { return f(); } catch { return null; } };

function read(line) {
  const value = attempt(() => JSON.parse(line.replace(/\r$/, '')));
  return (Array.isArray(value) ? value : [value]).filter(isObject).map((m) => {
    const params = isObject(m.params) ? m.params : {};
    return [typeof m.method === 'string' ? m.method : null, own(m, 'id'), typeof params.name === 'string' ? params.name : null,
      own(params, 'arguments') ? attempt(() => JSON.stringify(params.arguments, marked)) : null];
  });
}

const lines = require('node:fs').readFileSync(0, 'utf8').split('\n').slice(0, -1);
process.stdout.write(JSON.stringify(lines.map(read)));
