#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds the consumer against
# it twice, through pkg-config and through find_package(Tamvik), and runs each
# on a hive the installed tool makes.
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

cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
check "$work/cmake/consumer" cmake
echo "the consumer builds and runs through pkg-config and find_package(Tamvik)"
