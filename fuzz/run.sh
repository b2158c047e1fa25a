#!/usr/bin/env bash
# Runs the libFuzzer targets of BUILD (see ./dev.sh fuzz): each for SECONDS on a copy
# of its seeds, on one core. Fork mode with one worker, so that a crash does not end
# the run: every new crash, leak, timeout and out-of-memory input goes to
# fuzz/crashes, and the exit status is 1 when there are any.
# usage: fuzz/run.sh BUILD SECONDS [TARGET...]
set -uo pipefail
cd "$(dirname "$0")/.."
build=$1 seconds=$2
shift 2
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for dir in fuzz/corpus/*/; do targets+=("$(basename "$dir")"); done
fi

export QT_QPA_PLATFORM=offscreen
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
mkdir -p fuzz/crashes "$build/fuzz-logs"
found=0
printf '%-18s %12s %8s %8s %8s %10s\n' target executions cov ft crashes slowest_ms
for target in "${targets[@]}"; do
  binary="$build/fuzz/fuzz_$target"
  [ -x "$binary" ] || { echo "no fuzz target $target in $build" >&2; exit 2; }
  # The seeds stay as committed; the grown corpus lives in the build tree.
  work="$build/fuzz-corpus/$target"
  mkdir -p "$work"
  cp -n fuzz/corpus/"$target"/* "$work"/ 2>/dev/null || true
  before=$(ls fuzz/crashes | wc -l)
  log="$build/fuzz-logs/$target.log"
  "$binary" -fork=1 -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 -max_total_time="$seconds" \
    -timeout=1 -rss_limit_mb=2048 -artifact_prefix="fuzz/crashes/$target-" "$work" >"$log" 2>&1
  after=$(ls fuzz/crashes | wc -l)
  # The parent's last progress line: "#EXECUTIONS: cov: N ft: N ... oom/timeout/crash: a/b/c".
  last=$(grep -E '^#[0-9]+: cov: ' "$log" | tail -1)
  executions=$(grep -o '^#[0-9]*' <<<"$last" | tr -d '#')
  cov=$(grep -o 'cov: [0-9]*' <<<"$last" | grep -o '[0-9]*')
  ft=$(grep -o 'ft: [0-9]*' <<<"$last" | grep -o '[0-9]*')
  # The slowest input of the grown corpus, from a timed pass over it.
  slowest=$(find "$work" -type f -print0 | xargs -0 "$binary" -runs=1 2>&1 |
    grep -o 'in [0-9]* ms' | grep -o '[0-9]*' | sort -n | tail -1)
  printf '%-18s %12s %8s %8s %8s %10s\n' "$target" "${executions:-?}" "${cov:-?}" "${ft:-?}" \
    $((after - before)) "${slowest:-?}"
  [ "$after" -gt "$before" ] && found=1
done
[ "$found" -eq 0 ] || { echo "new inputs in fuzz/crashes (see $build/fuzz-logs)"; exit 1; }
