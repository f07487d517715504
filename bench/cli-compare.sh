#!/usr/bin/env bash
# corvane-checksum against the standard command-line tools, side by side, in one run, over the
# same files sitting in the page cache:
#   hash -a sha256|md5|sha1|sha512   sha256sum, md5sum, sha1sum, sha512sum, rhash --<alg>
#   hash -a xxh64|xxh128              xxhsum -H1, xxhsum -H2
#   hash -a md5,sha1,sha256,crc32     rhash --md5 --sha1 --sha256 --crc32
# each on one big file of random bytes (the tool at its default -j) and on a tree of many files
# of random sizes (the tool at -j CLI_BENCH_JOBS, `hash -r DIR`; the standard tools through
# `find DIR -type f -print0 | sort -z | xargs -0 TOOL`, rhash through `rhash -r DIR`), then
#   compare SRC COPY -a xxh64|sha256  the same tool over both trees and diff, rhash -r over both
#
# Every figure is the best wall-clock time of CLI_BENCH_RUNS runs; the runs of one case are
# interleaved (ours, then each standard tool, then ours again ...), so that load from other work
# hits every tool alike. Outputs go to /dev/null. Before timing a case, the outputs of our tool
# and of the standard tool computing the same checksum (sha256sum, md5sum, sha1sum, sha512sum,
# xxhsum) are compared once; a case whose outputs differ is reported as WRONG and not timed.
# A command the tool does not offer yet (usage error) is reported as n/a.
#
# Ratio = our time / the fastest standard tool's time (lower is better). Targets:
#   one algorithm, big file                  ratio <= 1.00 (never slower than the fastest)
#   md5,sha1,sha256,crc32 (big file or tree)  ratio <= 0.5 (at least twice rhash's speed)
#   any other tree run (hash -r, compare)     ratio <= 0.667 (at least 1.5 times faster)
# GB = 10^9 bytes; a compare reads the bytes of both trees.
#
# Environment:
#   BUILD_DIR             build directory (default build/release, configured with the release
#                         preset; the tool is built there if missing)
#   CLI_BENCH_DIR         where the scratch folder is made (default /tmp); removed on exit
#   CLI_BENCH_BIG_SIZE    size of the big file (default 1GiB; K, KiB, M, MiB, G, GiB are all
#                         powers of 1024)
#   CLI_BENCH_TREE_FILES  number of files in the tree (default 20000)
#   CLI_BENCH_TREE_DIST   file sizes between 4 KiB and 1 MiB: log (log-uniform, the default:
#                         many small files, mean about 185 KiB) or uniform (mean about 513 KiB)
#   CLI_BENCH_RUNS        runs per command, best kept (default 3)
#   CLI_BENCH_JOBS        -j of the tool for the tree runs (default 2)
#   CLI_BENCH_SEED        seed of the file sizes (default 1)
set -euo pipefail
export LC_ALL=C

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build/release}
TOOL=$BUILD_DIR/tools/corvane-checksum
SCRATCH_PARENT=${CLI_BENCH_DIR:-/tmp}
BIG_SIZE_TEXT=${CLI_BENCH_BIG_SIZE:-1GiB}
TREE_FILES=${CLI_BENCH_TREE_FILES:-20000}
TREE_DIST=${CLI_BENCH_TREE_DIST:-log}
RUNS=${CLI_BENCH_RUNS:-3}
JOBS=${CLI_BENCH_JOBS:-2}
SEED=${CLI_BENCH_SEED:-1}

say() { echo "cli-compare: $*" >&2; }
die() { say "$*"; exit 1; }

to_bytes() {  # 64MiB, 2G, 4096 -> bytes
  local re='^([0-9]+)[[:space:]]*([KkMmGgTt]?)(i?[Bb])?$'
  [[ "$1" =~ $re ]] || die "cannot read the size '$1' (use e.g. 64MiB, 2GiB, 1048576)"
  local n=${BASH_REMATCH[1]} unit=${BASH_REMATCH[2]^^}
  case "$unit" in
    K) n=$((n << 10)) ;; M) n=$((n << 20)) ;; G) n=$((n << 30)) ;; T) n=$((n << 40)) ;;
  esac
  echo "$n"
}

BIG_BYTES=$(to_bytes "$BIG_SIZE_TEXT")
for v in TREE_FILES RUNS JOBS SEED; do
  [[ "${!v}" =~ ^[0-9]+$ ]] || die "$v must be a whole number (got '${!v}')"
done
((RUNS >= 1 && TREE_FILES >= 1 && BIG_BYTES >= 1)) || die "sizes and runs must be at least 1"
[[ "$TREE_DIST" == log || "$TREE_DIST" == uniform ]] ||
  die "CLI_BENCH_TREE_DIST must be log or uniform (got '$TREE_DIST')"

# --- what the run needs (Debian packages; installed only when missing) -------------------------
declare -A PACKAGE_OF=(
  [rhash]=rhash [xxhsum]=xxhash [python3]=python3 [cmake]=cmake [ninja]=ninja-build
  [sha256sum]=coreutils [find]=findutils [xargs]=findutils [diff]=diffutils
)
missing=()
for cmd in "${!PACKAGE_OF[@]}"; do
  command -v "$cmd" >/dev/null || missing+=("${PACKAGE_OF[$cmd]}")
done
if ((${#missing[@]})); then
  mapfile -t missing < <(printf '%s\n' "${missing[@]}" | sort -u)
  SUDO=()
  [[ "$(id -u)" -eq 0 ]] || SUDO=(sudo)
  say "installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  "${SUDO[@]}" apt-get update -q >&2
  "${SUDO[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}" >&2
fi

# --- the tool (release build; built only when absent) -------------------------------------------
if [[ ! -x "$TOOL" ]]; then
  cd "$ROOT"
  if [[ "$BUILD_DIR" == "$ROOT/build/release" ]]; then
    bash scripts/install-deps.sh >&2
    cmake --preset release >&2
    cmake --build --preset release -j2 --target corvane-checksum >&2
  else
    cmake --build "$BUILD_DIR" -j2 --target corvane-checksum >&2
  fi
fi
[[ -x "$TOOL" ]] || die "no tool at $TOOL"
TOOL_BUILT=$(date -u -r "$TOOL" +%Y-%m-%dT%H:%M:%SZ)
SOURCES="checkout at $(git -C "$ROOT" rev-parse --short HEAD 2>/dev/null || echo unknown)"
if git --no-optional-locks -C "$ROOT" status --porcelain --untracked-files=no 2>/dev/null |
     grep -q .; then
  SOURCES+=" with local changes"
fi

# --- scratch space, file sizes, free space -------------------------------------------------------
mkdir -p "$SCRATCH_PARENT"
SCRATCH=$(mktemp -d "$SCRATCH_PARENT/corvane-cli-bench.XXXXXX")
cleanup() { rm -rf "$SCRATCH"; }
trap cleanup EXIT
trap 'exit 130' INT TERM
BIG=$SCRATCH/big.bin
SRC=$SCRATCH/tree
COPY=$SCRATCH/copy
OUT=$SCRATCH/out
mkdir -p "$OUT"

# The run uses a private copy of the tool and of the shared libraries it loads from the build
# directory, so that a rebuild during the run does not change what is measured.
mkdir -p "$SCRATCH/bin"
cp "$TOOL" "$SCRATCH/bin/"
{ ldd "$TOOL" 2>/dev/null || true; } | awk -v b="$(cd "$BUILD_DIR" && pwd -P)/" 'index($3, b) == 1 {print $3}' |
  while read -r lib; do cp -L "$lib" "$SCRATCH/bin/"; done
export LD_LIBRARY_PATH=$SCRATCH/bin${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
TOOL=$SCRATCH/bin/corvane-checksum

# One line per file of the tree: "<size> <relative path>", 100 files a folder, 20 folders a group.
python3 - "$TREE_FILES" "$TREE_DIST" "$SEED" >"$OUT/sizes.txt" <<'PYTHON'
import math, random, sys
count, dist, seed = int(sys.argv[1]), sys.argv[2], int(sys.argv[3])
rng = random.Random(seed)
low, high = 4096, 1048576
for i in range(count):
    if dist == "log":
        size = int(round(math.exp(rng.uniform(math.log(low), math.log(high)))))
    else:
        size = rng.randint(low, high)
    print(size, f"g{i // 2000:02d}/d{(i // 100) % 20:02d}/f{i:06d}.bin")
PYTHON
TREE_BYTES=$(awk '{s += $1} END {printf "%d", s}' "$OUT/sizes.txt")

need=$((BIG_BYTES + 2 * TREE_BYTES + (256 << 20)))
avail=$(($(df -Pk "$SCRATCH" | awk 'NR == 2 {print $4}') * 1024))
gib() { awk -v b="$1" 'BEGIN {printf "%.2f GiB", b / 1073741824}'; }
if ((avail < need)); then
  die "not enough free space in $SCRATCH_PARENT: the data needs $(gib "$need") (big file \
$(gib "$BIG_BYTES"), tree $(gib "$TREE_BYTES") twice, 256 MiB spare), $(gib "$avail") free; \
set CLI_BENCH_DIR to another place or lower CLI_BENCH_BIG_SIZE / CLI_BENCH_TREE_FILES"
fi
mem_avail=$(($(awk '/^MemAvailable:/ {print $2}' /proc/meminfo) * 1024))
largest_set=$((2 * TREE_BYTES > BIG_BYTES ? 2 * TREE_BYTES : BIG_BYTES))
if ((mem_avail < largest_set + (1 << 30))); then
  say "WARNING: $(gib "$mem_avail") of memory available, the largest working set is \
$(gib "$largest_set"); files may be read from the disk rather than the page cache"
fi

# --- timing ----------------------------------------------------------------------------------
now_ns() { local t=$EPOCHREALTIME; echo "${t/./}000"; }

# warm PATH...: read everything once so that it sits in the page cache
warm() {
  local p
  for p in "$@"; do
    if [[ -d "$p" ]]; then
      find "$p" -type f -print0 | xargs -0 cat >/dev/null
    else
      cat "$p" >/dev/null
    fi
  done
}

# The standard pipelines.
tree_with() {  # tree_with DIR TOOL [ARGS...]: the tool over every file of DIR, in byte order
  local dir=$1
  shift
  find "$dir" -type f -print0 | sort -z | xargs -0 "$@"
}
compare_with() {  # compare_with TOOL [ARGS...]: the tool over both trees (relative paths), diff
  (cd "$SRC" && tree_with . "$@") >"$OUT/cmp-src.txt"
  (cd "$COPY" && tree_with . "$@") >"$OUT/cmp-copy.txt"
  diff -q "$OUT/cmp-src.txt" "$OUT/cmp-copy.txt" >/dev/null
}
compare_with_rhash() {  # compare_with_rhash ALGO-OPTIONS...: rhash -r over both trees, sort, diff
  (cd "$SRC" && rhash "$@" -r .) | sort >"$OUT/cmp-src.txt"
  (cd "$COPY" && rhash "$@" -r .) | sort >"$OUT/cmp-copy.txt"
  diff -q "$OUT/cmp-src.txt" "$OUT/cmp-copy.txt" >/dev/null
}

# Best seconds by "CASE|LABEL"; "failed" when the command did not exit with 0.
declare -A BEST
RESULTS=$OUT/results.tsv   # case \t label \t best \t every run
: >"$RESULTS"
LABELS=()

set_cmd() {  # set_cmd N COMMAND...: the N-th command of the next run_case, labelled LABELS[N]
  local n=$1
  shift
  mapfile -d '' -t "CMD_$n" < <(printf '%s\0' "$@")
}

run_case() {  # run_case CASE N: times CMD_0 .. CMD_{N-1} (CMD_0 is ours), interleaved, RUNS times
  local case_name=$1 n=$2 i r start end secs status key ref
  local -a runs=() cmd=()
  for ((i = 0; i < n; ++i)); do runs[i]=""; BEST["$case_name|${LABELS[i]}"]=""; done
  for ((r = 0; r < RUNS; ++r)); do
    for ((i = 0; i < n; ++i)); do
      key="$case_name|${LABELS[i]}"
      [[ "${BEST[$key]}" == failed ]] && continue
      ref="CMD_${i}[@]"
      cmd=("${!ref}")
      status=0
      start=$(now_ns)
      "${cmd[@]}" >/dev/null 2>"$OUT/stderr.txt" || status=$?
      end=$(now_ns)
      if ((status != 0)); then
        BEST[$key]=failed
        say "$case_name: '${cmd[*]}' exited with $status: $(head -c 300 "$OUT/stderr.txt")"
        continue
      fi
      secs=$(awk -v a="$start" -v b="$end" 'BEGIN {printf "%.3f", (b - a) / 1e9}')
      runs[i]+="${runs[i]:+ }$secs"
      if [[ -z "${BEST[$key]}" ]] || awk -v a="$secs" -v b="${BEST[$key]}" 'BEGIN {exit !(a < b)}'
      then
        BEST[$key]=$secs
      fi
    done
  done
  for ((i = 0; i < n; ++i)); do
    printf '%s\t%s\t%s\t%s\n' "$case_name" "${LABELS[i]}" "${BEST["$case_name|${LABELS[i]}"]}" \
      "${runs[i]}" >>"$RESULTS"
  done
}

# Correctness, by case: ok, WRONG, or n/a (the command is not in this build of the tool).
declare -A VERDICT
check_same() {  # check_same CASE OURS-OUTPUT REFERENCE-OUTPUT
  if cmp -s "$2" "$3"; then
    VERDICT[$1]=ok
  else
    VERDICT[$1]=WRONG
    say "$1: our output differs from the reference; first differences:"
    diff "$2" "$3" | head -6 >&2 || true
  fi
}
ours_output() {  # ours_output CASE FILE COMMAND...: runs our tool once; fails if it did not work
  local case_name=$1 file=$2 status=0
  shift 2
  "$@" >"$file" 2>"$OUT/stderr.txt" || status=$?
  if ((status == 0)); then
    return 0
  elif ((status == 2)) && grep -qE "not built yet|not expected|unknown|[Uu]sage" "$OUT/stderr.txt"
  then
    VERDICT[$case_name]=n/a
    say "$case_name: not available in this build: $(head -1 "$OUT/stderr.txt")"
  else
    VERDICT[$case_name]=WRONG
    say "$case_name: our tool exited with $status: $(head -c 300 "$OUT/stderr.txt")"
  fi
  return 1
}

declare -A CASE_BYTES CASE_TARGET
CASE_ORDER=()

# hash_cases big|tree BYTES TARGET-ONE-ALGORITHM TARGET-FOUR-ALGORITHMS
hash_cases() {
  local where=$1 bytes=$2 target_one=$3 target_four=$4
  local -a ours_args std_prefix files rhash_args
  if [[ "$where" == big ]]; then
    ours_args=(hash --no-progress "$BIG")
    std_prefix=()
    files=("$BIG")
    rhash_args=("$BIG")
  else
    ours_args=(hash --no-progress -j "$JOBS" -r "$SRC")
    std_prefix=(tree_with "$SRC")
    files=()
    rhash_args=(-r "$SRC")
  fi
  local entry alg ref others case_name tagged sum n
  local -a refcmd rhash_opts
  # algorithm | standard tool with the same output | rhash options
  for entry in "sha256|sha256sum|--sha256" "md5|md5sum|--md5" "sha1|sha1sum|--sha1" \
              "sha512|sha512sum|--sha512" "xxh64|xxhsum -H1|" "xxh128|xxhsum -H2|" \
              "md5,sha1,sha256,crc32||--md5 --sha1 --sha256 --crc32"; do
    IFS='|' read -r alg ref others <<<"$entry"
    read -r -a refcmd <<<"$ref"
    read -r -a rhash_opts <<<"$others"
    case_name="$where $alg"
    CASE_ORDER+=("$case_name")
    CASE_BYTES[$case_name]=$bytes
    if ((${#refcmd[@]})); then
      CASE_TARGET[$case_name]=$target_one
    else
      CASE_TARGET[$case_name]=$target_four
    fi
    say "$case_name: checking the output, then $RUNS timed run(s)"
    if [[ "$where" == big ]]; then warm "$BIG"; else warm "$SRC"; fi
    VERDICT[$case_name]=ok
    ours_output "$case_name" "$OUT/ours.txt" "$TOOL" "${ours_args[@]}" -a "$alg" || continue
    if ((${#refcmd[@]})); then
      "${std_prefix[@]}" "${refcmd[@]}" "${files[@]}" >"$OUT/ref.txt" 2>/dev/null
      check_same "$case_name" "$OUT/ours.txt" "$OUT/ref.txt"
    else
      # md5, sha1 and sha256 against the coreutils tools' tag lines (crc32 is this library's
      # own CRC-32, which no standard tool prints)
      for tagged in MD5:md5sum SHA1:sha1sum SHA256:sha256sum; do
        sum=${tagged#*:}
        grep "^${tagged%%:*} (" "$OUT/ours.txt" >"$OUT/ours-$sum.txt" || true
        "${std_prefix[@]}" "$sum" --tag "${files[@]}" >"$OUT/ref-$sum.txt" 2>/dev/null
        check_same "$case_name" "$OUT/ours-$sum.txt" "$OUT/ref-$sum.txt"
        [[ "${VERDICT[$case_name]}" == ok ]] || break
      done
    fi
    [[ "${VERDICT[$case_name]}" == ok ]] || continue
    LABELS=(ours)
    set_cmd 0 "$TOOL" "${ours_args[@]}" -a "$alg"
    n=1
    if ((${#refcmd[@]})); then
      LABELS+=("${refcmd[*]}")
      set_cmd "$n" "${std_prefix[@]}" "${refcmd[@]}" "${files[@]}"
      n=$((n + 1))
    fi
    if ((${#rhash_opts[@]})); then
      LABELS+=("rhash ${rhash_opts[*]}")
      set_cmd "$n" rhash "${rhash_opts[@]}" "${rhash_args[@]}"
      n=$((n + 1))
    fi
    run_case "$case_name" "$n"
  done
}

# --- run ---------------------------------------------------------------------------------------
say "scratch folder $SCRATCH; big file $(gib "$BIG_BYTES"); tree $TREE_FILES files \
($TREE_DIST sizes), $(gib "$TREE_BYTES"); best of $RUNS"
LOAD_BEFORE=$(cut -d' ' -f1-3 /proc/loadavg)
STARTED=$(date -u +%Y-%m-%dT%H:%M:%SZ)

say "writing the big file"
head -c "$BIG_BYTES" /dev/urandom >"$BIG"
hash_cases big "$BIG_BYTES" 1.00 0.5
rm -f "$BIG"   # frees its pages before the trees are read

say "writing the tree"
python3 - "$SRC" "$OUT/sizes.txt" <<'PYTHON'
import os, sys
root, listing = sys.argv[1], sys.argv[2]
with open(listing) as f:
    for line in f:
        size, rel = line.split(" ", 1)
        path = os.path.join(root, rel.strip())
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(os.urandom(int(size)))
PYTHON
hash_cases tree "$TREE_BYTES" 0.667 0.5

say "copying the tree"
cp -a "$SRC" "$COPY"
for alg in xxh64 sha256; do
  case_name="compare $alg"
  CASE_ORDER+=("$case_name")
  CASE_BYTES[$case_name]=$((2 * TREE_BYTES))
  CASE_TARGET[$case_name]=0.667
  say "$case_name: checking the output, then $RUNS timed run(s)"
  warm "$SRC" "$COPY"
  VERDICT[$case_name]=ok
  if ours_output "$case_name" "$OUT/ours.txt" \
       "$TOOL" compare --no-progress -j "$JOBS" -a "$alg" "$SRC" "$COPY"; then
    if ! grep -q "compared $TREE_FILES files: $TREE_FILES matched" "$OUT/ours.txt"; then
      VERDICT[$case_name]=WRONG
      say "$case_name: unexpected summary: $(tail -1 "$OUT/ours.txt")"
    fi
  fi
  [[ "${VERDICT[$case_name]}" == ok ]] || continue
  LABELS=(ours)
  set_cmd 0 "$TOOL" compare --no-progress -j "$JOBS" -a "$alg" "$SRC" "$COPY"
  if [[ "$alg" == xxh64 ]]; then
    LABELS+=("xxhsum -H1 on both, diff")
    set_cmd 1 compare_with xxhsum -H1
    run_case "$case_name" 2
  else
    LABELS+=("sha256sum on both, diff" "rhash --sha256 -r on both, diff")
    set_cmd 1 compare_with sha256sum
    set_cmd 2 compare_with_rhash --sha256
    run_case "$case_name" 3
  fi
done

# --- report ------------------------------------------------------------------------------------
echo "corvane-checksum against the standard tools, $STARTED"
echo "$(lscpu | sed -n 's/^Model name: *//p' | head -1), $(nproc) CPUs; load average before/after:" \
     "$LOAD_BEFORE / $(cut -d' ' -f1-3 /proc/loadavg)"
echo "corvane-checksum $("$TOOL" --version 2>&1 | head -1) (binary of $TOOL_BUILT; $SOURCES);" \
     "$(sha256sum --version | head -1);" \
     "$(rhash --version 2>&1 | head -1); $(xxhsum -V 2>&1 | head -1)"
echo "big file $(gib "$BIG_BYTES"); tree $TREE_FILES files of 4 KiB to 1 MiB ($TREE_DIST)," \
     "$(gib "$TREE_BYTES"); tool -j: default on the big file, $JOBS on the trees;" \
     "best of $RUNS wall-clock runs; GB = 10^9 bytes"
echo
echo "| Case | Ours s | Fastest standard | Its s | Ours GB/s | Its GB/s | Ratio | Target | Result |"
echo "|---|---:|---|---:|---:|---:|---:|---:|---|"
misses=0
for case_name in "${CASE_ORDER[@]}"; do
  bytes=${CASE_BYTES[$case_name]}
  target=${CASE_TARGET[$case_name]}
  shown=$case_name
  case "$case_name" in
    "big "*) shown="hash -a ${case_name#big } (big file)" ;;
    "tree "*) shown="hash -r -a ${case_name#tree } (tree)" ;;
    "compare "*) shown="compare -a ${case_name#compare } (tree, copy)" ;;
  esac
  verdict=${VERDICT[$case_name]}
  if [[ "$verdict" != ok ]]; then
    echo "| $shown | $verdict | | | | | | <= $target | $verdict |"
    [[ "$verdict" == WRONG ]] && misses=$((misses + 1))
    continue
  fi
  ours=${BEST["$case_name|ours"]}
  fastest="" fastest_s=""
  while IFS=$'\t' read -r c label best _; do
    [[ "$c" == "$case_name" && "$label" != ours && "$best" =~ ^[0-9.]+$ ]] || continue
    if [[ -z "$fastest_s" ]] || awk -v a="$best" -v b="$fastest_s" 'BEGIN {exit !(a < b)}'; then
      fastest=$label fastest_s=$best
    fi
  done <"$RESULTS"
  if [[ ! "$ours" =~ ^[0-9.]+$ || -z "$fastest_s" ]]; then
    echo "| $shown | ${ours:-n/a} | ${fastest:-n/a} | ${fastest_s:-n/a} | | | | <= $target | n/a |"
    [[ "$ours" == failed ]] && misses=$((misses + 1))
    continue
  fi
  row=$(awk -v o="$ours" -v s="$fastest_s" -v b="$bytes" -v t="$target" 'BEGIN {
    r = (s > 0) ? o / s : 0
    printf "%.2f|%.2f|%.3f|%s", (o > 0 ? b / o / 1e9 : 0), (s > 0 ? b / s / 1e9 : 0), r,
      (r <= t ? "PASS" : "MISS") }')
  IFS='|' read -r ours_gbs std_gbs ratio result <<<"$row"
  [[ "$result" == MISS ]] && misses=$((misses + 1))
  echo "| $shown | $ours | $fastest | $fastest_s | $ours_gbs | $std_gbs | $ratio | <= $target |" \
       "$result |"
done
echo
echo "Every command (seconds; best, then each run):"
echo "| Case | Command | Best | Runs |"
echo "|---|---|---:|---|"
while IFS=$'\t' read -r c label best all; do
  echo "| $c | $label | $best | $all |"
done <"$RESULTS"
echo
if ((misses)); then echo "$misses target(s) missed"; else echo "all targets met"; fi
