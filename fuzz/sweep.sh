#!/usr/bin/env bash
# A sweep over damaged hives: every hive of the shared damaged folder, and
# seeded mutations of its clean hives (whole files, no size limit), each run
# once through fuzz_walk (every read function, the file must not change) and
# through fuzz_edit (edit scripts, then the edited file is walked again and
# must answer by the contract; in hives the tool's structure check finds
# sound, no key that opened before may be lost). Counts the inputs that
# crash, draw a sanitizer report or break one of those rules.
# Usage: bash fuzz/sweep.sh [MUTATIONS_PER_CLEAN_HIVE] [SEED]
#        (TAMVIK_FUZZ_BUILD: the build folder; TAMVIK_SHARED_HIVES: the hives)
set -uo pipefail

per_hive="${1:-20}"
seed="${2:-1}"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
build="${TAMVIK_FUZZ_BUILD:-$here/../build-fuzz}"
shared="${TAMVIK_SHARED_HIVES:-$here/../../shared/hives}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
[[ -d "$shared/clean" ]] || { echo "sweep.sh: no hives in $shared" >&2; exit 2; }
[[ -x "$build/fuzz/fuzz_edit" ]] || { echo "sweep.sh: build the harnesses first (fuzz/run.sh does)" >&2; exit 2; }

mkdir -p "$work/walk" "$work/edit"
find "$shared/damaged" -type f ! -name '*.LOG*' -exec sh -c 'cp "$1" "$2/$(basename "$(dirname "$1")")-$(basename "$1")"' _ {} "$work/walk" \;
chmod u+w "$work"/walk/*
python3 - "$shared/clean" "$work/walk" "$per_hive" "$seed" <<'EOF'
import os, random, struct, sys
clean, out, per_hive, seed = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
rng = random.Random(seed)
special = [0, 1, 4, 7, 8, 0x20, 0x1000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, 0xFFFFFFFF]
for name in sorted(os.listdir(clean)):
    if '.LOG' in name:
        continue
    base = open(os.path.join(clean, name), 'rb').read()
    for n in range(per_hive):
        data = bytearray(base)
        for _ in range(rng.randint(1, 6)):
            at = rng.randrange(4096, len(data) - 4) & ~3  # a field of the bins: the base block is fixed up anyway
            if rng.random() < 0.6:
                struct.pack_into('<I', data, at, rng.choice(special))
            else:
                data[at + rng.randrange(4)] = rng.randrange(256)
        data[0x1F8] = rng.choice([0, 2])  # through a device or as a file
        open(os.path.join(out, f'{name}-m{n}'), 'wb').write(data)
EOF
# Edit scripts (see fuzz_edit.cpp): create, add a value, rewrite, delete a value, delete a key; and a create-and-fill.
scripts=('\x06\x00\x00\x01\x00\x01\x00\x05\x48\x02\x01\x00\x10\x03\x00\x00\x00\x04\x01\x00\x00\x05\x00\x03\x60'
         '\x04\x03\x02\x00\x00\x04\x03\x00\x00\x06\x01\x01\x00\x01\x02\x0c\x70'
         '\x03\x00\x01\x04\x70\x01\x02\x0c\x88\x00\x03\x02\x05')
for file in "$work"/walk/*; do
  for i in "${!scripts[@]}"; do
    { printf "${scripts[$i]}"; cat "$file"; } > "$work/edit/$(basename "$file")-s$i"
  done
done

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=0
total=0
for harness in walk edit; do
  for input in "$work/$harness"/*; do
    total=$((total + 1))
    if ! "$build/fuzz/fuzz_$harness" -runs=1 "$input" >"$work/log" 2>&1; then
      failed=$((failed + 1))
      echo "FINDING fuzz_$harness $(basename "$input"): $(grep -m1 -E 'tamvik fuzz:|ERROR:' "$work/log")"
      mkdir -p "$here/corpus-work/sweep-findings"
      cp "$input" "$here/corpus-work/sweep-findings/$harness-$(basename "$input")"
    fi
  done
done
echo "sweep: $total runs ($(ls "$work/walk" | wc -l) hives, each walked and edited by ${#scripts[@]} scripts), $failed findings"
[[ $failed -eq 0 ]]
