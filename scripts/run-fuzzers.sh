#!/usr/bin/env bash
# Runs every libFuzzer target built in build/fuzz (see `make test-fuzz`) for a bounded time.
#
# Each target starts from a fresh copy of its seed corpus fuzz/corpus/<target>/ in
# build/fuzz/corpus-run/<target>/, so the source tree is never written to; what a target finds
# (a crash, a broken invariant, a leak, a timeout) is saved in build/fuzz/artifacts/<target>/ and
# fails the run. Two targets run at a time.
#
# Usage: scripts/run-fuzzers.sh [seconds per target, default 30] [target...]
# Environment: FUZZ_BUILD_DIR (default build/fuzz), FUZZ_PARALLEL (default 2).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-30}"
shift || true
build_dir="${FUZZ_BUILD_DIR:-build/fuzz}"
parallel="${FUZZ_PARALLEL:-2}"

if [ $# -gt 0 ]; then
  targets=("$@")
else
  targets=()
  for dir in fuzz/corpus/*/; do targets+=("$(basename "$dir")"); done
fi

run_dir="$build_dir/corpus-run"
artifact_dir="$build_dir/artifacts"
log_dir="$build_dir/logs"
mkdir -p "$run_dir" "$artifact_dir" "$log_dir"

# Runs one target; its output goes to its log.
run_one() {
  local name="$1"
  local binary="$build_dir/fuzz/$name"
  local corpus="$run_dir/$name"
  if [ ! -x "$binary" ]; then
    echo "run-fuzzers: $binary is missing (build the corvane_fuzzers target first)" >"$log_dir/$name.log"
    return 1
  fi
  rm -rf "$corpus" "$artifact_dir/$name"
  mkdir -p "$artifact_dir/$name"
  cp -R "fuzz/corpus/$name" "$corpus"
  # -timeout: one input may take 10 s at most; -rss_limit_mb: 2 GB per process, two at a time.
  "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$artifact_dir/$name/" "$corpus" >"$log_dir/$name.log" 2>&1
}

# Prints one summary line for a finished target, or the end of its log when it failed.
report() {
  local name="$1" status="$2"
  local log="$log_dir/$name.log"
  if [ "$status" -eq 0 ]; then
    local runs rate corpus
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
    corpus=$(find "$run_dir/$name" -type f | wc -l)
    echo "fuzz: $name passed: ${runs:-?} runs (${rate:-?}/s), corpus of $corpus inputs"
  else
    echo "fuzz: $name FAILED (exit status $status); the end of $log:"
    tail -n 40 "$log" | sed 's/^/  | /'
    echo "  artifacts: $(ls "$artifact_dir/$name" 2>/dev/null | tr '\n' ' ')"
  fi
}

passed=0
failed=0
pids=()
names=()
# Waits for the oldest running target and reports it.
reap() {
  local status=0
  wait "${pids[0]}" || status=$?
  report "${names[0]}" "$status"
  if [ "$status" -eq 0 ]; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
  pids=("${pids[@]:1}")
  names=("${names[@]:1}")
}

for name in "${targets[@]}"; do
  if [ "${#pids[@]}" -ge "$parallel" ]; then reap; fi
  run_one "$name" &
  pids+=("$!")
  names+=("$name")
done
while [ "${#pids[@]}" -gt 0 ]; do reap; done

echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
