#!/usr/bin/env bash
# One round of fuzzing: builds the harnesses (clang, libFuzzer, ASan, UBSan)
# unless the build folder already holds them, builds the seed corpus, fuzzes
# every harness for DURATION seconds (one per core at a time), then runs the
# seed corpus and the kept regression inputs through each once. Exits non-zero on any
# finding; crash inputs land in fuzz/corpus-work/artifacts/.
# Usage: bash fuzz/run.sh DURATION      (TAMVIK_FUZZ_BUILD: the build folder)
set -uo pipefail

duration="${1:?usage: run.sh DURATION_SECONDS}"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source_dir="$(cd "$here/.." && pwd)"
build="${TAMVIK_FUZZ_BUILD:-$source_dir/build-fuzz}"
work="$here/corpus-work"
artifacts="$work/artifacts"
harnesses=(walk edit model)

if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S "$source_dir" -B "$build" -G Ninja -DTAMVIK_SANITIZE=ON -DTAMVIK_FUZZ=ON \
    -DTAMVIK_TESTS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || exit 1
fi
ninja -C "$build" fuzz_walk fuzz_edit fuzz_model make_seeds >/dev/null || exit 1
bash "$here/seed.sh" "$build" || exit 1
mkdir -p "$artifacts"

common=(-rss_limit_mb=2048 -timeout=10 -reload=0 -max_len=65600 -dict="$here/hive.dict" -print_final_stats=1)
# A lean quarantine and short allocation stacks: each input frees all it had
# by its end, and a finding is replayed with full stacks from its artifact.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:quarantine_size_mb=4:malloc_context_size=5:max_malloc_fill_size=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
# One harness per core at a time: three sharing two cores would each run at
# two thirds of its speed for the same wall time.
slots="${TAMVIK_FUZZ_JOBS:-$(nproc)}"
finish() {  # waits for harness $1 (pid $2) and reports it
  if ! wait "$2"; then
    echo "fuzz_$1: FINDING (see $artifacts)" >&2
    tail -30 "$work/$1.log" >&2
    status=1
  fi
  grep -E "^stat::number_of_executed_units|^stat::average_exec_per_sec" "$work/$1.log" | sed "s/^/  $1: /"
}
running=()
pids=()
for harness in "${harnesses[@]}"; do
  if [ "${#pids[@]}" -ge "$slots" ]; then
    finish "${running[0]}" "${pids[0]}"
    running=("${running[@]:1}")
    pids=("${pids[@]:1}")
  fi
  echo "== fuzz_$harness: fuzzing for ${duration}s"
  "$build/fuzz/fuzz_$harness" "${common[@]}" -max_total_time="$duration" -artifact_prefix="$artifacts/$harness-" \
    "$work/$harness" >"$work/$harness.log" 2>&1 &
  running+=("$harness")
  pids+=($!)
done
for i in "${!pids[@]}"; do finish "${running[$i]}" "${pids[$i]}"; done

for harness in "${harnesses[@]}"; do
  mkdir -p "$here/regressions/$harness"
  echo "== fuzz_$harness: seed corpus and regression inputs once"
  if ! "$build/fuzz/fuzz_$harness" "${common[@]}" -runs=0 -artifact_prefix="$artifacts/$harness-replay-" \
      "$work/$harness" "$here/regressions/$harness" >"$work/$harness-replay.log" 2>&1; then
    echo "fuzz_$harness: FINDING while replaying (see $artifacts)" >&2
    tail -30 "$work/$harness-replay.log" >&2
    status=1
  fi
done
exit $status
