#!/usr/bin/env python3
"""Checks the driver's performance limits over Google Benchmark JSON output.

    bench/check_limits.py RESULT.json... [--summary OUT.json] [--no-limits] [--qt4]

Every figure is the median over the repetitions of one run, in CPU time, and
every limit but two absolute ones is a ratio between figures of that run.
Prints one line per limit and exits 1 when one is missed (2 when a benchmark
is missing from the results). --no-limits prints the figures and checks only
that every benchmark ran, for runs too short to judge (CI's quick run).
--qt4: results of a build against Qt 4.8 (./dev qt4 bench): two limits are
tighter there, and the line refresh, which needs the Qt 5 tools, is not run.
"""

import argparse
import json
import re
import statistics
import sys

BAUD = 115200
BITS_PER_CHAR = 11
# One read of 128 words: request of 8 bytes, reply of 3 + 2 * 128 + 2.
EXCHANGE_WIRE_US = (8 + 5 + 2 * 128) * BITS_PER_CHAR / BAUD * 1e6

TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(paths):
    """Per benchmark run name: CPU times in ns and the counters of each repetition."""
    runs = {}
    context = None
    for path in paths:
        with open(path) as f:
            data = json.load(f)
        context = context or data.get("context", {})
        for b in data["benchmarks"]:
            if b.get("run_type", "iteration") != "iteration" or b.get("error_occurred"):
                continue
            # Settings fixed in the code show in the name: "BM_X/100/iterations:1".
            name = re.sub(r"/(iterations|repeats|min_time):[^/]*", "", b["run_name"])
            r = runs.setdefault(name, {"cpu_ns": [], "counters": {}})
            r["cpu_ns"].append(b["cpu_time"] * TO_NS[b.get("time_unit", "ns")])
            for k, v in b.items():
                if isinstance(v, (int, float)) and k not in (
                    "cpu_time", "real_time", "iterations", "repetitions", "repetition_index",
                    "threads", "family_index", "per_family_instance_index",
                ):
                    r["counters"].setdefault(k, []).append(v)
    return runs, context


class Figures:
    def __init__(self, runs):
        self.runs = runs
        self.missing = []

    def cpu_ns(self, name):
        r = self.runs.get(name)
        if not r:
            self.missing.append(name)
            return float("nan")
        return statistics.median(r["cpu_ns"])

    def counter(self, name, key):
        r = self.runs.get(name)
        if not r or key not in r["counters"]:
            self.missing.append(f"{name} ({key})")
            return float("nan")
        return statistics.median(r["counters"][key])


def line_refresh(f, limits, report, summary):
    """The refresh of a watch list over the simulated line (Qt 5 builds only)."""
    name = f"BM_LineRefresh/{BAUD}"
    wire_us = f.counter(name, "wire_us")
    cpu_us = f.cpu_ns(name) / 1e3
    link_us = f.counter(name, "link_cpu_us")
    utilisation = wire_us / (wire_us + cpu_us)
    driver_only = wire_us / (wire_us + cpu_us - link_us)
    summary.update(line_wire_ms=wire_us / 1e3, line_cpu_ms=cpu_us / 1e3, line_link_cpu_ms=link_us / 1e3,
                   line_utilisation=utilisation, line_utilisation_without_link=driver_only,
                   line_frames=f.counter(name, "frames"), line_bad_replies=f.counter(name, "bad_replies"))
    limits.append((f"line use, 2,000-key refresh at {BAUD} baud",
                   f"{100 * utilisation:.2f} %", ">= 90 %", utilisation >= 0.9))
    bad = f.counter(name, "bad_replies")
    limits.append(("bad replies in that refresh", f"{bad:g}", "0", bad == 0))
    report.append(("refresh: frames, wire time, CPU time (of which in the simulated link)",
                   f"{f.counter(name, 'frames'):.0f}, {wire_us / 1e3:.1f} ms, {cpu_us / 1e3:.2f} ms "
                   f"({link_us / 1e3:.2f} ms)"))
    report.append(("line use counting only the driver and the runtime", f"{100 * driver_only:.3f} %"))


# The panel's Qt is slower on the hot paths: planning and the exchange get
# tighter absolute limits there, so that the panel keeps the margin Qt 5 has.
LIMITS = {5: {"merge_ms": 20, "wire_share": 1000}, 4: {"merge_ms": 15, "wire_share": 2000}}


def evaluate(runs, qt=5):
    """Returns (limit rows, report rows, missing benchmarks, summary dict)."""
    most = LIMITS[qt]
    f = Figures(runs)
    limits = []  # (what, figure text, limit text, ok)
    report = []  # (what, figure text)
    summary = {}

    def ratio(what, key, big, small, most):
        value = f.cpu_ns(big) / f.cpu_ns(small)
        summary[key] = value
        limits.append((what, f"{value:.2f}x", f"<= {most}x", value <= most))

    ratio("decode 128 words: cache 100,000 / 1,000", "decode_ratio", "BM_Decode/100000", "BM_Decode/1000", 1.5)
    ratio("intf_getData 16 words: cache 100,000 / 1,000", "get_data_ratio",
          "BM_GetData/100000", "BM_GetData/1000", 1.5)
    ratio("intf_setData 16 words: cache 100,000 / 1,000", "set_data_ratio",
          "BM_SetData/100000", "BM_SetData/1000", 1.5)
    ratio("refresh: 10,000 bits in words / the 625 words holding them", "bits_in_words_refresh_ratio",
          "BM_RefreshBitsInWords", "BM_RefreshWords", 1.5)
    ratio("intf_addrMerge: 20,000 / 2,000 keys", "addr_merge_ratio",
          "BM_AddrMerge/20000", "BM_AddrMerge/2000", 15)

    merge_ms = f.cpu_ns("BM_AddrMerge/20000") / 1e6
    summary["addr_merge_20000_ms"] = merge_ms
    limits.append(("intf_addrMerge of 20,000 keys", f"{merge_ms:.1f} ms", f"< {most['merge_ms']} ms",
                   merge_ms < most["merge_ms"]))

    exchange_us = f.cpu_ns("BM_Exchange/100000") / 1e3
    share = exchange_us / EXCHANGE_WIRE_US
    summary["exchange_100000_us"] = exchange_us
    summary["exchange_wire_share"] = share
    limits.append((f"exchange, cache 100,000, of its {EXCHANGE_WIRE_US / 1e3:.1f} ms wire time",
                   f"1/{1 / share:.0f} ({exchange_us:.1f} us)", f"<= 1/{most['wire_share']}",
                   share <= 1 / most["wire_share"]))

    per_unit = f.counter("BM_CacheMemory/100000", "bytes_per_unit")
    summary["cache_bytes_per_unit_100000"] = per_unit
    limits.append(("heap per cached unit, cache 100,000", f"{per_unit:.1f} B", "<= 128 B", per_unit <= 128))

    if qt == 5:
        line_refresh(f, limits, report, summary)
    for label, fast, slow, key in (
        ("lookup, 128 units", "BM_LookupIndexed", "BM_LookupLinear", "lookup"),
        ("planning (watch list naming N units)", "BM_PlanMerge", "BM_PlanBubble", "planning"),
    ):
        for n in (1000, 100000):
            gain = f.cpu_ns(f"{slow}/{n}") / f.cpu_ns(f"{fast}/{n}")
            summary[f"speedup_{key}_{n}"] = gain
            report.append((f"speed-up over the literal {label}, {n:,} units", f"{gain:,.0f}x"))

    for name, what in (("BM_Decode/100000", "decode"), ("BM_Exchange/100000", "exchange")):
        summary[f"{what}_reports_per_reply"] = f.counter(name, "reports")
    report.append(("decode 128 words, cache 1,000 / 100,000",
                   f"{f.cpu_ns('BM_Decode/1000') / 1e3:.2f} / {f.cpu_ns('BM_Decode/100000') / 1e3:.2f} us"))
    report.append(("changes reported per decoded reply (a third of 128)",
                   f"{f.counter('BM_Decode/100000', 'reports'):.1f}"))
    rr = f.cpu_ns("BM_ExchangeRoundRobin/100000") / 1e3
    summary["exchange_round_robin_us"] = rr
    report.append(("exchange, plan over all of a 100,000-unit cache (cold blocks)",
                   f"{rr:.1f} us = 1/{EXCHANGE_WIRE_US / rr:.0f} of the wire time"))
    worst = max(f.counter(f"BM_CacheMemory/{n}", "bytes_per_unit") for n in (65537, 131071))
    report.append(("heap per cached unit, caches of 65,537 and 131,071 (worst, best index fill)",
                   f"{f.counter('BM_CacheMemory/65537', 'bytes_per_unit'):.1f} / "
                   f"{f.counter('BM_CacheMemory/131071', 'bytes_per_unit'):.1f} B"))
    summary["cache_bytes_per_unit_worst"] = worst

    # The MQTT bridge (a Qt 5 tool): measured, not limited (a broker shares this machine).
    if qt == 5:
        for n in (100, 10000):
            name = f"BM_BridgeLatency/{n}/real_time"
            cycle, median, p99 = (f.counter(name, k) for k in ("cycle_ms", "median_ms", "p99_ms"))
            summary.update({f"bridge_{n}_cycle_ms": cycle, f"bridge_{n}_median_ms": median, f"bridge_{n}_p99_ms": p99})
            report.append((f"bridge, {n:,} tags at {BAUD} baud: change to subscriber, median / p99 (cycle)",
                           f"{median:.1f} / {p99:.1f} ms ({cycle:.1f} ms)"))
        per_value = f.counter("BM_BridgeCpuPerValue/10000", "cpu_us_per_value")
        summary["bridge_cpu_us_per_value"] = per_value
        report.append(("bridge, CPU per published value (10,000 tags all changing)", f"{per_value:.2f} us"))
    return limits, report, sorted(set(f.missing)), summary


def print_table(rows, header):
    width = max([len(r[0]) for r in rows] + [len(header[0])])
    print(header[0].ljust(width), *header[1:], sep="  ")
    for r in rows:
        cells = [r[0].ljust(width), r[1].rjust(18)]
        if len(r) > 2:
            cells += [r[2].ljust(10), "ok" if r[3] else "MISSED"]
        print(*cells, sep="  ")


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("results", nargs="+")
    parser.add_argument("--summary", help="write the figures and ratios here as JSON")
    parser.add_argument("--no-limits", action="store_true", help="check only that every benchmark ran")
    parser.add_argument("--qt4", action="store_true", help="results of a Qt 4.8 build: its limits, no line refresh")
    args = parser.parse_args(argv)

    runs, context = load(args.results)
    limits, report, missing, summary = evaluate(runs, 4 if args.qt4 else 5)
    print()
    print_table(limits, ("limit", "figure".rjust(18), "limit".ljust(10), "result"))
    print()
    print_table(report, ("also measured", "figure".rjust(18)))
    if args.summary:
        with open(args.summary, "w") as f:
            json.dump({"context": context, "figures": summary,
                       "limits": [{"what": w, "figure": v, "limit": l, "ok": ok} for w, v, l, ok in limits]},
                      f, indent=2)
    if missing:
        print("\nmissing from the results:", ", ".join(missing), file=sys.stderr)
        return 2
    if args.no_limits:
        print("\n(figures of a short run: limits not judged)")
        return 0
    missed = [w for w, _, _, ok in limits if not ok]
    if missed:
        print(f"\n{len(missed)} limit(s) missed: " + "; ".join(missed), file=sys.stderr)
        return 1
    print(f"\nall {len(limits)} limits hold")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
