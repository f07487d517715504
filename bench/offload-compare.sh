#!/usr/bin/env bash
# `corvane-checksum copy` against the ways people offload today, side by side in one run: a tree
# of one big file plus many files of 4 KiB to 1 MiB (the source in the page cache) copied to two
# destinations on the same disk with xxh64.
#
#   without read-back   copy --verify none SRC D1 D2      against  cp -r SRC D1 && cp -r SRC D2 && sync
#   with read-back      copy SRC D1 D2                    against  the storage floor: writing as many
#                       bytes as the destinations receive with dd oflag=direct, then reading them back
#                       with dd iflag=direct (the sum of both);
#                                                         and against the two-tool way: cp -r to each
#                       destination, sync, then xxhsum of the source and of every copy read uncached
#                       (its pages dropped first)
#   memory              peak resident size of the copy with read-back
#
# Every figure is the best wall-clock time of OFFLOAD_BENCH_RUNS runs, interleaved; the
# destinations are emptied and the disk flushed before each run, so every run writes everything.
# Targets: without read-back <= 1.10 x cp; with read-back <= 1.25 x the floor and faster than the
# two-tool way; memory < 256 MiB.
#
# Environment:
#   BUILD_DIR             build directory (default build/release; the tool is built if missing)
#   OFFLOAD_BENCH_DIR     where the scratch folder is made (default /tmp, the disk measured)
#   OFFLOAD_BENCH_BIG     size of the big file in MiB (default 2048)
#   OFFLOAD_BENCH_FILES   number of small files (default 20000)
#   OFFLOAD_BENCH_RUNS    runs per command (default 3)
set -euo pipefail
export LC_ALL=C

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build/release}
TOOL=$BUILD_DIR/tools/corvane-checksum
BIG=${OFFLOAD_BENCH_BIG:-2048}
FILES=${OFFLOAD_BENCH_FILES:-20000}
RUNS=${OFFLOAD_BENCH_RUNS:-3}

say() { echo "offload-compare: $*" >&2; }
[ -x "$TOOL" ] || cmake --build "$BUILD_DIR" -j2 --target corvane-checksum >&2
for program in xxhsum python3 bc; do
  command -v "$program" >/dev/null || { say "$program is missing"; exit 1; }
done

SCRATCH=$(mktemp -d "${OFFLOAD_BENCH_DIR:-/tmp}/corvane-offload-bench.XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT
SRC=$SCRATCH/CARD
D1=$SCRATCH/D1
D2=$SCRATCH/D2
mkdir -p "$SRC" "$D1" "$D2"
say "writing $FILES files of 4 KiB to 1 MiB and a $BIG MiB file in $SRC"
python3 - "$SRC" "$FILES" <<'EOF'
import math, os, random, sys
root, count = sys.argv[1], int(sys.argv[2])
random.seed(1)
block = os.urandom(1 << 20)
for i in range(count):
    folder = os.path.join(root, "CLIPS%03d" % (i // 500))
    os.makedirs(folder, exist_ok=True)
    size = int(math.exp(random.uniform(math.log(4096), math.log(1 << 20))))
    start = random.randrange(0, (1 << 20) - size + 1)
    with open(os.path.join(folder, "C%05d.MXF" % i), "wb") as f:
        f.write(block[start:start + size])
EOF
head -c "$((BIG << 20))" /dev/urandom >"$SRC/BIG.MOV"
SOURCE_BYTES=$(du -sb --apparent-size "$SRC" | cut -f1)
sync
cat "$SRC"/*/* "$SRC/BIG.MOV" >/dev/null  # into the page cache
say "source: $SOURCE_BYTES bytes"

empty_destinations() {
  rm -rf "${D1:?}"/* "${D2:?}"/* "$SCRATCH"/floor.*
  sync
}

# Best wall-clock seconds of one run of "$@" (after emptying the destinations).
time_once() {
  empty_destinations
  local start end
  start=$(date +%s.%N)
  "$@" >/dev/null 2>&1 || say "failed: $*"
  end=$(date +%s.%N)
  echo "$end - $start" | bc
}
min() { if [ -z "$1" ] || [ "$(echo "$2 < $1" | bc)" = 1 ]; then echo "$2"; else echo "$1"; fi; }

cp_twice() { cp -r "$SRC" "$D1/" && cp -r "$SRC" "$D2/" && sync; }
floor() {
  local count=$(((SOURCE_BYTES + (8 << 20) - 1) / (8 << 20)))
  dd if=/dev/zero of="$SCRATCH/floor.1" bs=8M count="$count" oflag=direct status=none
  dd if=/dev/zero of="$SCRATCH/floor.2" bs=8M count="$count" oflag=direct status=none
  dd if="$SCRATCH/floor.1" of=/dev/null bs=8M iflag=direct status=none
  dd if="$SCRATCH/floor.2" of=/dev/null bs=8M iflag=direct status=none
}
drop_pages() {  # the page cache's copy of every file below $1
  python3 - "$1" <<'EOF'
import os, sys
for folder, _, names in os.walk(sys.argv[1]):
    for name in names:
        fd = os.open(os.path.join(folder, name), os.O_RDONLY)
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(fd)
EOF
}
two_tools() {
  cp_twice
  drop_pages "$D1"
  drop_pages "$D2"
  (cd "$SRC" && find . -type f -print0 | sort -z | xargs -0 xxhsum -H1) >"$SCRATCH/source.xxh"
  (cd "$D1/CARD" && xxhsum -H1 -c "$SCRATCH/source.xxh")
  (cd "$D2/CARD" && xxhsum -H1 -c "$SCRATCH/source.xxh")
}
ours_no_read_back() { "$TOOL" copy --verify none -a xxh64 "$SRC" "$D1" "$D2"; }
ours() { "$TOOL" copy -a xxh64 "$SRC" "$D1" "$D2"; }

best_cp="" best_ours_none="" best_floor="" best_two="" best_ours=""
for run in $(seq "$RUNS"); do
  say "run $run of $RUNS"
  best_cp=$(min "$best_cp" "$(time_once cp_twice)")
  best_ours_none=$(min "$best_ours_none" "$(time_once ours_no_read_back)")
  best_floor=$(min "$best_floor" "$(time_once floor)")
  best_ours=$(min "$best_ours" "$(time_once ours)")
  best_two=$(min "$best_two" "$(time_once two_tools)")
done

empty_destinations
peak=$(/usr/bin/time -f %M "$TOOL" copy -a xxh64 "$SRC" "$D1" "$D2" 2>&1 >/dev/null | tail -1)
ok=$("$TOOL" copy -a xxh64 "$SRC" "$D1" "$D2" >/dev/null 2>&1 && echo yes || echo no)

ratio() { echo "scale=3; $1 / $2" | bc; }
verdict() { if [ "$(echo "$1 <= $2" | bc)" = 1 ]; then echo PASS; else echo MISS; fi; }
echo "| Case | Ours s | Against | Its s | Ratio | Target | Result |"
echo "|---|---:|---|---:|---:|---:|---|"
r=$(ratio "$best_ours_none" "$best_cp")
echo "| copy --verify none, 2 destinations | $best_ours_none | cp -r to each, sync | $best_cp | $r | <= 1.10 | $(verdict "$r" 1.10) |"
r=$(ratio "$best_ours" "$best_floor")
echo "| copy (read-back), 2 destinations | $best_ours | storage floor (dd direct write + read) | $best_floor | $r | <= 1.25 | $(verdict "$r" 1.25) |"
r=$(ratio "$best_ours" "$best_two")
echo "| copy (read-back), 2 destinations | $best_ours | cp -r, sync, xxhsum uncached | $best_two | $r | < 1.00 | $(verdict "$r" 0.999) |"
echo "| peak memory of copy (read-back) | $((peak / 1024)) MiB | | | | < 256 MiB | $( [ "$peak" -lt $((256 * 1024)) ] && echo PASS || echo MISS) |"
echo
echo "Source: $SOURCE_BYTES bytes ($FILES files + a $BIG MiB file); best of $RUNS; a rerun over the finished copies verified everything: $ok"
