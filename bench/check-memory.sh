#!/usr/bin/env bash
# Peak memory of `corvane-checksum check` against the length of the list: lists of 20,000,
# 300,000 and 2,000,000 lines (the same 1,000 small files named over and over, as a long archive
# list names many files) are checked once each, and the maximum resident set size is read from
# GNU time. The tool streams its lists, so the peak must not grow with the number of lines; the
# target is under 64 MiB for 2,000,000 lines. `sha256sum -c` of the 300,000-line list is measured
# beside it for reference.
#
# Environment: BUILD_DIR (default build/release), CHECK_BENCH_DIR (default /tmp).
set -euo pipefail
export LC_ALL=C
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build/release}
TOOL=$BUILD_DIR/tools/corvane-checksum
[ -x "$TOOL" ] || { echo "check-memory: build the tool first ($TOOL)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "check-memory: needs GNU time (Debian package: time)" >&2; exit 1; }
SCRATCH=$(mktemp -d "${CHECK_BENCH_DIR:-/tmp}/corvane-check-memory.XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT
cd "$SCRATCH"

mkdir files
for i in $(seq 1000 1999); do printf 'file %s\n' "$i" > "files/f$i"; done
sha256sum files/* > one-round.sha256

peak_kib() {  # command... -> maximum resident set size in KiB
  /usr/bin/time -f '%M' -o peak.txt "$@" > /dev/null 2>&1 || true
  cat peak.txt
}

printf '%-34s %10s %14s\n' "run" "lines" "peak RSS MiB"
for lines in 20000 300000 2000000; do
  rounds=$((lines / 1000))
  : > list.sha256
  for _ in $(seq 1 "$rounds"); do cat one-round.sha256; done >> list.sha256
  kib=$(peak_kib "$TOOL" check --status list.sha256)
  printf '%-34s %10d %14.1f\n' "corvane-checksum check" "$lines" "$(echo "$kib / 1024" | bc -l)"
  if [ "$lines" = 300000 ]; then
    kib=$(peak_kib sha256sum -c --status list.sha256)
    printf '%-34s %10d %14.1f\n' "sha256sum -c" "$lines" "$(echo "$kib / 1024" | bc -l)"
  fi
done
