#!/usr/bin/env bash
# End-to-end benchmark: the bridge beside a Node line relay and `cat | cat | cat`.
# Usage: bench/e2e/run.sh [build-dir]        (scripts/bench builds first, then calls this)
#
# Measures, interleaving the contenders round by round so that load from elsewhere hits all alike:
#   - throughput both ways of 100,000 small lines and of 200 lines of 1 MiB, output sha256-checked;
#   - peak resident memory of the relay process in each of those runs;
#   - start-up until the answer to initialize, with and without the bridge;
#   - round trip of an allowed tools/call, with and without the bridge.
# Environment: SENTROVA_BENCH_RUNS (rounds, default 7, at least 5), SENTROVA_BENCH_CALLS (tools/call
# round trips per run, default 2000), SENTROVA_BENCH_BRIDGE (another bridge binary to measure),
# SENTROVA_BENCH_KEEP (a file to keep the raw measurements in).
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="$(cd "${1:-$root/build}" && pwd)"
runs="${SENTROVA_BENCH_RUNS:-7}"
calls="${SENTROVA_BENCH_CALLS:-2000}"
[ "$runs" -ge 5 ] || { echo "bench/e2e: SENTROVA_BENCH_RUNS must be at least 5" >&2; exit 64; }
[ "$calls" -ge 2000 ] || { echo "bench/e2e: SENTROVA_BENCH_CALLS must be at least 2000" >&2; exit 64; }

bin="$build/bench/e2e"
bridge="${SENTROVA_BENCH_BRIDGE:-$build/src/sentrova-mcp-bridge}"
relay_js="$root/bench/peers/node-relay.mjs"
for program in "$bin/e2e_driver" "$bin/e2e_sink" "$bin/e2e_emit" "$bin/e2e_server" "$bin/e2e_gateway" "$bridge"; do
  [ -x "$program" ] || { echo "bench/e2e: $program is missing; build first (scripts/bench does)" >&2; exit 1; }
done
command -v node >/dev/null || { echo "bench/e2e: node is missing (scripts/setup installs it)" >&2; exit 1; }

work="$(mktemp -d "${TMPDIR:-/tmp}/sentrova-e2e.XXXXXX")"
gateway_pid=""
cleanup() {
  if [ -n "$gateway_pid" ]; then
    kill "$gateway_pid" 2>/dev/null || true
    wait "$gateway_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "bench/e2e: generating data in $work"
fifo="$work/result.fifo"
mkfifo -m 600 "$fifo"
: >"$work/info"
gen() { # size direction kind count
  local out bytes hash longest
  out="$("$bin/e2e_driver" gen "$3" "$4" "$work/$1-$2.jsonl")" || { echo "bench/e2e: cannot generate $3" >&2; exit 1; }
  read -r bytes hash longest <<<"$out"
  echo "$1 $2 $4 $bytes $longest" >>"$work/info"
  echo "$hash" >"$work/$1-$2.sha256"
}
gen small c2s small-c2s 100000
gen small s2c small-s2c 100000
gen large c2s large 200
# The large lines are the same tool results both ways.
ln "$work/large-c2s.jsonl" "$work/large-s2c.jsonl"
cp "$work/large-c2s.sha256" "$work/large-s2c.sha256"
sed -n 's/^large c2s /large s2c /p' "$work/info" >>"$work/info.s2c"
cat "$work/info.s2c" >>"$work/info"

"$bin/e2e_gateway" >"$work/gateway.port" &
gateway_pid=$!
for _ in $(seq 100); do [ -s "$work/gateway.port" ] && break; sleep 0.05; done
port="$(cat "$work/gateway.port")"
[ -n "$port" ] || { echo "bench/e2e: the gateway did not start" >&2; exit 1; }
gateway_url="http://127.0.0.1:$port"
bridge_cmd=("$bridge" --gateway "$gateway_url" --worker-name bench --)

# A bridge that cannot relay one line makes every figure meaningless: stop here.
ping='{"jsonrpc":"2.0","id":1,"method":"ping"}'
if [ "$(printf '%s\n' "$ping" | timeout 10 "${bridge_cmd[@]}" cat 2>&1)" != "$ping" ]; then
  echo "bench/e2e: $bridge does not relay a line yet; nothing measured" >&2
  exit 1
fi

results="$work/results"
: >"$results"
record() { # label driver-args...: one measurement, appended to the results under the label
  local label="$1" out
  shift
  out="$("$bin/e2e_driver" "$@")" || { echo "bench/e2e: $label failed" >&2; exit 1; }
  echo "$label $out" >>"$results"
}
measure_throughput() { # size direction relay
  local size="$1" direction="$2" relay="$3" data="$work/$1-$2.jsonl"
  local -a peer cmd
  if [ "$direction" = c2s ]; then peer=("$bin/e2e_sink" "$fifo"); else peer=("$bin/e2e_emit" "$data" "$fifo"); fi
  case "$relay" in
    bridge) cmd=("${bridge_cmd[@]}" "${peer[@]}") ;;
    node) cmd=(node "$relay_js" -- "${peer[@]}") ;;
    none) cmd=("${peer[@]}") ;; # the floor: the driver and the peer joined by one pipe
    cat)
      if [ "$direction" = c2s ]; then cmd=(sh -c 'cat | cat | cat | "$@"' sh "${peer[@]}")
      else cmd=(sh -c '"$@" | cat | cat | cat' sh "${peer[@]}"); fi ;;
  esac
  record "throughput $size $direction $relay" throughput "$direction" "$data" "$(cat "$work/$size-$direction.sha256")" "$fifo" -- "${cmd[@]}"
}

echo "bench/e2e: throughput, $runs rounds"
for round in $(seq "$runs"); do
  for size in small large; do
    for direction in c2s s2c; do
      for relay in bridge node cat none; do measure_throughput "$size" "$direction" "$relay"; done
    done
  done
  printf '  round %s done\n' "$round"
done

startup_runs=$((runs * 3))
echo "bench/e2e: start-up, $startup_runs rounds"
for round in $(seq "$startup_runs"); do
  record "startup direct" startup -- "$bin/e2e_server"
  record "startup bridge" startup -- "${bridge_cmd[@]}" "$bin/e2e_server"
  record "startup node" startup -- node "$relay_js" -- "$bin/e2e_server"
done

echo "bench/e2e: tools/call round trips, $runs rounds of $calls calls"
for round in $(seq "$runs"); do
  record "rtt direct" rtt "$calls" 200 - -- "$bin/e2e_server"
  record "rtt bridge" rtt "$calls" 200 "127.0.0.1:$port" -- "${bridge_cmd[@]}" "$bin/e2e_server"
done

echo "bench/e2e: bridge $bridge; node $(node --version); $(nproc) cores; load average $(cut -d' ' -f1-3 /proc/loadavg)"
python3 "$root/bench/e2e/summarise.py" "$results" "$work/info"
if [ -n "${SENTROVA_BENCH_KEEP:-}" ]; then cp "$results" "$SENTROVA_BENCH_KEEP"; fi
