#!/usr/bin/env bash
# Times the same work through Tamvik and through hivex's C API, each run in a
# fresh process, the two sides taking turns, and prints medians and ratios,
# each workload timed two ways: from hive open to close (the program's own
# clock), and as the whole process started from this shell (loading, start-up
# and teardown included).
#   W1   full depth-first walk of the large SYSTEM hive: every key, every value's type and data
#   W1d  the same walk of the other large real hive, the clean SYSTEM
#   W2   10,000 seeded full-path opens in the large SYSTEM hive, one value read each
#   W3   on a fresh copy of the clean SYSTEM hive: 10,000 keys and 50,000 values of 4 to 5,000 bytes created
#   W3s  the same keys, each with five values of 4, 24, 200, 8 and 5,000 bytes
#   W4   the keys W3 created deleted again, bottom up (W3 runs first, untimed here)
# What W3, W3s and W4 wrote is checked afterwards by a run of the same side's
# program that reads it back, outside both timings.
# Usage: bash bench/run.sh [W1] [W1d] [W2] [W3] [W3s] [W4]    REPS=N runs per side (default 5)
set -euo pipefail
cd "$(dirname "$0")/.."

all=(W1 W1d W2 W3 W3s W4)
reps=${REPS:-5}
[[ $reps =~ ^[1-9][0-9]*$ ]] || { echo "bench: REPS must be a positive number" >&2; exit 2; }
selected=("$@")
[ ${#selected[@]} -gt 0 ] || selected=("${all[@]}")
for w in "${selected[@]}"; do
  [[ " ${all[*]} " == *" $w "* ]] || { echo "usage: bash bench/run.sh [${all[*]}]..." >&2; exit 2; }
done
want() { [[ " ${selected[*]} " == *" $1 "* ]]; }

hives=${TAMVIK_HIVES:-../shared/hives}
large=$hives/large/regipy__SYSTEM
clean=$hives/clean/dfwinreg__SYSTEM
need() {
  [ -f "$1" ] || { echo "bench: $1 is absent: the bench reads the shared hives (set TAMVIK_HIVES to their folder)" >&2; exit 1; }
}
if want W1 || want W2; then need "$large"; fi
if want W1d || want W3 || want W3s || want W4; then need "$clean"; fi

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
results=$work/results  # a timed run a line: workload side seconds cpu peak_kib check process_seconds

# run NAME SIDE RECORD WORKLOAD ARGS...: one fresh process, timed from here as
# well; its report is kept under NAME when RECORD is yes.
run() {
  local name=$1 side=$2 record=$3 out line start end
  shift 3
  start=$EPOCHREALTIME
  out=$("$bin/bench_$side" "$@") || { echo "bench: $side $name FAILED" >&2; exit 1; }
  end=$EPOCHREALTIME
  line=$(grep '^bench ' <<<"$out") || { echo "bench: $side $name printed no report" >&2; exit 1; }
  [ "$record" = yes ] || return 0
  sed -E 's/.*seconds=([^ ]+) cpu=([^ ]+) peak_kib=([^ ]+) check=(.*)/'"$name $side"' \1 \2 \3 \4/' <<<"$line" |
    awk -v p="$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f", b - a }')" '{ print $0, p }' >>"$results"
  echo "  $name $side: $(tail -n1 "$results" | cut -d' ' -f3) s, process $(tail -n1 "$results" | cut -d' ' -f7) s" >&2
}

# check SIDE WHAT HIVE: the side's own reading of what a write workload left; its line is the run's check.
check() {
  local line
  line=$("$bin/bench_$1" "check-$2" "$3" | grep '^check ') || { echo "bench: $1 check-$2 FAILED" >&2; exit 1; }
  echo "$2 $1 ${line#check }" >>"$work/checks"
}

# Every run of a workload, on either side, must report the same check: the same work was done.
same_work() {
  local file=$results column=6
  [ "${2:-}" = checked ] && file=$work/checks column=3
  if [ "$(awk -v w="$1" -v c=$column '$1 == w { print $c }' "$file" | sort -u | wc -l)" -ne 1 ]; then
    echo "bench: FAILED: the runs of $1 did not all do the same work:" >&2
    awk -v w="$1" -v c=$column '$1 == w { print "  " $2 ": " $c }' "$file" | sort -u >&2
    exit 1
  fi
}

echo "bench: $reps runs per side, tamvik and hivex in turn" >&2
if want W1; then
  for _ in $(seq "$reps"); do for side in tamvik hivex; do run W1 $side yes W1 "$large"; done; done
  same_work W1
fi
if want W1d; then
  for _ in $(seq "$reps"); do for side in tamvik hivex; do run W1d $side yes W1 "$clean"; done; done
  same_work W1d
fi
if want W2; then
  "$bin/bench_tamvik" lookups "$large" "$work/lookups"
  for _ in $(seq "$reps"); do for side in tamvik hivex; do run W2 $side yes W2 "$large" "$work/lookups"; done; done
  same_work W2
fi
for w in W3 W3s; do
  if want $w || { [ $w = W3 ] && want W4; }; then
    record=$(want $w && echo yes || echo no)
    for _ in $(seq "$reps"); do
      for side in tamvik hivex; do
        copy=$work/$side.hive
        cp "$clean" "$copy" && chmod u+w "$copy"
        run $w $side "$record" $w "$copy"
        check $side $w "$copy"
        if [ $w = W3 ] && want W4; then
          run W4 $side yes W4 "$copy"
          check $side W4 "$copy"
        fi
        rm -f "$copy"
      done
    done
    same_work $w checked
  fi
done
if want W4; then same_work W4 checked; fi

# median COLUMN WORKLOAD SIDE: the median of one column over that side's runs.
median() {
  awk -v w="$2" -v s="$3" -v f="$1" '$1 == w && $2 == s { print $f }' "$results" | sort -g |
    awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }'; }

echo
echo "Medians of $reps runs per side; a ratio above 1 means Tamvik is slower (or bigger)."
printf '%-6s %9s %9s %6s %9s %9s %6s %9s %9s %6s %8s %8s %6s\n' workload "tamvik s" "hivex s" ratio \
  "tamvik cpu" "hivex cpu" ratio "tamvik ps" "hivex ps" ratio "tmv MiB" "hvx MiB" ratio
for w in "${all[@]}"; do
  want $w || continue
  t=$(median 3 $w tamvik) h=$(median 3 $w hivex) tc=$(median 4 $w tamvik) hc=$(median 4 $w hivex)
  tp=$(median 7 $w tamvik) hp=$(median 7 $w hivex)
  tm=$(awk -v k="$(median 5 $w tamvik)" 'BEGIN { printf "%.1f", k / 1024 }')
  hm=$(awk -v k="$(median 5 $w hivex)" 'BEGIN { printf "%.1f", k / 1024 }')
  printf '%-6s %9.3f %9.3f %6s %9.3f %9.3f %6s %9.3f %9.3f %6s %8s %8s %6s\n' $w "$t" "$h" "$(ratio "$t" "$h")" \
    "$tc" "$hc" "$(ratio "$tc" "$hc")" "$tp" "$hp" "$(ratio "$tp" "$hp")" "$tm" "$hm" "$(ratio "$tm" "$hm")"
done
echo "(s and cpu: hive open to close, commit included; ps: the whole process, started from the shell;"
echo " MiB: peak resident set of the process)"
