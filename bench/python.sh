#!/usr/bin/env bash
# The Python package against the Python peers, each timed run a fresh process,
# the sides taking turns, medians of REPS runs (default 5):
#   walk      the large SYSTEM hive: every key, every value's name, type and raw
#             data; tamvik, python3-hivex and python3-libregf (pyregf)
#   decoded   the same walk with tamvik's decoded data, against hivex's raw walk
#   create    W3s: 10,000 keys with five values each (4, 24, 200, 8 and 5,000
#             bytes) written into a copy of the clean SYSTEM hive; tamvik and hivex
# A run fails when the sides disagree on what they saw or wrote.
# Usage: bash bench/python.sh [walk] [decoded] [create]    REPS=N
set -euo pipefail
cd "$(dirname "$0")/.."

reps=${REPS:-5}
selected=("$@")
[ ${#selected[@]} -gt 0 ] || selected=(walk decoded create)
hives=${TAMVIK_HIVES:-../shared/hives}
large=$hives/large/regipy__SYSTEM
clean=$hives/clean/dfwinreg__SYSTEM
for f in "$large" "$clean"; do
  [ -f "$f" ] || { echo "bench: $f is absent: the bench reads the shared hives (set TAMVIK_HIVES)" >&2; exit 1; }
done
python=/usr/bin/python3  # Debian's, which has the peers
"$python" -c 'import hivex, pyregf' 2>/dev/null ||
  { echo "bench: $python needs python3-hivex and python3-libregf" >&2; exit 1; }

cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DTAMVIK_TESTS=OFF -DTAMVIK_IMAGE=OFF -DTAMVIK_PYTHON=ON \
  -DPython3_EXECUTABLE="$python" >/dev/null
cmake --build build-bench -j2 --target tamvik_python >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
results=$work/results  # workload side seconds check

run() {  # WORKLOAD SIDE
  local hive=$large out
  if [ "$1" = create ]; then
    hive=$work/create.hive
    cp "$clean" "$hive" && chmod u+w "$hive"
  fi
  out=$(PYTHONPATH=build-bench/python "$python" bench/python_bench.py "$2" "$1" "$hive") ||
    { echo "bench: $2 $1 FAILED" >&2; exit 1; }
  echo "$1 $2 $out" >>"$results"
  echo "  $1 $2: ${out%% *} s" >&2
}

sides() {
  case $1 in
    walk) echo tamvik hivex pyregf ;;
    decoded) echo tamvik hivex ;;
    create) echo tamvik hivex ;;
  esac
}

for ((i = 1; i <= reps; i++)); do
  for w in "${selected[@]}"; do
    for side in $(sides "$w"); do
      # hivex's side of "decoded" is its raw walk.
      [ "$w" = decoded ] && [ "$side" = hivex ] && { run walk hivex; sed -i '$ s/^walk hivex/decoded hivex/' "$results"; continue; }
      run "$w" "$side"
    done
  done
done

"$python" - "$results" <<'PY'
import collections, statistics, sys
runs = collections.defaultdict(list)
checks = collections.defaultdict(set)
for line in open(sys.argv[1]):
    workload, side, seconds, *check = line.split()
    runs[workload, side].append(float(seconds))
    # Every side counts the values; the bytes are compared where both sides give them.
    checks[workload, "values"].add(check[0])
    if len(check) > 1:
        checks[workload, "rest"].add(" ".join(check[1:]))
bad = [w for w, c in checks.items() if len(c) != 1]
if bad:
    sys.exit(f"bench: the sides disagree on {bad}: {dict(checks)}")
print(f"{'workload':10} {'side':8} {'median s':>9} {'vs hivex':>9}   runs")
for (workload, side), times in runs.items():
    base = statistics.median(runs[workload, "hivex"])
    median = statistics.median(times)
    print(f"{workload:10} {side:8} {median:9.4f} {median / base:9.2f}   {' '.join(f'{t:.4f}' for t in times)}")
PY
