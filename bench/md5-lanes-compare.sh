#!/usr/bin/env bash
# MD5 and SHA-1 over many files: corvane-checksum with lane-parallel MD5 and SHA-1 against md5sum
# and sha1sum and against the tool's own single-stream path (CORVANE_MD5_LANES=scalar,
# CORVANE_SHA1_LANES=scalar, the path every MD5 and SHA-1 took before), over MD5_BENCH_FILES files
# of 1 MiB of random bytes in the page cache and a copy of them:
#   hash -r -a md5 TREE            md5sum over the same files (find | sort | xargs md5sum)
#   compare -a md5 TREE COPY       the same command with CORVANE_MD5_LANES=scalar
#   hash -r -a sha1 TREE           sha1sum over the same files, and the scalar path
#   hash -r -a md5,sha1 TREE       md5sum then sha1sum, and the scalar path (both algorithms)
# The tool runs with -j MD5_BENCH_JOBS (default 2) and --no-progress; outputs go to /dev/null.
# Lane paths measured: the processor's widest, and avx2 when the processor has AVX-512 too.
#
# Every figure is the best wall-clock time of MD5_BENCH_RUNS runs (default 5); the runs of one
# case are interleaved (each command once per round), so that load from other work hits every
# command alike. Before timing, the tool's MD5 and SHA-1 lines (every path, each algorithm alone
# and both together) are compared with md5sum's and sha1sum's; a difference stops the script.
#
# Targets: hash -r at least 3 times md5sum's speed; compare at least twice the speed of the
# single-stream path.
#
# Environment: BUILD_DIR (default build/release; the tool must be built), MD5_BENCH_DIR (where
# the scratch folder goes, default /tmp; removed on exit), MD5_BENCH_FILES (default 2000),
# MD5_BENCH_RUNS, MD5_BENCH_JOBS.
set -euo pipefail
export LC_ALL=C

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build/release}
TOOL_BUILT=$BUILD_DIR/tools/corvane-checksum
FILES=${MD5_BENCH_FILES:-2000}
RUNS=${MD5_BENCH_RUNS:-5}
JOBS=${MD5_BENCH_JOBS:-2}

say() { echo "md5-lanes-compare: $*" >&2; }
die() { say "$*"; exit 1; }

[[ -x "$TOOL_BUILT" ]] || die "no tool at $TOOL_BUILT (cmake --build $BUILD_DIR --target corvane-checksum)"
command -v md5sum >/dev/null || die "md5sum (coreutils) is missing"
command -v sha1sum >/dev/null || die "sha1sum (coreutils) is missing"

SCRATCH=$(mktemp -d "${MD5_BENCH_DIR:-/tmp}/md5-lanes-compare.XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT
needed_kib=$((FILES * 2 * 1024 + 65536))
free_kib=$(df -Pk "$SCRATCH" | awk 'NR == 2 { print $4 }')
((free_kib > needed_kib)) || die "not enough space in $SCRATCH: $needed_kib KiB needed"

# A private copy of the tool and its library, so a rebuild during the run changes nothing.
mkdir -p "$SCRATCH/bin"
cp "$TOOL_BUILT" "$SCRATCH/bin/"
cp -P "$BUILD_DIR"/src/libCorvaneSecurity.so* "$SCRATCH/bin/"
TOOL=$SCRATCH/bin/corvane-checksum
export LD_LIBRARY_PATH=$SCRATCH/bin${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}

say "writing $FILES files of 1 MiB and a copy"
TREE=$SCRATCH/tree
COPY=$SCRATCH/copy
for ((d = 0; d < (FILES + 99) / 100; ++d)); do mkdir -p "$TREE/d$(printf %03d $d)"; done
# Random bytes from AES-CTR (fast), one stream cut into files.
# (openssl ends on SIGPIPE when head has enough.)
{ openssl enc -aes-128-ctr -K 000102030405060708090a0b0c0d0e0f -iv 0 -nosalt \
  -in /dev/zero 2>/dev/null || true; } | head -c $((FILES << 20)) |
  split -b 1048576 -a 5 -d - "$SCRATCH/part."
i=0
for part in "$SCRATCH"/part.*; do
  mv "$part" "$TREE/d$(printf %03d $((i / 100)))/f$(printf %05d $i).bin"
  i=$((i + 1))
done
cp -r "$TREE" "$COPY"
cat "$TREE"/*/* "$COPY"/*/* >/dev/null  # into the page cache

md5sum_tree() { find "$1" -type f -print0 | sort -z | xargs -0 md5sum; }
sha1sum_tree() { find "$1" -type f -print0 | sort -z | xargs -0 sha1sum; }
both_tree() { md5sum_tree "$1" && sha1sum_tree "$1"; }
ours() { "$TOOL" hash -j "$JOBS" --no-progress -r -a md5 "$1"; }

say "checking the tool's MD5 lines against md5sum"
md5sum_tree "$TREE" | awk '{ print $1 }' >"$SCRATCH/reference"
paths=(scalar avx2 avx512)
for path in "${paths[@]}"; do
  CORVANE_MD5_LANES=$path ours "$TREE" | sed -n 's/^MD5 (.*) = //p; t; s/^\([0-9a-f]\{32\}\)  .*/\1/p' \
    >"$SCRATCH/ours"
  cmp -s "$SCRATCH/reference" "$SCRATCH/ours" || die "MD5 differs from md5sum (CORVANE_MD5_LANES=$path)"
done
say "checking the tool's SHA-1 lines against sha1sum"
sha1sum_tree "$TREE" | awk '{ print $1 }' >"$SCRATCH/reference1"
for path in "${paths[@]}"; do
  CORVANE_SHA1_LANES=$path "$TOOL" hash -j "$JOBS" --no-progress -r -a sha1 "$TREE" |
    sed -n 's/^SHA1 (.*) = //p; t; s/^\([0-9a-f]\{40\}\)  .*/\1/p' >"$SCRATCH/ours"
  cmp -s "$SCRATCH/reference1" "$SCRATCH/ours" || die "SHA-1 differs from sha1sum (CORVANE_SHA1_LANES=$path)"
  CORVANE_MD5_LANES=$path CORVANE_SHA1_LANES=$path "$TOOL" hash -j "$JOBS" --no-progress -r \
    -a md5,sha1 "$TREE" >"$SCRATCH/both"
  grep -o '^MD5 (.*) = [0-9a-f]*' "$SCRATCH/both" | sed 's/.* = //' >"$SCRATCH/ours"
  cmp -s "$SCRATCH/reference" "$SCRATCH/ours" || die "MD5 of -a md5,sha1 differs from md5sum ($path)"
  grep -o '^SHA1 (.*) = [0-9a-f]*' "$SCRATCH/both" | sed 's/.* = //' >"$SCRATCH/ours"
  cmp -s "$SCRATCH/reference1" "$SCRATCH/ours" || die "SHA-1 of -a md5,sha1 differs from sha1sum ($path)"
done

has_avx512=$(grep -c -m1 -w avx512f /proc/cpuinfo || true)
has_avx2=$(grep -c -m1 -w avx2 /proc/cpuinfo || true)
lane_paths=()
((has_avx512)) && lane_paths+=(avx512)
((has_avx2)) && lane_paths+=(avx2)
((${#lane_paths[@]})) || say "this processor has neither AVX2 nor AVX-512: only the scalar path"

declare -A best
run_timed() {  # name command...
  local name=$1 start end seconds
  shift
  start=$(date +%s.%N)
  "$@" >/dev/null
  end=$(date +%s.%N)
  seconds=$(echo "$end - $start" | bc -l)
  if [[ -z "${best[$name]:-}" ]] || (($(echo "$seconds < ${best[$name]}" | bc -l))); then
    best[$name]=$seconds
  fi
}

say "timing, best of $RUNS interleaved rounds (load average: $(cut -d' ' -f1-3 /proc/loadavg))"
for ((round = 0; round < RUNS; ++round)); do
  run_timed md5sum md5sum_tree "$TREE"
  run_timed "hash scalar" env CORVANE_MD5_LANES=scalar "$TOOL" hash -j "$JOBS" --no-progress -r -a md5 "$TREE"
  for path in "${lane_paths[@]}"; do
    run_timed "hash $path" env CORVANE_MD5_LANES=$path "$TOOL" hash -j "$JOBS" --no-progress -r -a md5 "$TREE"
  done
  run_timed "compare scalar" env CORVANE_MD5_LANES=scalar "$TOOL" compare -j "$JOBS" --no-progress -a md5 "$TREE" "$COPY"
  for path in "${lane_paths[@]}"; do
    run_timed "compare $path" env CORVANE_MD5_LANES=$path "$TOOL" compare -j "$JOBS" --no-progress -a md5 "$TREE" "$COPY"
  done
  run_timed sha1sum sha1sum_tree "$TREE"
  run_timed "md5sum + sha1sum" both_tree "$TREE"
  run_timed "hash sha1 scalar" env CORVANE_SHA1_LANES=scalar "$TOOL" hash -j "$JOBS" --no-progress -r -a sha1 "$TREE"
  run_timed "hash md5,sha1 scalar" env CORVANE_MD5_LANES=scalar CORVANE_SHA1_LANES=scalar "$TOOL" hash -j "$JOBS" --no-progress -r -a md5,sha1 "$TREE"
  for path in "${lane_paths[@]}"; do
    run_timed "hash sha1 $path" env CORVANE_SHA1_LANES=$path "$TOOL" hash -j "$JOBS" --no-progress -r -a sha1 "$TREE"
    run_timed "hash md5,sha1 $path" env CORVANE_MD5_LANES=$path CORVANE_SHA1_LANES=$path "$TOOL" hash -j "$JOBS" --no-progress -r -a md5,sha1 "$TREE"
  done
done
say "done (load average: $(cut -d' ' -f1-3 /proc/loadavg))"

gigabytes=$(echo "$FILES * 1048576 / 1000000000" | bc -l)
printf '| Case | Seconds | GB/s | Against | Ratio | Target | Result |\n|---|---:|---:|---|---:|---:|---|\n'
row() {  # case reference target(speed-up at least)
  local name=$1 reference=$2 target=$3 bytes=$4
  local t=${best[$name]} r=${best[$reference]}
  local speedup
  speedup=$(echo "$r / $t" | bc -l)
  local verdict=FAIL
  [[ "$target" != "-" ]] && (($(echo "$speedup >= $target" | bc -l))) && verdict=PASS
  [[ "$target" == "-" ]] && verdict=""
  printf '| %s | %.3f | %.2f | %s (%.3f s) | %.2fx | %s | %s |\n' "$name" "$t" \
    "$(echo "$bytes / $t" | bc -l)" "$reference" "$r" "$speedup" \
    "$([[ "$target" == "-" ]] && echo - || echo ">= ${target}x")" "$verdict"
}
row "hash scalar" md5sum 0 "$gigabytes" | sed 's/| >= 0x | PASS |/| - | |/'
for path in "${lane_paths[@]}"; do row "hash $path" md5sum 3 "$gigabytes"; done
two=$(echo "2 * $gigabytes" | bc -l)
for path in "${lane_paths[@]}"; do row "compare $path" "compare scalar" 2 "$two"; done
row "hash sha1 scalar" sha1sum - "$gigabytes"
for path in "${lane_paths[@]}"; do row "hash sha1 $path" sha1sum - "$gigabytes"; done
for path in "${lane_paths[@]}"; do row "hash sha1 $path" "hash sha1 scalar" - "$gigabytes"; done
row "hash md5,sha1 scalar" "md5sum + sha1sum" - "$gigabytes"
for path in "${lane_paths[@]}"; do row "hash md5,sha1 $path" "md5sum + sha1sum" - "$gigabytes"; done
for path in "${lane_paths[@]}"; do row "hash md5,sha1 $path" "hash md5,sha1 scalar" - "$gigabytes"; done
