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
