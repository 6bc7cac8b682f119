#!/usr/bin/env bash
# A short session with the driver against the simulated PLC: values moving
# under watch, a write going round trip, and the exchange statistics under
# line faults. Ends by itself in about ten seconds.
#
#   tools/demo.sh            (KQ71=path/to/kq71 or KQ71_BUILD_DIR=dir to choose the build)
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${KQ71_BUILD_DIR:-$ROOT/build}
KQ71=${KQ71:-$BUILD/tools/cli/kq71}
if [[ ! -x $KQ71 ]]; then
    echo "demo: $KQ71 is not built (./dev build)" >&2
    exit 1
fi

# One simulated PLC for the whole session: its memory is kept between runs.
STATE=$(mktemp "${TMPDIR:-/tmp}/kq71-demo.XXXXXX")
trap 'rm -f "$STATE"' EXIT

kq71() { "$KQ71" "$@"; }

step() {
    printf '\n\033[1m# %s\033[0m\n$ %s\n' "$1" "${*:2}"
    "${@:2}" || true
}

step "addresses as the panel editor takes them, checked by the driver" \
    kq71 check D100:4 X20:8 200CC200:2 M8000
step "X and Y addresses are octal" \
    kq71 check X8
step "counters, a wave and toggling bits, polled for 4 s" \
    kq71 watch D0:4 M0:8 256CC300 --sim-move --seconds 4
step "a write goes out and is acknowledged" \
    kq71 write D200=1234 200CC201=70000 Y10=1 --sim-state "$STATE"
step "and reads back from the PLC" \
    kq71 read D200 200CC201 Y10 --sim-state "$STATE"
step "a noisy line: retries and the last error in the statistics" \
    kq71 watch D200:2 200CC201 --sim-state "$STATE" --sim-faults drop=0.15,bad-crc=0.1,noise=0.1 --seconds 3
