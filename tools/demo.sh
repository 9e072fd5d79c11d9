#!/usr/bin/env bash
# The demo: installs what the build needs, builds, and shows the library at
# work on a real hive (and, when the command-line tool is built, a new hive
# made, filled from a .reg file, listed, exported and checked).
set -euo pipefail
cd "$(dirname "$0")/.."
bash .ci/setup >/dev/null
# The tests' image builder makes the demo's disk image: build it, not the tests.
cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-demo --target regwalk tamvik_cli >/dev/null
cmake --build build-demo --target make_image >/dev/null 2>&1 || true

hives="${TAMVIK_HIVES:-$(pwd)/../shared/hives}"
sample="$hives/clean/nt-hive__testhive"
if [ -f "$sample" ]; then
  echo "== regwalk: the tree of $(basename "$sample"), read through the public API"
  # The tree is long: show its start (the walk itself reads all of it).
  ./build-demo/tools/regwalk "$sample" 2 > "${TMPDIR:-/tmp}/tamvik-demo-walk.txt"
  cut -c1-120 "${TMPDIR:-/tmp}/tamvik-demo-walk.txt" | head -40
  echo "... ($(wc -l < "${TMPDIR:-/tmp}/tamvik-demo-walk.txt") lines in all)"
  rm -f "${TMPDIR:-/tmp}/tamvik-demo-walk.txt"
else
  echo "(no sample hive at $sample: skipping the walk of a real hive)"
fi

if [ -x ./build-demo/tools/tamvik ] && [ -f tools/sample/demo.reg ]; then
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  tool=./build-demo/tools/tamvik
  echo
  echo "== tamvik new: an empty hive"
  "$tool" new "$work/demo.hive"
  echo "== tamvik import: tools/sample/demo.reg"
  "$tool" import "$work/demo.hive" tools/sample/demo.reg
  echo "== tamvik ls -r"
  "$tool" ls "$work/demo.hive" -r
  echo "== tamvik export --utf8"
  "$tool" export "$work/demo.hive" --utf8 --prefix 'HKEY_LOCAL_MACHINE\DEMO'
  echo "== tamvik check"
  "$tool" check "$work/demo.hive" && echo "check: the hive is sound"

  if [ -x ./build-demo/tests/make_image ]; then
    echo
    echo "== a disk image: GPT, an NTFS partition holding the hive as SOFTWARE, in qcow2"
    ./build-demo/tests/make_image "$work/win.qcow2" "Windows/System32/config/SOFTWARE=$work/demo.hive"
    echo "== tamvik hives"
    "$tool" hives "$work/win.qcow2"
    echo "== tamvik set --image: a value changed inside the image, no root, no mount"
    "$tool" set --image "$work/win.qcow2" /windows/system32/config/software 'Demo' Edited sz "in the image"
    "$tool" ls --image "$work/win.qcow2" /Windows/System32/config/SOFTWARE 'Demo'
    "$tool" check --image "$work/win.qcow2" /Windows/System32/config/SOFTWARE && echo "check: the hive in the image is sound"
  fi
fi
