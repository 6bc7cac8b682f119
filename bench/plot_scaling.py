#!/usr/bin/env python3
"""Plots decode cost against cache size and planning cost against watch-list
size from Google Benchmark JSON output, as a PNG drawn by gnuplot.

    bench/plot_scaling.py RESULT.json OUT.png
"""

import math
import re
import shutil
import statistics
import subprocess
import sys

from check_limits import load


def series(runs, family, scale):
    """(size, median CPU time / scale) of every run of a family, by size."""
    points = []
    for name, r in runs.items():
        m = re.fullmatch(re.escape(family) + r"/(\d+)", name)
        if m:
            points.append((int(m.group(1)), statistics.median(r["cpu_ns"]) / scale))
    return sorted(points)


def block(name, points):
    return f"${name} << EOD\n" + "".join(f"{x} {y}\n" for x, y in points) + "EOD\n"


def script(runs, out):
    decode = series(runs, "BM_Decode", 1e3)  # us
    merge = series(runs, "BM_AddrMerge", 1e6)  # ms
    if not decode or not merge:
        raise SystemExit("plot: no BM_Decode or BM_AddrMerge results")
    # Reference curves through the smallest measured point.
    n0, t0 = merge[0]
    nlogn = [(n, t0 * n * math.log(n) / (n0 * math.log(n0))) for n, _ in merge]
    quad = [(n, t0 * (n / n0) ** 2) for n, _ in merge if t0 * (n / n0) ** 2 < merge[-1][1] * 10]
    d0 = decode[0][1]
    return (
        block("decode", decode) + block("merge", merge) + block("nlogn", nlogn) + block("quad", quad)
        + block("limit", [(20000, 20)])
        + f"""
set terminal pngcairo size 1200,480 font ",10" noenhanced
set output "{out}"
set multiplot layout 1,2 title "vorn_kq71_ap: CPU time against size (medians of one run)"
set logscale x
set grid
set key bottom right
set format x "%.0s%c"
set xlabel "units in the cache"
set ylabel "microseconds per 128-word reply"
set xrange [500:500000]
set yrange [0:*]
set title "Decoding one 128-word read reply"
plot $decode using 1:2 with linespoints lw 2 pt 7 title "analyzeFrameOfVal", \\
     {1.5 * d0} with lines dt 2 lc rgb "red" title "limit: 1.5 x cost at 1,000"
set logscale y
set xrange [*:*]
set yrange [*:*]
set key top left
set xlabel "keys in the watch list"
set ylabel "milliseconds per call"
set title "Planning a watch list (intf_addrMerge)"
plot $merge using 1:2 with linespoints lw 2 pt 7 title "intf_addrMerge", \\
     $nlogn using 1:2 with lines dt 2 lc rgb "gray40" title "n log n", \\
     $quad using 1:2 with lines dt 3 lc rgb "red" title "n^2", \\
     $limit using 1:2 with points pt 11 ps 1.5 lc rgb "red" title "limit: under 20 ms at 20,000 keys"
unset multiplot
"""
    )


def main(argv):
    if len(argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    if not shutil.which("gnuplot"):
        print("plot: gnuplot not found (./dev deps installs it)", file=sys.stderr)
        return 1
    runs, _ = load([argv[0]])
    subprocess.run(["gnuplot"], input=script(runs, argv[1]), text=True, check=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
