#!/usr/bin/env bash
# `mhl create` and `mhl verify` against `hash -r` with the same formats, side by side in one run,
# on a tree of many small files plus one big file sitting in the page cache. Writing ASC MHL
# manifests must not make a run noticeably slower than hashing the same files.
#
#   hash -r -a FORMATS tree            the reference
#   mhl create -a FORMATS tree         first generation (the history is removed before each run)
#   mhl create -a FORMATS tree         a later generation (appended to a history of 4 generations)
#   hash -r -a xxh64 tree              the reference for verify, which computes one recorded
#   mhl verify tree                    format per file (xxh64, the first of FORMATS)
#
# Every figure is the best wall-clock time of MHL_BENCH_RUNS runs, interleaved (reference, then
# the mhl command, then the reference again ...) so that load from other work hits both alike.
# Ratio = mhl time / reference time (target <= 1.10).
#
# Environment:
#   BUILD_DIR          build directory (default build/release; the tool is built there if missing)
#   MHL_BENCH_DIR      where the scratch folder is made (default /tmp); removed on exit
#   MHL_BENCH_FILES    number of small files (default 20000, 1 byte to 16 KiB, in 50 folders)
#   MHL_BENCH_BIG      size of the big file in MiB (default 1024)
#   MHL_BENCH_FORMATS  formats (default xxh64,md5)
#   MHL_BENCH_RUNS     runs per command (default 5)
#   MHL_BENCH_JOBS     -j of the tool (default 2)
set -euo pipefail
export LC_ALL=C

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build/release}
TOOL=$BUILD_DIR/tools/corvane-checksum
FILES=${MHL_BENCH_FILES:-20000}
BIG=${MHL_BENCH_BIG:-1024}
FORMATS=${MHL_BENCH_FORMATS:-xxh64,md5}
RUNS=${MHL_BENCH_RUNS:-5}
JOBS=${MHL_BENCH_JOBS:-2}

say() { echo "mhl-compare: $*" >&2; }
[ -x "$TOOL" ] || cmake --build "$BUILD_DIR" -j2 --target corvane-checksum >&2

SCRATCH=$(mktemp -d "${MHL_BENCH_DIR:-/tmp}/corvane-mhl-bench.XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT
TREE=$SCRATCH/tree
say "writing $FILES small files and a $BIG MiB file in $TREE"
python3 - "$TREE" "$FILES" <<'EOF'
import os, random, sys
root, count = sys.argv[1], int(sys.argv[2])
random.seed(1)
for i in range(count):
    folder = os.path.join(root, "folder%02d" % (i % 50))
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "file%05d.bin" % i), "wb") as f:
        f.write(random.randbytes(random.randint(1, 16384)))
EOF
head -c "$((BIG << 20))" /dev/urandom >"$TREE/big.bin"
cat "$TREE"/*/* "$TREE/big.bin" >/dev/null  # into the page cache

# Best wall-clock seconds of "$@" (outputs discarded), one run.
time_once() {
  local start end
  start=$(date +%s.%N)
  "$@" >/dev/null 2>&1 || true
  end=$(date +%s.%N)
  echo "$end - $start" | bc
}
min() { if [ -z "$1" ] || [ "$(echo "$2 < $1" | bc)" = 1 ]; then echo "$2"; else echo "$1"; fi; }

# compare NAME PREPARE REFERENCE... -- MHL...: interleaved runs, best of each, ratio.
compare() {
  local name=$1 prepare=$2
  shift 2
  local reference=() mhl=()
  while [ "$1" != -- ]; do reference+=("$1"); shift; done
  shift
  mhl=("$@")
  local best_reference="" best_mhl="" t
  for _ in $(seq "$RUNS"); do
    t=$(time_once "${reference[@]}"); best_reference=$(min "$best_reference" "$t")
    eval "$prepare"
    t=$(time_once "${mhl[@]}"); best_mhl=$(min "$best_mhl" "$t")
  done
  printf '| %s | %.3f | %.3f | %.3f |\n' "$name" "$best_reference" "$best_mhl" \
    "$(echo "$best_mhl / $best_reference" | bc -l)"
}

echo "| case | hash -r s | mhl s | ratio |"
echo "|---|---:|---:|---:|"
compare "create, first generation ($FORMATS)" 'rm -rf "$TREE/ascmhl"' \
  "$TOOL" hash -r -j "$JOBS" -a "$FORMATS" "$TREE" -- \
  "$TOOL" mhl create -j "$JOBS" -a "$FORMATS" "$TREE"
rm -rf "$TREE/ascmhl"
for _ in 1 2 3 4; do "$TOOL" mhl create -j "$JOBS" -a "$FORMATS" "$TREE" >/dev/null; sleep 1; done
compare "create, later generation ($FORMATS)" 'sleep 1' \
  "$TOOL" hash -r -j "$JOBS" -a "$FORMATS" "$TREE" -- \
  "$TOOL" mhl create -j "$JOBS" -a "$FORMATS" "$TREE"
compare "verify (${FORMATS%%,*})" ':' \
  "$TOOL" hash -r -j "$JOBS" -a "${FORMATS%%,*}" "$TREE" -- \
  "$TOOL" mhl verify -j "$JOBS" "$TREE"
