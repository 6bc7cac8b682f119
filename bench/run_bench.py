#!/usr/bin/env python3
"""Runs the benchmarks of a build, prints their medians and the limits, and
writes the raw results (JSON), a summary and the scaling plot.

    bench/run_bench.py BUILD_DIR [--quick] [--qt4] [--out DIR] [-- EXTRA BENCHMARK FLAGS]

Full run: 5 repetitions of every benchmark, randomly interleaved so that a
burst of load on the shared machine spreads over all of them, then the limits
(check_limits.py); exits non-zero when one is missed. --quick: one run of each
benchmark with a tiny iteration count, to prove they build and run (CI);
limits are not judged on it. --qt4: a build against Qt 4.8, which has no line
benchmark (it needs the Qt 5 tools) and tighter limits (check_limits.py).
"""

import argparse
import json
import os
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

import check_limits  # noqa: E402
import plot_scaling  # noqa: E402

FULL = ["--benchmark_repetitions=5", "--benchmark_enable_random_interleaving=true", "--benchmark_min_time=0.1"]
QUICK = ["--benchmark_repetitions=1", "--benchmark_min_time=0.000001"]
PROGRAMS = (("kq71_bench", "driver"), ("kq71_line_bench", "line"), ("kq71_bridge_bench", "bridge"))
SHOWN_COUNTERS = ("cache", "reports", "blocks", "keys", "queued", "bytes_per_unit", "frames", "wire_us",
                  "link_cpu_us", "bad_replies", "cycle_ms", "median_ms", "p99_ms", "cpu_us_per_value")


def run(program, json_path, flags, log_path):
    started = time.monotonic()
    with open(log_path, "w") as log:
        subprocess.run([program, f"--benchmark_out={json_path}", "--benchmark_out_format=json", *flags],
                       stdout=log, stderr=subprocess.STDOUT, check=True)
    return time.monotonic() - started


def human_ns(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= scale:
            return f"{ns / scale:.3g} {unit}"
    return f"{ns:.3g} ns"


def print_medians(paths):
    """One line per benchmark, in the order they are registered."""
    rows = {}
    for path in paths:
        with open(path) as f:
            for b in json.load(f)["benchmarks"]:
                if b.get("run_type", "iteration") != "iteration":
                    continue
                key = (path, b.get("family_index", 0), b.get("per_family_instance_index", 0))
                rows.setdefault(key, []).append(b)
    print(f"{'benchmark':40} {'CPU':>10} {'wall':>10} {'reps':>4}  counters (medians)")
    for key in sorted(rows):
        reps = rows[key]
        scale = check_limits.TO_NS[reps[0].get("time_unit", "ns")]

        def med(field):
            return statistics.median(r[field] for r in reps)

        counters = " ".join(f"{c}={med(c):.6g}" for c in SHOWN_COUNTERS if c in reps[0])
        print(f"{reps[0]['run_name']:40} {human_ns(med('cpu_time') * scale):>10} "
              f"{human_ns(med('real_time') * scale):>10} {len(reps):>4}  {counters}")


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build_dir")
    parser.add_argument("--quick", action="store_true", help="one tiny run of each benchmark; limits not judged")
    parser.add_argument("--qt4", action="store_true", help="a Qt 4.8 build: driver benchmarks, Qt 4 limits")
    parser.add_argument("--out", help="where results go (default: BUILD_DIR/bench-results, "
                                      "and its quick/ for a quick run)")
    parser.add_argument("extra", nargs="*", help="more flags for the benchmark programs (after --)")
    args = parser.parse_args(argv)

    default_out = os.path.join(args.build_dir, "bench-results", *(["quick"] if args.quick else []))
    out = os.path.abspath(args.out or default_out)
    os.makedirs(out, exist_ok=True)
    flags = (QUICK if args.quick else FULL) + args.extra
    results = []
    for program, tag in PROGRAMS[:1] if args.qt4 else PROGRAMS:
        path = os.path.join(args.build_dir, "bench", program)
        if not os.access(path, os.X_OK):
            print(f"bench: {path} not built", file=sys.stderr)
            return 2
        json_path = os.path.join(out, f"{tag}.json")
        log_path = os.path.join(out, f"{tag}.log")
        print(f"==> {program} {' '.join(flags)}", file=sys.stderr, flush=True)
        try:
            seconds = run(path, json_path, flags, log_path)
        except subprocess.CalledProcessError as e:
            print(f"bench: {program} failed ({e.returncode}); its output is in {log_path}", file=sys.stderr)
            return 2
        print(f"    {seconds:.0f} s; console output in {log_path}", file=sys.stderr)
        results.append(json_path)

    print()
    print_medians(results)
    summary = os.path.join(out, "summary.json")
    status = check_limits.main(results + ["--summary", summary] + (["--no-limits"] if args.quick else [])
                               + (["--qt4"] if args.qt4 else []))
    plot = os.path.join(out, "scaling.png")
    try:
        plot_status = plot_scaling.main([results[0], plot])
    except subprocess.CalledProcessError as e:
        print(f"bench: gnuplot failed ({e.returncode})", file=sys.stderr)
        plot_status = 1
    print(f"\nresults: {', '.join(results)}\nsummary: {summary}")
    if plot_status == 0:
        print(f"plot:    {plot}")
    return status or plot_status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
