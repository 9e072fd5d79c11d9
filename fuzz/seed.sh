#!/usr/bin/env bash
# Builds the work corpus of both harnesses in fuzz/corpus-work/ (git-ignored):
# the hives of the shared test folder, when it is there (small ones only, as
# they are read at run time and never kept in the project), and the hives
# that make_seeds lays out with the test hive builder.
# Usage: fuzz/seed.sh BUILD_DIR
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
build="${1:?usage: seed.sh BUILD_DIR}"
work="$here/corpus-work"
shared="${TAMVIK_SHARED_HIVES:-$here/../../shared/hives}"
max_bytes=$((64 * 1024))  # small hives: hundreds of inputs a second

mkdir -p "$work/walk" "$work/edit" "$work/model"

# Model scripts (see fuzz_model.cpp): keys made, filled, rewritten and deleted.
printf '\x01\x00\x00\x03\x00\x00\x02\x01\x01\x01\x05\x08\x02\x01\x05\x0a\x03\x01\x05\x00\x04\x00\x02\x00' \
  > "$work/model/seed-0"
printf '\x02\x00\x00\x00\x00\x00\x00\x03\x01\x00\x00\x01\x01\x01\x09\x02\x00\x03\x09\x04\x00\x00\x00' \
  > "$work/model/seed-1"

# Edit scripts put ahead of a hive: a step count and four bytes per step (see
# fuzz_edit.cpp). Create a key, add a value, rewrite, delete a value, delete
# a key, create and fill.
scripts=(
  '\x06\x00\x00\x01\x00\x01\x00\x05\x48\x02\x01\x00\x10\x03\x00\x00\x00\x04\x01\x00\x00\x05\x00\x03\x60'
  '\x04\x03\x02\x00\x00\x04\x03\x00\x00\x06\x01\x01\x00\x01\x02\x0c\x70'
)

if [[ -d "$shared" ]]; then
  while IFS= read -r -d '' file; do
    size=$(stat -c %s "$file")
    (( size <= max_bytes )) || continue
    name="shared-$(basename "$(dirname "$file")")-$(basename "$file")"
    cp "$file" "$work/walk/$name"
    chmod u+w "$work/walk/$name"
    for i in "${!scripts[@]}"; do
      { printf "${scripts[$i]}"; cat "$file"; } > "$work/edit/$name-$i"
    done
  done < <(find "$shared/clean" "$shared/damaged" -type f ! -name '*.LOG*' -print0)
else
  echo "seed.sh: $shared not found; using builder hives only" >&2
fi

if [[ -x "$build/fuzz/make_seeds" ]]; then
  "$build/fuzz/make_seeds" "$work/walk" "$work/edit"
fi
echo "seed.sh: $(ls "$work/walk" | wc -l) walk seeds, $(ls "$work/edit" | wc -l) edit seeds in $work"
