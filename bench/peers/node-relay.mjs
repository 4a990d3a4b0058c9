// A plain line relay in Node, the yardstick for the bridge's end-to-end benchmark: it starts the
// server as a child and copies lines in both directions, one readline per direction, holding a
// reader back while its writer's buffer is full. It looks into nothing.
// Usage: node node-relay.mjs -- server-program [args...]
//
// readline also ends a line at a lone CR and drops a CR before LF; the benchmark's lines hold none.

import { spawn } from 'node:child_process';
import readline from 'node:readline';

const separator = process.argv.indexOf('--');
const command = separator >= 0 ? process.argv.slice(separator + 1) : process.argv.slice(2);
if (command.length === 0) {
  process.stderr.write('usage: node node-relay.mjs -- server-program [args...]\n');
  process.exit(64);
}

const child = spawn(command[0], command.slice(1), { stdio: ['pipe', 'pipe', 'inherit'] });

// Copies input to output line by line; pauses the reader while the writer reports a full buffer.
function relayLines(input, output, onEnd) {
  const lines = readline.createInterface({ input, crlfDelay: Infinity, terminal: false });
  let waitingForDrain = false;
  lines.on('line', (line) => {
    if (line.length === 0) return;
    if (!output.write(line + '\n') && !waitingForDrain) {
      waitingForDrain = true;
      lines.pause();
      output.once('drain', () => {
        waitingForDrain = false;
        lines.resume();
      });
    }
  });
  lines.on('close', onEnd);
  return lines;
}

// A reader that has gone must not take the relay down; its lines are simply lost.
child.stdin.on('error', () => {});
process.stdout.on('error', () => {});

const fromClient = relayLines(process.stdin, child.stdin, () => child.stdin.end());
relayLines(child.stdout, process.stdout, () => {});

child.on('error', (error) => {
  process.stderr.write(`node-relay: cannot start ${command[0]}: ${error.message}\n`);
  process.exit(69);
});

// Leave once the server is gone and whatever is queued for the client has been written.
child.on('close', (code, signal) => {
  process.exitCode = code ?? (signal ? 128 : 1);
  fromClient.close();
  process.stdin.destroy();
});
