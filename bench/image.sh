#!/usr/bin/env bash
# Reading the large SYSTEM hive inside disk images against the plain file:
# puts the hive into a new NTFS volume (a scratch folder, never the project),
# makes a GPT disk of it in raw and qcow2, and times bench_image on each.
# Usage: bash bench/image.sh    REPS=N runs per measure (default 5)
set -euo pipefail
cd "$(dirname "$0")/.."
hive=${TAMVIK_HIVES:-../shared/hives}/large/regipy__SYSTEM
[ -f "$hive" ] || { echo "bench: $hive is absent (set TAMVIK_HIVES to the shared hives' folder)" >&2; exit 1; }
export PATH=$PATH:/usr/sbin
cmake -S . -B build-bench-image -G Ninja -DCMAKE_BUILD_TYPE=Release -DTAMVIK_TESTS=OFF >/dev/null
cmake --build build-bench-image -j2 --target bench_image >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
truncate -s 64M "$work/volume.ntfs" && mkntfs -F -f -q "$work/volume.ntfs" 2>/dev/null
ntfscp -q "$work/volume.ntfs" "$hive" SYSTEM
truncate -s 66M "$work/disk.raw"
printf 'label: gpt\nstart=2048, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n' | sfdisk -q "$work/disk.raw"
dd if="$work/volume.ntfs" of="$work/disk.raw" bs=1M seek=1 conv=notrunc status=none
qemu-img convert -O qcow2 "$work/disk.raw" "$work/disk.qcow2"
for image in disk.raw disk.qcow2; do
  build-bench-image/bench/bench_image "$work/$image" /SYSTEM "$hive" "${REPS:-5}"
done

# The tool as a user runs it, whole processes (hyperfine, alternating): an
# export of the whole hive, and an import of 1,000 keys with 3 values each,
# on the extracted file against the same hive inside the qcow2 image.
command -v hyperfine >/dev/null || { echo "bench: hyperfine is absent (apt-get install hyperfine)" >&2; exit 0; }
cmake --build build-bench-image -j2 --target tamvik_cli >/dev/null
tool=$PWD/build-bench-image/tools/tamvik
cp "$hive" "$work/SYSTEM"
{
  echo 'Windows Registry Editor Version 5.00'
  for i in $(seq 1000); do
    printf '\n[\\BenchImport\\Key%04d]\n"Name"="value %d"\n"Count"=dword:%08x\n"Blob"=hex:01,02,03,04\n' "$i" "$i" "$i"
  done
} > "$work/import.reg"
runs=${REPS:-5}
hyperfine -N -w 1 -r "$runs" --export-markdown "$work/export.md" \
  -n "export, extracted file" "$tool export $work/SYSTEM -o /dev/null" \
  -n "export, inside qcow2" "$tool export --image $work/disk.qcow2 /SYSTEM -o /dev/null" \
  -n "export, inside raw" "$tool export --image $work/disk.raw /SYSTEM -o /dev/null"
# Each import starts from the pristine image and file (restored before each run, not timed).
cp "$work/disk.qcow2" "$work/pristine.qcow2"
hyperfine -N -w 1 -r "$runs" --export-markdown "$work/import.md" \
  -n "import, extracted file" -n "import, inside qcow2" \
  --prepare "cp $hive $work/SYSTEM" --prepare "cp $work/pristine.qcow2 $work/disk.qcow2" \
  "$tool import $work/SYSTEM $work/import.reg" "$tool import --image $work/disk.qcow2 /SYSTEM $work/import.reg"
cat "$work/export.md" "$work/import.md"
