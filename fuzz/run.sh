#!/usr/bin/env bash
# One round of fuzzing: builds the harnesses with clang (libFuzzer, ASan,
# UBSan), builds the seed corpus, fuzzes each harness for DURATION seconds,
# then runs the whole seed corpus and the kept regression inputs through each
# harness once. Exits non-zero on any finding; crash inputs land in
# fuzz/corpus-work/artifacts/.
# Usage: bash fuzz/run.sh DURATION
set -uo pipefail

duration="${1:?usage: run.sh DURATION_SECONDS}"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source_dir="$(cd "$here/.." && pwd)"
build="${TAMVIK_FUZZ_BUILD:-$source_dir/build-fuzz}"
work="$here/corpus-work"
artifacts="$work/artifacts"

CC=clang CXX=clang++ cmake -S "$source_dir" -B "$build" -G Ninja -DTAMVIK_FUZZ=ON -DTAMVIK_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || exit 1
ninja -C "$build" fuzz_walk fuzz_edit make_seeds || exit 1
bash "$here/seed.sh" "$build" || exit 1
mkdir -p "$artifacts" "$here/regressions/walk" "$here/regressions/edit"

common=(-rss_limit_mb=2048 -timeout=10 -max_len=524288 -dict="$here/hive.dict" -print_final_stats=1)
status=0
for harness in walk edit; do
  exe="$build/fuzz/fuzz_$harness"
  echo "== fuzz_$harness: fuzzing for ${duration}s"
  if ! "$exe" "${common[@]}" -max_total_time="$duration" -artifact_prefix="$artifacts/$harness-" \
      "$work/$harness"; then
    echo "fuzz_$harness: FINDING (see $artifacts)" >&2
    status=1
  fi
done

for harness in walk edit; do
  exe="$build/fuzz/fuzz_$harness"
  echo "== fuzz_$harness: seed corpus and regression inputs once"
  if ! "$exe" "${common[@]}" -runs=0 -artifact_prefix="$artifacts/$harness-replay-" \
      "$work/$harness" "$here/regressions/$harness"; then
    echo "fuzz_$harness: FINDING while replaying (see $artifacts)" >&2
    status=1
  fi
done
exit $status
