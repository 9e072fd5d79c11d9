#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds the consumer against
# it twice, through pkg-config and through find_package(Tamvik), and runs each
# on a hive the installed tool makes; the same for the image library's
# consumer, on that hive inside an NTFS image, when the tree has the library.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

pc=$(find "$prefix" -name tamvik.pc)
libdir=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --variable=libdir tamvik)
soname=$(readelf -d "$libdir/libtamvik.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libtamvik.so.0 ] || { echo "SONAME is '$soname', not libtamvik.so.0"; exit 1; }
[ -f "$prefix/include/tamvik/RegAPI.h" ] || { echo "no include/tamvik/RegAPI.h"; exit 1; }

check() {  # a consumer binary, a label
  "$prefix/bin/tamvik" new "$work/$2.hiv"
  [ "$("$1" "$work/$2.hiv")" = 42 ] || { echo "$2: the consumer failed"; exit 1; }
  [ "$("$prefix/bin/tamvik" get "$work/$2.hiv" Consumer Answer)" = 42 ] || { echo "$2: tamvik reads no 42"; exit 1; }
}

# shellcheck disable=SC2046
g++ -std=c++17 "$here/consumer.cpp" -o "$work/by-pkg-config" \
  $(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs tamvik) -Wl,-rpath,"$libdir"
check "$work/by-pkg-config" pkg-config

image_pc=$(find "$prefix" -name tamvik-image.pc)
with_image=OFF
if [ -n "$image_pc" ]; then
  with_image=ON
  soname=$(readelf -d "$libdir/libtamvik-image.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  [ "$soname" = libtamvik-image.so.0 ] || { echo "SONAME is '$soname', not libtamvik-image.so.0"; exit 1; }
  foreign=$(nm -D --defined-only "$libdir/libtamvik-image.so" | c++filt | cut -d' ' -f3- | grep -v 'TamvikImage::' || true)
  [ -z "$foreign" ] || { echo "libtamvik-image exports more than its namespace: $foreign"; exit 1; }
  # shellcheck disable=SC2046
  g++ -std=c++17 "$here/image_consumer.cpp" -o "$work/image-by-pkg-config" \
    $(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs tamvik-image) -Wl,-rpath,"$libdir"
fi
check_image() {  # an image consumer binary, the hive a consumer filled
  PATH=$PATH:/usr/sbin
  command -v mkntfs >/dev/null && command -v ntfscp >/dev/null || { echo "no mkntfs/ntfscp: image consumer not run"; return; }
  truncate -s 8M "$work/volume.img" && mkntfs -F -f -q "$work/volume.img" 2>/dev/null
  ntfscp -q "$work/volume.img" "$2" SYSTEM
  [ "$("$1" "$work/volume.img" '\system')" = 42 ] || { echo "$1: reads no 42 inside the image"; exit 1; }
}
[ $with_image = OFF ] || check_image "$work/image-by-pkg-config" "$work/pkg-config.hiv"

cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DWITH_IMAGE=$with_image >/dev/null
cmake --build "$work/cmake" >/dev/null
check "$work/cmake/consumer" cmake
[ $with_image = OFF ] || check_image "$work/cmake/image_consumer" "$work/cmake.hiv"
echo "the consumers build and run through pkg-config and find_package(Tamvik) (image library: $with_image)"
