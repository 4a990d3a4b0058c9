#!/usr/bin/env python3
"""The built bridge against how real MCP servers read each line of the corpus of client lines:
node (the TypeScript SDK; node_reader.js), python (the Python SDK: UTF-8 with replacement, a lone
CR also ends a line), python-bytes (json.loads on raw bytes: BOM, UTF-16, UTF-32) and go (the Go
SDK's json.Decoder: several values per line, names matched under simple case folding, the last
match winning); each executes every element of a batch.
Pass 1, every call denied (a refused gateway port), the corpus through one bridge: no line that
some reader takes as a tools/call with an id reaches the server, nor does the server's input read
as one stream hold one; each JSON text without a tools/call reaches it byte for byte.
Pass 2, the dev gateway allowing everything, one bridge per call line: what reaches the server was
put to the gateway, with the tool and arguments every reader sees. Exit 77 without node (skipped).
"""

import argparse, json, math, os, re, shutil, socket, subprocess, sys, tempfile


def decode_entry(text):
    """`\\x{HH}` is one raw byte, `\\*{N}{TEXT}` TEXT N times; the rest is the line's own UTF-8."""
    text = re.sub(r"\\\*\{(\d+)\}\{([^{}]*)\}", lambda m: m.group(2) * int(m.group(1)), text)
    parts = re.split(r"\\x\{([0-9A-Fa-f]{2})\}", text)
    return b"".join(bytes([int(p, 16)]) if i % 2 else p.encode() for i, p in enumerate(parts))


def go_fold(name):  # simple folding: long s is S, the Kelvin sign K; dotless i stays apart
    return "".join(c if c == "\u0131" or len(c.lower().upper()) != 1 else c.lower().upper() for c in name)


class Folded:  # an object as Go decodes it into a struct: the last case-insensitive match per field
    def __init__(self, pairs):
        self.pairs = pairs

    def get(self, name, default=None):
        return ([v for k, v in self.pairs if go_fold(k) == go_fold(name)] or [default])[-1]

    def __contains__(self, name):
        return any(go_fold(k) == go_fold(name) for k, _ in self.pairs)


def plain(value):  # Folded values as a Go server sees them, for comparison
    if isinstance(value, (Folded, list)):
        return {go_fold(k): plain(v) for k, v in value.pairs} if isinstance(value, Folded) else [plain(v) for v in value]
    return value


GO = json.JSONDecoder(object_pairs_hook=Folded)
MISSING = object()


def messages(value):
    """(method, has id, tool name, arguments) of each message a server executes from one value."""
    params = lambda m: m.get("params") if isinstance(m.get("params"), (dict, Folded)) else {}
    return [(m.get("method"), "id" in m, params(m).get("name"), params(m).get("arguments", MISSING))
            for m in (value if isinstance(value, list) else [value]) if isinstance(m, (dict, Folded))]


def go_values(text, resync):
    """The values a json.Decoder reads; resync: after a bad value go on at the next line (the whole
    input as one stream), else stop there, as the SDK ends the connection."""
    values, pos = [], 0
    while True:
        while pos < len(text) and text[pos] in " \t\r\n":
            pos += 1
        if pos >= len(text):
            return values
        try:
            value, pos = GO.raw_decode(text, pos)
            if resync or pos == len(text) or text[pos] in "\r\n":
                values.append(value)
                continue
        except (ValueError, RecursionError):
            if resync:
                pos = text.find("\n", pos) + 1 or len(text)
                continue
        return values


def loads(text, decoder=json):
    try:
        return [decoder.loads(text) if decoder is json else decoder.decode(text)]
    except (ValueError, RecursionError):
        return []


def readings(line, node):
    text = line.decode("utf-8", errors="replace")
    found = {"node": node, "python-bytes": [m for v in loads(line) for m in messages(v)],
             "python": [m for p in re.split(r"\r\n|\r|\n", text) if p.strip() for v in loads(p) for m in messages(v)],
             "go": [m for v in go_values(text, False) for m in messages(v)]}
    return {reader: ms for reader, ms in found.items() if ms}


def is_call(m, with_id=True):
    return m[0] == "tools/call" and (m[1] or not with_id)


def run_bridge(bridge, gateway, lines, workdir, token=""):
    record = os.path.join(workdir, "received")
    env = {"PATH": os.environ["PATH"], "SENTROVA_GATEWAY_TOKEN": token}
    subprocess.run([bridge, "--gateway", gateway, "--worker-name", "differential", "--deadline", "20",
                    "--", "sh", "-c", 'exec cat >"$1"', "recorder", record],
                   input=b"".join(line + b"\n" for line in lines), capture_output=True, timeout=600, env=env)
    with open(record, "rb") as f:
        return f.read()


def as_double(x):
    try:
        return float(x)
    except OverflowError:
        return math.copysign(math.inf, x)


def same(a, b, doubles=False):
    """JSON values alike as their reader holds them: a double reader's numbers (doubles=True: all
    of them, as in JavaScript) as doubles, runs of U+FFFD and lone surrogates as one U+FFFD
    (readers differ in how many one bad byte makes)."""
    if isinstance(a, str) and isinstance(b, str):
        return re.sub("[\ufffd\ud800-\udfff]+", "\ufffd", a) == re.sub("[\ufffd\ud800-\udfff]+", "\ufffd", b)
    if all(isinstance(x, (int, float)) and not isinstance(x, bool) for x in (a, b)):
        if doubles or isinstance(a, float) or isinstance(b, float):
            return as_double(a) == as_double(b) or a != a and b != b
        return a == b
    if isinstance(a, list) and isinstance(b, list):
        return len(a) == len(b) and all(same(x, y, doubles) for x, y in zip(a, b))
    if isinstance(a, dict) and isinstance(b, dict):
        return a.keys() == b.keys() and all(same(a[k], b[k], doubles) for k in a)
    return type(a) is type(b) and a == b


def names_call(value):  # the bridge's safeguard: some spelling of "method" names tools/call
    return any(isinstance(m, Folded) and any(go_fold(k) == "METHOD" and v == "tools/call" for k, v in m.pairs)
               for m in (value if isinstance(value, list) else [value]))


def node_message(m):
    args = MISSING if m[3] is None else json.loads(m[3], object_hook=lambda o: float(o["$nonFinite"]) if "$nonFinite" in o else o)
    return (m[0], m[1], m[2], args)


def main():
    parser = argparse.ArgumentParser()
    for option in ("--bridge", "--gateway", "--corpus"):
        parser.add_argument(option, required=True)
    args = parser.parse_args()
    node = shutil.which("node")
    if not node:
        print("node is not installed: differential test skipped")
        return 77
    sys.setrecursionlimit(20000)
    with open(args.corpus, encoding="utf-8") as f:
        lines = [decode_entry(t.rstrip("\n")) for t in f if t.strip() and not t.startswith("#")]
    node_reader = os.path.join(os.path.dirname(os.path.abspath(__file__)), "node_reader.js")
    node_view = json.loads(subprocess.run([node, node_reader], input=b"".join(line + b"\n" for line in lines),
                                          capture_output=True, check=True, timeout=300).stdout)
    views = [readings(line, [node_message(m) for m in n]) for line, n in zip(lines, node_view)]
    faults = []
    with tempfile.TemporaryDirectory(prefix="sentrova-differential-") as workdir:
        # Pass 1: every call denied, the whole corpus through one bridge.
        with socket.socket() as s:  # bound, never listening: every connection is refused
            s.bind(("127.0.0.1", 0))
            received = run_bridge(args.bridge, "http://127.0.0.1:%d" % s.getsockname()[1], lines, workdir)
        server_lines, pos = received.split(b"\n")[:-1], 0
        for line, view in zip(lines, views):
            reached = pos < len(server_lines) and server_lines[pos] == line
            pos += reached
            callers = [r for r, ms in view.items() if any(is_call(m) for m in ms)]
            if reached and callers:
                faults.append("reached the server although %s read a tools/call with an id: %r" % (callers, line[:100]))
            one_text = [v for v in loads(line.decode("utf-8", errors="replace"), GO) if isinstance(v, (Folded, list))]
            if not reached and one_text and not names_call(one_text[0]) and not any(is_call(m, False) for ms in view.values() for m in ms):
                faults.append("one JSON text without a tools/call did not reach the server: %r" % line[:100])
        if pos != len(server_lines) or received and not received.endswith(b"\n"):
            faults.append("the server received a line that is no corpus line (merged or cut)")
        faults += ["the server's input as one stream holds a tools/call with an id: %r" % (m[2],)
                   for v in go_values(received.decode("utf-8", errors="replace"), True) for m in messages(v) if is_call(m)]

        # Pass 2: everything allowed, one bridge per call line; the gateway's audit log holds each query.
        policy, audit = os.path.join(workdir, "policy.json"), os.path.join(workdir, "audit.jsonl")
        with open(policy, "w") as f:
            f.write('{"rules":[{"tool":"*","decision":"allow"}]}')
        gateway = subprocess.Popen([args.gateway, "--listen", "127.0.0.1:0", "--policy", policy, "--audit-log", audit],
                                   stdout=subprocess.PIPE, env={"PATH": os.environ["PATH"], "SENTROVA_GATEWAY_TOKEN": "t"})
        try:
            url = re.search(rb"listening on (\S+)", gateway.stdout.readline()).group(1).decode()
            call_lines = [(line, view) for line, view in zip(lines, views)
                          if any(is_call(m) for ms in view.values() for m in ms)]
            for line, view in call_lines:
                seen = os.path.getsize(audit) if os.path.exists(audit) else 0
                received = run_bridge(args.bridge, url, [line], workdir, "t")
                with open(audit) as f:
                    f.seek(seen)
                    queries = [r["query"] for r in map(json.loads, f.read().splitlines()) if r["kind"] == "toolcall"]
                if not received:
                    continue
                if received != line + b"\n" or len(queries) != 1:
                    faults.append("reached the server without exactly one query: %r" % line[:100])
                    continue
                tool, text = queries[0]["tool"], queries[0]["argumentsJSON"]
                for reader, ms in view.items():
                    for m in filter(is_call, ms):
                        args_seen = isinstance(m[3], (dict, list, Folded))
                        approved = (plain(GO.decode(text)) if reader == "go" else json.loads(text)) if args_seen else None
                        if m[2] is not None and not same(m[2], tool) or args_seen and not same(plain(m[3]), approved, reader == "node"):
                            faults.append("the gateway allowed %s %s, %s executes %r %r" % (tool, text[:60], reader, m[2], m[3]))
        finally:
            gateway.terminate()
            gateway.wait()
    print("%d lines; %d reached the server with every call denied; %d call lines put to an allowing gateway"
          % (len(lines), len(server_lines), len(call_lines)))
    for fault in faults:
        print("FAULT: " + fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
