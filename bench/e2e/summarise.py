#!/usr/bin/env python3
"""Turns the raw measurements of bench/e2e/run.sh into the table: medians, ratios, targets.

Usage: summarise.py RESULTS_FILE DATA_INFO_FILE
RESULTS_FILE lines:  throughput SIZE DIRECTION RELAY SECONDS PEAK_RSS_KIB CPU_MS
                     startup RELAY SECONDS
                     rtt RELAY P50_US P99_US MEAN_US
DATA_INFO_FILE lines: SIZE DIRECTION LINES BYTES LONGEST_LINE
"""

import statistics
import sys
from collections import defaultdict

MIB = 1024 * 1024


def verdict(ok):
    return "met" if ok else "NOT MET"


def fmt_seconds(s):
    return f"{s * 1000:.1f} ms"


def case_label(size, direction):
    amount = "100,000 small lines" if size == "small" else "200 x 1 MiB lines"
    return f"{amount} {'client->server' if direction == 'c2s' else 'server->client'}"


def main():
    results, info_path = sys.argv[1], sys.argv[2]
    times = defaultdict(list)  # (size, direction, relay) -> [seconds]
    rss = defaultdict(list)  # (size, direction, relay) -> [KiB]
    cpu = defaultdict(list)  # (size, direction, relay) -> [ms]
    startup = defaultdict(list)  # relay -> [seconds]
    rtt = defaultdict(list)  # relay -> [(p50, p99, mean)]
    for line in open(results):
        f = line.split()
        if not f:
            continue
        if f[0] == "throughput":
            key = (f[1], f[2], f[3])
            times[key].append(float(f[4]))
            if int(f[5]) > 0:
                rss[key].append(int(f[5]))
            if len(f) > 6 and int(f[6]) >= 0:
                cpu[key].append(int(f[6]))
        elif f[0] == "startup":
            startup[f[1]].append(float(f[2]))
        elif f[0] == "rtt":
            rtt[f[1]].append(tuple(float(x) for x in f[2:5]))
    info = {}
    for line in open(info_path):
        size, direction, lines, nbytes, longest = line.split()
        info[(size, direction)] = (int(lines), int(nbytes), int(longest))

    med = statistics.median
    runs = max((len(v) for v in times.values()), default=0)
    print()
    print(f"Throughput: time from launch until the far end has read every byte (sha256 checked), "
          f"median of {runs} runs")
    print(f"{'case':<38}{'bridge':>12}{'node relay':>12}{'cat|cat|cat':>12}{'no relay':>12}"
          f"{'bridge/node':>13}{'bridge/cat':>12}   target")
    size_targets = {"small": (4, 6.0), "large": (10, 1.6)}
    for size in ("small", "large"):
        for direction in ("c2s", "s2c"):
            if (size, direction) not in info:
                continue
            lines, nbytes, longest = info[(size, direction)]
            label = case_label(size, direction)
            t = {relay: med(times[(size, direction, relay)]) for relay in ("bridge", "node", "cat")
                 if times.get((size, direction, relay))}
            if len(t) < 3:
                print(f"{label:<38} incomplete")
                continue
            to_node, to_cat = t["bridge"] / t["node"], t["bridge"] / t["cat"]
            node_share, max_cat = size_targets[size]
            target = (f"<= 1/{node_share} of node: {verdict(to_node <= 1 / node_share)}; "
                      f"<= {max_cat:g}x cat: {verdict(to_cat <= max_cat)}")
            floor = fmt_seconds(med(times[(size, direction, "none")])) if times.get((size, direction, "none")) else "-"
            print(f"{label:<38}{fmt_seconds(t['bridge']):>12}{fmt_seconds(t['node']):>12}{fmt_seconds(t['cat']):>12}{floor:>12}"
                  f"{to_node:>13.3f}{to_cat:>12.2f}   {target}")
    print()
    print("Throughput in MiB/s, and CPU time (user + system, all threads) of the relay process (medians)")
    print(f"{'case':<48}{'bridge':>10}{'node':>10}{'cat':>10}{'no relay':>10}{'bridge CPU':>14}{'node CPU':>12}")
    for size in ("small", "large"):
        for direction in ("c2s", "s2c"):
            if (size, direction) not in info:
                continue
            lines, nbytes, _ = info[(size, direction)]
            cells = ""
            for relay in ("bridge", "node", "cat", "none"):
                v = times.get((size, direction, relay))
                cells += f"{nbytes / MIB / med(v):10.1f}" if v else f"{'-':>10}"
            for relay, width in (("bridge", 14), ("node", 12)):
                v = cpu.get((size, direction, relay))
                cells += f"{med(v):>{width - 3}.0f} ms" if v else f"{'-':>{width}}"
            print(f"{case_label(size, direction) + f' ({nbytes / MIB:.1f} MiB)':<48}{cells}")

    print()
    print("Peak resident memory of the relay process itself (VmHWM, highest over the runs)")
    print(f"{'case':<38}{'bridge':>13}{'node relay':>13}   target (bridge)")
    for size in ("small", "large"):
        for direction in ("c2s", "s2c"):
            if (size, direction) not in info:
                continue
            longest = info[(size, direction)][2]
            limit = 8 * MIB if size == "small" else 16 * MIB + 3 * longest
            b = rss.get((size, direction, "bridge"))
            n = rss.get((size, direction, "node"))
            bcell = f"{max(b) / 1024:9.1f} MiB" if b else "-"
            ncell = f"{max(n) / 1024:9.1f} MiB" if n else "-"
            target = f"<= {limit / MIB:g} MiB: {verdict(max(b) * 1024 <= limit)}" if b else "-"
            print(f"{case_label(size, direction):<38}{bcell:>13}{ncell:>13}   {target}")

    if startup:
        print()
        n = max(len(v) for v in startup.values())
        print(f"Start-up: launch until the answer to initialize (trivial compiled server), median of {n} runs")
        direct = med(startup["direct"]) if startup.get("direct") else None
        for relay, label in (("direct", "server alone"), ("bridge", "through the bridge"),
                             ("node", "through the node relay (adds node's own start-up)")):
            if startup.get(relay):
                print(f"  {label:<52}{med(startup[relay]) * 1000:8.2f} ms")
        if direct is not None and startup.get("bridge"):
            added = (med(startup["bridge"]) - direct) * 1000
            print(f"  {'added by the bridge':<52}{added:8.2f} ms   target <= 5 ms: {verdict(added <= 5)}")

    if rtt:
        print()
        n = max(len(v) for v in rtt.values())
        print(f"Allowed tools/call round trip (gateway on 127.0.0.1 allowing at once), per run p50/p99/mean "
              f"over the calls, median of {n} runs")
        print(f"  {'':<24}{'p50':>11}{'p99':>11}{'mean':>11}")
        m = {}
        for relay, label in (("direct", "server alone"), ("bridge", "through the bridge"),
                             ("node", "through the node relay")):
            if rtt.get(relay):
                m[relay] = tuple(med(x[i] for x in rtt[relay]) for i in range(3))
                print(f"  {label:<24}" + "".join(f"{v:8.1f} us" for v in m[relay]))
        if "direct" in m and "bridge" in m:
            add = tuple(b - d for b, d in zip(m["bridge"], m["direct"]))
            ok = add[0] <= 200 and add[1] <= 1000
            print(f"  {'added by the bridge':<24}" + "".join(f"{v:8.1f} us" for v in add)
                  + f"   target <= 200 us p50, <= 1000 us p99: {verdict(ok)}")
    print()


if __name__ == "__main__":
    main()
