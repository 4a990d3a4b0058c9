#!/usr/bin/env python3
"""Differential test of the built bridge against the JSON readings of real MCP servers.

Every client line of the corpus goes through the bridge in front of a recording server. Then
each line that reached the server is read the way servers read it:

  node         the TypeScript SDK: LF framing, one trailing CR dropped, UTF-8 with replacement,
               JSON.parse (run in node)
  python       the Python SDK: UTF-8 with replacement, universal newlines (a lone CR also ends
               a line), then Python's json on each piece
  python-bytes a hand-written Python server: json.loads on the line's raw bytes (which detects
               a UTF-8 BOM, UTF-16 and UTF-32)
  go           Go's encoding/json as the Go SDK uses it: a stream decoder over the line (values
               separated by whitespace, each followed by CR or LF), member names matched
               case-insensitively with Unicode simple folding, the last match winning
  lenient      Kotlin's retry: from the first "{", with unquoted names and words
Every reader executes each element of a batch (older Go and Rust SDKs do). Besides, the stream
reading reads everything the server received as successive JSON values across line boundaries
(the Go SDK's json.Decoder over the pipe).

Pass 1 (a gateway on a refused port: every call is denied fail-closed) feeds the whole corpus
through one bridge and checks that no line any reader takes as a tools/call WITH an id reached
the server, that the stream reading finds no such call either, and that every line that is one
JSON object or array in which no reader finds a tools/call reached it byte for byte, with
nothing lost, merged or cut.

Pass 2 (a gateway that allows everything and records its queries) sends each call line through
a fresh bridge and checks that the tool and arguments the gateway was asked about are the ones
every reader of the relayed line sees.

Exit status: 0 when clean, 1 on any fault, 77 when node is not available (skipped).
"""

import argparse
import base64
import concurrent.futures
import http.server
import json
import math
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading

MISSING = object()


# ------------------------------------------------------------------------------------------
# Corpus

def load_corpus(path):
    entries = []
    with open(path, encoding="utf-8") as f:
        for number, text in enumerate(f, 1):
            text = text.rstrip("\n")
            if not text or text.startswith("#"):
                continue
            entries.append((number, decode_entry(text)))
    return entries


def decode_entry(text):
    def repeat(match):
        return match.group(2) * int(match.group(1))

    text = re.sub(r"\\\*\{(\d+)\}\{([^{}]*)\}", repeat, text)
    out = bytearray()
    pos = 0
    for match in re.finditer(r"\\x\{([0-9A-Fa-f]{2})\}", text):
        out += text[pos:match.start()].encode("utf-8")
        out.append(int(match.group(1), 16))
        pos = match.end()
    out += text[pos:].encode("utf-8")
    return bytes(out)


def show(line, limit=110):
    text = repr(line)
    return text if len(text) <= limit else text[:limit] + "...(%d bytes)" % len(line)


# ------------------------------------------------------------------------------------------
# Readers. Each gives the list of messages a server would take from one line; a message is a
# dict with batch, method, has_id, name and arguments (MISSING when absent).

def no_lone_surrogates(text):
    return "".join("\ufffd" if 0xD800 <= ord(c) <= 0xDFFF else c for c in text)


def replaced_runs(text):
    """Text with every run of replacement characters and lone surrogates as one U+FFFD: readers
    differ in how many they make of one bad sequence, and no real tool name holds one."""
    return re.sub("[\ufffd\ud800-\udfff]+", "\ufffd", text)


def big_integers_as_doubles(value):
    """Integers beyond 64 bits become the nearest double, as the bridge reads them."""
    if isinstance(value, int) and not isinstance(value, bool) and not -2**63 <= value < 2**64:
        try:
            return float(value)
        except OverflowError:
            return math.copysign(math.inf, value)
    if isinstance(value, list):
        return [big_integers_as_doubles(v) for v in value]
    if isinstance(value, dict):
        return {k: big_integers_as_doubles(v) for k, v in value.items()}
    return value


def plain_message(value, batch, reader):
    if not isinstance(value, dict):
        return {"reader": reader, "batch": batch, "object": False}
    params = value.get("params")
    params = params if isinstance(params, dict) else None
    return {
        "reader": reader,
        "batch": batch,
        "object": True,
        "method": value.get("method") if isinstance(value.get("method"), str) else None,
        "has_id": "id" in value,
        "name": params.get("name") if params is not None and isinstance(params.get("name"), str) else None,
        "arguments": params.get("arguments", MISSING) if params is not None else MISSING,
    }


def messages_of(value, reader, describe):
    if isinstance(value, list):
        return [describe(element, True, reader) for element in value]
    return [describe(value, False, reader)]


def python_sdk_reading(line):
    text = line.decode("utf-8", errors="replace")
    messages = []
    for piece in re.split(r"\r\n|\r|\n", text):
        if not piece.strip():
            continue
        try:
            value = json.loads(piece)
        except (ValueError, RecursionError):
            continue
        messages += messages_of(value, "python", plain_message)
    return messages


def python_bytes_reading(line):
    try:
        value = json.loads(line)
    except (ValueError, RecursionError):
        return []
    return messages_of(value, "python-bytes", plain_message)


def go_fold(name):
    """Unicode simple case folding, near enough: long s is S, the Kelvin sign K, e-acute E-acute;
    dotless i stays apart from I, as in Go."""
    out = []
    for c in name:
        folded = c.lower().upper() if c != "\u0131" else c
        out.append(folded if len(folded) == 1 else c)
    return "".join(out)


class FoldedObject:
    """An object as Go decodes it into a struct: last case-insensitive match per field."""

    def __init__(self, pairs):
        self.pairs = pairs

    def get(self, name, default=None):
        found = default
        for key, value in self.pairs:
            if go_fold(key) == go_fold(name):
                found = value
        return found

    def has(self, name):
        return any(go_fold(key) == go_fold(name) for key, _ in self.pairs)


def go_message(value, batch, reader):
    if not isinstance(value, FoldedObject):
        return {"reader": reader, "batch": batch, "object": False}
    method = value.get("method")
    params = value.get("params")
    params = params if isinstance(params, FoldedObject) else None
    name = params.get("name") if params is not None else None
    return {
        "reader": reader,
        "batch": batch,
        "object": True,
        "method": no_lone_surrogates(method) if isinstance(method, str) else None,
        "has_id": value.has("id"),
        "name": no_lone_surrogates(name) if isinstance(name, str) else None,
        "arguments": go_view(params.get("arguments", MISSING)) if params is not None else MISSING,
    }


def go_view(value):
    """Arguments as a Go server's struct decoding takes them: names folded, the last match winning."""
    if isinstance(value, FoldedObject):
        return {go_fold(key): go_view(v) for key, v in value.pairs}
    if isinstance(value, list):
        return [go_view(v) for v in value]
    return value


GO_DECODER = json.JSONDecoder(object_pairs_hook=FoldedObject)


def go_sdk_reading(line):
    text = line.decode("utf-8", errors="replace")
    messages = []
    pos = 0
    while True:
        while pos < len(text) and text[pos] in " \t\r\n":
            pos += 1
        if pos >= len(text):
            break
        try:
            value, end = GO_DECODER.raw_decode(text, pos)
        except (ValueError, RecursionError):
            break
        if end < len(text) and text[end] not in "\r\n":
            break  # trailing data: the SDK drops the value and ends the connection
        messages += messages_of(value, "go", go_message)
        pos = end
    return messages


def lenient_reading(line):
    text = line.decode("utf-8", errors="replace")
    try:
        return messages_of(json.loads(text), "lenient", plain_message)
    except (ValueError, RecursionError):
        pass
    start = text.find("{")
    if start < 0:
        return []
    # Names and bare words in quotes; numbers and the literals stay bare.
    text = re.sub(r'(?<=[{,:\[])\s*([A-Za-z_$/][\w$/.-]*)\s*(?=[:,}\]])',
                  lambda m: m.group(0) if m.group(1) in ("true", "false", "null") else json.dumps(m.group(1)),
                  text[start:])
    try:
        value, _ = json.JSONDecoder().raw_decode(text)
    except (ValueError, RecursionError):
        return []
    return messages_of(value, "lenient", plain_message)


def stream_calls(received):
    """Tools/calls with an id that a decoder reading the whole input as one stream of JSON values
    finds; after a value it cannot read it starts again at the next line."""
    text = received.decode("utf-8", errors="replace")
    found, pos = [], 0
    while pos < len(text):
        while pos < len(text) and text[pos] in " \t\r\n":
            pos += 1
        if pos >= len(text):
            break
        try:
            value, pos = GO_DECODER.raw_decode(text, pos)
        except (ValueError, RecursionError):
            newline = text.find("\n", pos)
            pos = len(text) if newline < 0 else newline + 1
            continue
        found += [m for m in messages_of(value, "stream", go_message) if is_call_with_id(m)]
    return found


def one_container(line):
    try:
        return isinstance(json.loads(line.decode("utf-8", errors="replace")), (dict, list))
    except (ValueError, RecursionError):
        return False


def lenient_stream_call(line):
    """A looser stream decoder than the Go SDK's: values one after another, anything allowed
    after the last good one. The bridge refuses lines that hide a tool call this way too (a
    server built on a plain json.Decoder would run it), so such a line not reaching the server
    is a refusal, not a lost line."""
    text = line.decode("utf-8", errors="replace")
    if text.startswith("\ufeff"):
        text = text[1:]
    pos = 0
    while True:
        while pos < len(text) and text[pos] in " \t\r\n":
            pos += 1
        if pos >= len(text) or text[pos] not in "{[":
            return False
        try:
            value, pos = GO_DECODER.raw_decode(text, pos)
        except (ValueError, RecursionError):
            return False
        values = value if isinstance(value, list) else [value]
        for item in values:
            if isinstance(item, FoldedObject) and item.get("method") == "tools/call":
                return True


def node_readings(lines, node):
    payload = json.dumps([base64.b64encode(line).decode("ascii") for line in lines])
    here = os.path.dirname(os.path.abspath(__file__))
    result = subprocess.run([node, os.path.join(here, "node_reader.js")],
                            input=payload.encode(), capture_output=True, timeout=300, check=True)
    readings = []
    for messages in json.loads(result.stdout):
        converted = []
        for m in messages:
            entry = {"reader": "node", "batch": m["batch"], "object": m["object"]}
            if m["object"]:
                entry.update(method=m["method"], has_id=m["hasId"], name=m["name"],
                             arguments=MISSING if m["arguments"] is None
                             else json.loads(m["arguments"], object_hook=node_non_finite))
            converted.append(entry)
        readings.append(converted)
    return readings


def node_non_finite(obj):
    if list(obj.keys()) == ["$nonFinite"]:
        return float(obj["$nonFinite"])
    return obj


def is_call(message):
    return message.get("object") and message.get("method") == "tools/call"


def is_call_with_id(message):
    return is_call(message) and message.get("has_id")


def ambiguous_call(line):
    """The bridge's safeguard, read independently: repeated or case-variant envelope members in
    a message where some spelling of "method" says "tools/call"."""
    try:
        value = json.loads(line.decode("utf-8", errors="replace").lstrip("\ufeff"),
                           object_pairs_hook=lambda pairs: pairs)
    except (ValueError, RecursionError):
        return False
    if not isinstance(value, list) or (value and not isinstance(value[0], tuple)):
        return False
    pairs = value

    def unclear(pairs, names):
        for name in names:
            exact = sum(1 for k, _ in pairs if k == name)
            variant = sum(1 for k, _ in pairs if k != name and go_fold(k) == go_fold(name))
            if exact > 1 or variant:
                return True
        return False

    calls = any(go_fold(k) == "METHOD" and v == "tools/call" for k, v in pairs)
    if not calls:
        return False
    if unclear(pairs, ["method", "id", "params"]):
        return True
    return any(go_fold(k) == "PARAMS" and isinstance(v, list) and (not v or isinstance(v[0], tuple))
               and unclear(v, ["name", "arguments", "_meta"]) for k, v in pairs)


# ------------------------------------------------------------------------------------------
# Bridge runs

def refused_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def recorder_command(path):
    return ["sh", "-c", 'exec cat >"$1"', "recorder", path]


def run_bridge(bridge, origin, lines, record_path, timeout):
    command = [bridge, "--gateway", origin, "--worker-name", "differential", "--deadline", "20",
               "--", *recorder_command(record_path)]
    env = {k: v for k, v in os.environ.items() if not k.startswith("SENTROVA_")}
    result = subprocess.run(command, input=b"".join(line + b"\n" for line in lines),
                            capture_output=True, timeout=timeout, env=env)
    with open(record_path, "rb") as f:
        received = f.read()
    return result, received


class AllowingGateway:
    """Allows every call and records each query body."""

    def __init__(self):
        queries = self.queries = []

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def setup(self):
                super().setup()
                # Headers and body leave in two writes; without this each answer waits on a delayed ACK.
                self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

            def do_POST(self):
                body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
                if self.path == "/v1/toolcall":
                    queries.append(json.loads(body))
                    answer = b'{"decision":"allow"}'
                else:
                    answer = b"{}"
                self.send_response(200)
                self.send_header("Content-Type", "application/json")
                self.send_header("Content-Length", str(len(answer)))
                self.end_headers()
                self.wfile.write(answer)

            def log_message(self, *args):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.thread = threading.Thread(target=self.server.serve_forever, daemon=True)
        self.thread.start()

    @property
    def origin(self):
        return "http://127.0.0.1:%d" % self.server.server_address[1]

    def close(self):
        self.server.shutdown()
        self.server.server_close()


def same_json(a, b):
    if isinstance(a, bool) or isinstance(b, bool):
        return type(a) is type(b) and a == b
    if isinstance(a, (int, float)) and isinstance(b, (int, float)):
        if isinstance(a, float) and math.isnan(a):
            return isinstance(b, float) and math.isnan(b)
        return a == b
    if isinstance(a, str) and isinstance(b, str):
        return no_lone_surrogates(a) == no_lone_surrogates(b)
    if isinstance(a, list) and isinstance(b, list):
        return len(a) == len(b) and all(same_json(x, y) for x, y in zip(a, b))
    if isinstance(a, dict) and isinstance(b, dict):
        return a.keys() == b.keys() and all(same_json(a[k], b[k]) for k in a)
    return a is None and b is None


def check_approval(bridge, gateway, workdir, number, line, messages):
    """Pass 2 for one line: the gateway allows; whatever reached the server must be what it allowed."""
    faults = []
    singles = [m for m in messages if is_call_with_id(m)]
    before = len(gateway.queries)
    record = os.path.join(workdir, "pass2-%d.record" % number)
    _, received = run_bridge(bridge, gateway.origin, [line], record, timeout=300)
    queries = gateway.queries[before:]
    if received not in (b"", line + b"\n"):
        faults.append("pass 2, line %d: the server received other bytes than the line" % number)
    if not received:
        return faults
    if len(queries) != 1:
        faults.append("pass 2, line %d reached the server after %d gateway queries: %s"
                      % (number, len(queries), show(line)))
        return faults
    query = queries[0]
    for m in singles:
        if m["name"] is not None and replaced_runs(m["name"]) != replaced_runs(query["tool"]):
            faults.append("pass 2, line %d: gateway allowed tool %r, %s executes %r"
                          % (number, query["tool"], m["reader"], m["name"]))
        arguments = m["arguments"]
        if not isinstance(arguments, (dict, list)):
            continue
        approved = json.loads(query["argumentsJSON"])
        if m["reader"] == "node":  # JavaScript reads the gateway's text as doubles too
            approved = big_integers_as_doubles(approved)
        if m["reader"] == "go":  # and Go with its folding
            approved = go_view(GO_DECODER.decode(query["argumentsJSON"]))
        if same_json(approved, arguments):
            continue
        faults.append("pass 2, line %d: gateway saw arguments %s, %s executes %s"
                      % (number, query["argumentsJSON"][:80], m["reader"], show(json.dumps(arguments).encode(), 80)))
    return faults


# ------------------------------------------------------------------------------------------

def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bridge", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("--node", default=shutil.which("node"))
    args = parser.parse_args()
    if not args.node:
        print("node is not installed: differential test skipped")
        return 77

    sys.setrecursionlimit(20000)
    corpus = load_corpus(args.corpus)
    lines = [line for _, line in corpus]
    node = node_readings(lines, args.node)
    readings = []
    for i, line in enumerate(lines):
        readings.append(node[i] + python_sdk_reading(line) + python_bytes_reading(line) + go_sdk_reading(line)
                        + lenient_reading(line))

    faults = []
    workdir = tempfile.mkdtemp(prefix="sentrova-differential-")
    try:
        # Pass 1: deny everything, one stream.
        record = os.path.join(workdir, "pass1.record")
        origin = "http://127.0.0.1:%d" % refused_port()
        result, received = run_bridge(args.bridge, origin, lines, record, timeout=600)
        if result.returncode != 0:
            faults.append("pass 1: the bridge exited with %d: %s" % (result.returncode, result.stderr[-500:]))
        if received and not received.endswith(b"\n"):
            faults.append("pass 1: the server's input ends in a cut line")
        server_lines = received.split(b"\n")[:-1] if received else []

        reached = [False] * len(lines)
        j = 0
        for i, line in enumerate(lines):
            if j < len(server_lines) and server_lines[j] == line:
                reached[i] = True
                j += 1
        if j != len(server_lines):
            faults.append("pass 1: the server received a line that is no corpus line (merged or cut): %s"
                          % show(server_lines[j]))

        counts = {"lines": len(lines), "reached the server": sum(reached), "calls denied or dropped": 0}
        for i, (number, line) in enumerate(corpus):
            messages = readings[i]
            calls_with_id = sorted({m["reader"] for m in messages if is_call_with_id(m)})
            any_call = any(is_call(m) for m in messages) or ambiguous_call(line)
            if reached[i] and calls_with_id:
                faults.append("line %d reached the server although %s read a tools/call with an id: %s"
                              % (number, "/".join(calls_with_id), show(line)))
            if not reached[i] and any_call:
                counts["calls denied or dropped"] += 1
            if not reached[i] and one_container(line) and not any_call and not lenient_stream_call(line):
                faults.append("line %d (one JSON text, no tools/call for any reader) did not reach the server: %s"
                              % (number, show(line)))
        for m in stream_calls(received):
            faults.append("pass 1: the stream reading of the server's input finds a tools/call %s with id"
                          % m["name"])

        # Pass 2: allow everything, one line per bridge, and compare what was approved. Two
        # workers, each with its own gateway, so that attributing a query to its line stays exact.
        # Lines pass 1 already caught slipping through unchecked are not run again.
        slipped = {number for i, (number, _) in enumerate(corpus)
                   if reached[i] and any(is_call_with_id(m) for m in readings[i])}
        call_lines = [(number, line, readings[i]) for i, (number, line) in enumerate(corpus)
                      if number not in slipped and any(is_call_with_id(m) for m in readings[i])]
        local = threading.local()
        gateways = []
        lock = threading.Lock()

        def check(entry):
            if not hasattr(local, "gateway"):
                local.gateway = AllowingGateway()
                with lock:
                    gateways.append(local.gateway)
            return check_approval(args.bridge, local.gateway, workdir, *entry)

        try:
            with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
                for line_faults in pool.map(check, call_lines):
                    faults += line_faults
        finally:
            for gateway in gateways:
                gateway.close()
        counts["call lines checked against an allowing gateway"] = len(call_lines)
    finally:
        shutil.rmtree(workdir, ignore_errors=True)

    for name, value in counts.items():
        print("%-50s %d" % (name, value))
    if faults:
        print("\nFAULTS:")
        for fault in faults:
            print("  " + fault)
        return 1
    print("\nno tools/call with an id reached the server unapproved; no line was lost")
    return 0


if __name__ == "__main__":
    sys.exit(main())
