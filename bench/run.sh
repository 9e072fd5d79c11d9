#!/usr/bin/env bash
# Times the same work through Tamvik and through hivex's C API, each run in a
# fresh process, the two sides taking turns, and prints medians and ratios.
#   W1  full depth-first walk of the large SYSTEM hive: every key, every value's type and data
#   W2  10,000 seeded full-path opens in the large SYSTEM hive, one value read each
#   W3  on a fresh copy of the clean SYSTEM hive: 10,000 keys and 50,000 values created
#   W4  the keys W3 created deleted again, bottom up (W3 runs first, untimed here)
# Usage: bash bench/run.sh [W1] [W2] [W3] [W4]    REPS=N runs per side (default 5)
set -euo pipefail
cd "$(dirname "$0")/.."

reps=${REPS:-5}
[[ $reps =~ ^[1-9][0-9]*$ ]] || { echo "bench: REPS must be a positive number" >&2; exit 2; }
selected=("$@")
[ ${#selected[@]} -gt 0 ] || selected=(W1 W2 W3 W4)
for w in "${selected[@]}"; do
  case $w in W1 | W2 | W3 | W4) ;; *) echo "usage: bash bench/run.sh [W1] [W2] [W3] [W4]" >&2; exit 2 ;; esac
done
want() { [[ " ${selected[*]} " == *" $1 "* ]]; }

hives=${TAMVIK_HIVES:-../shared/hives}
large=$hives/large/regipy__SYSTEM
clean=$hives/clean/dfwinreg__SYSTEM
need() {
  [ -f "$1" ] || { echo "bench: $1 is absent: the bench reads the shared hives (set TAMVIK_HIVES to their folder)" >&2; exit 1; }
}
if want W1 || want W2; then need "$large"; fi
if want W3 || want W4; then need "$clean"; fi

packages=()
command -v cmake >/dev/null || packages+=(cmake)
command -v ninja >/dev/null || packages+=(ninja-build)
command -v c++ >/dev/null || packages+=(g++)
[ -f /usr/include/hivex.h ] || packages+=(libhivex-dev)
if [ ${#packages[@]} -gt 0 ]; then
  echo "bench: installing ${packages[*]}" >&2
  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${packages[@]}" >/dev/null
fi

cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DTAMVIK_TESTS=OFF -DTAMVIK_IMAGE=OFF >/dev/null
cmake --build build-bench -j2 --target bench_tamvik bench_hivex >/dev/null
bin=build-bench/bench

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
results=$work/results  # a timed run a line: workload side seconds cpu peak_kib check

# run WORKLOAD SIDE RECORD ARGS...: one fresh process; its report is kept when RECORD is yes.
run() {
  local workload=$1 side=$2 record=$3 out line
  shift 3
  out=$("$bin/bench_$side" "$workload" "$@") || { echo "bench: $side $workload FAILED" >&2; exit 1; }
  line=$(grep '^bench ' <<<"$out") || { echo "bench: $side $workload printed no report" >&2; exit 1; }
  [ "$record" = yes ] || return 0
  sed -E 's/.*seconds=([^ ]+) cpu=([^ ]+) peak_kib=([^ ]+) check=(.*)/'"$workload $side"' \1 \2 \3 \4/' <<<"$line" >>"$results"
  echo "  $workload $side: $(tail -n1 "$results" | cut -d' ' -f3) s" >&2
}

# Every run of a workload, on either side, must report the same check: the same work was done.
same_work() {
  if [ "$(awk -v w="$1" '$1 == w { print $6 }' "$results" | sort -u | wc -l)" -ne 1 ]; then
    echo "bench: FAILED: the runs of $1 did not all do the same work:" >&2
    awk -v w="$1" '$1 == w { print "  " $2 ": " $6 }' "$results" | sort -u >&2
    exit 1
  fi
}

echo "bench: $reps runs per side, tamvik and hivex in turn" >&2
if want W1; then
  for _ in $(seq "$reps"); do for side in tamvik hivex; do run W1 $side yes "$large"; done; done
  same_work W1
fi
if want W2; then
  "$bin/bench_tamvik" lookups "$large" "$work/lookups"
  for _ in $(seq "$reps"); do for side in tamvik hivex; do run W2 $side yes "$large" "$work/lookups"; done; done
  same_work W2
fi
if want W3 || want W4; then
  record3=$(want W3 && echo yes || echo no)
  for _ in $(seq "$reps"); do
    for side in tamvik hivex; do
      copy=$work/$side.hive
      cp "$clean" "$copy" && chmod u+w "$copy"
      run W3 $side "$record3" "$copy"
      if want W4; then run W4 $side yes "$copy"; fi
      rm -f "$copy"
    done
  done
  if want W3; then same_work W3; fi
  if want W4; then same_work W4; fi
fi

# column FIELD WORKLOAD SIDE: the median of one column over that side's runs.
median() {
  awk -v w="$2" -v s="$3" -v f="$1" '$1 == w && $2 == s { print $f }' "$results" | sort -g |
    awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }'; }

echo
echo "Medians of $reps runs per side; a ratio above 1 means Tamvik is slower (or bigger)."
printf '%-8s %10s %10s %8s %10s %10s %8s %12s %12s %8s\n' workload "tamvik s" "hivex s" ratio \
  "tamvik cpu" "hivex cpu" ratio "tamvik MiB" "hivex MiB" ratio
for w in W1 W2 W3 W4; do
  want $w || continue
  t=$(median 3 $w tamvik) h=$(median 3 $w hivex) tc=$(median 4 $w tamvik) hc=$(median 4 $w hivex)
  tm=- hm=- mr=-
  if [ $w = W1 ]; then
    tm=$(awk -v k="$(median 5 $w tamvik)" 'BEGIN { printf "%.1f", k / 1024 }')
    hm=$(awk -v k="$(median 5 $w hivex)" 'BEGIN { printf "%.1f", k / 1024 }')
    mr=$(ratio "$tm" "$hm")
  fi
  printf '%-8s %10.3f %10.3f %8s %10.3f %10.3f %8s %12s %12s %8s\n' $w "$t" "$h" "$(ratio "$t" "$h")" \
    "$tc" "$hc" "$(ratio "$tc" "$hc")" "$tm" "$hm" "$mr"
done
echo "(time: hive open to close, commit included; W1 memory: peak resident set of the process)"
