#!/usr/bin/env bash
# Compares a full read walk of real hives through Tamvik and through hivex.
# Usage: bench/run.sh [HIVE...]   (default: the large SYSTEM hive and the clean ones)
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DTAMVIK_TESTS=OFF >/dev/null
cmake --build build-bench --target bench_walk >/dev/null
hives=("$@")
if [ ${#hives[@]} -eq 0 ]; then
  shared="${TAMVIK_HIVES:-../shared/hives}"
  hives=("$shared/large/regipy__SYSTEM" "$shared/clean/dfwinreg__SYSTEM" "$shared/clean/notatin__NTUSER.DAT")
fi
for hive in "${hives[@]}"; do
  [ -f "$hive" ] || { echo "skipping $hive (absent)"; continue; }
  echo "== $(basename "$hive")"
  ./build-bench/bench/bench_walk "$hive" 5
  /usr/bin/python3 bench/hivex_walk.py "$hive" 5
done
