#!/usr/bin/env bash
# The README's install recipe, exactly: a release build without tests, installed into a
# prefix; then a consumer built and run against the installed copy through pkg-config
# (strict C99, the prefix recorded with -Wl,-rpath, no LD_LIBRARY_PATH) and through
# find_package (strict C11, CMake records the folder).
# Usage: install_test.sh <source-dir> <consumer-source-dir>
set -euo pipefail
source_dir=$1 consumer=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
unset LD_LIBRARY_PATH

echo "== release build"
cmake -S "$source_dir" -B "$work/release" -DCMAKE_BUILD_TYPE=Release \
      -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$work/release" -j"$(nproc)" >/dev/null
cmake --install "$work/release" --prefix "$prefix" >/dev/null

echo "== pkg-config"
pc=$(dirname "$(find "$prefix" -name qel_os_adapter.pc | head -n 1)")
export PKG_CONFIG_PATH=$pc
# shellcheck disable=SC2046
cc -std=c99 -pedantic -Wall -Wextra -Werror "$consumer/consumer.c" -o "$work/pc-consumer" \
   $(pkg-config --cflags --libs qel_os_adapter) \
   -Wl,-rpath,"$(pkg-config --variable=libdir qel_os_adapter)"
out=$("$work/pc-consumer")
[ "$out" = "installed copy:14" ] || { echo "pkg-config consumer printed: $out"; exit 1; }

echo "== find_package"
cmake -S "$consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
out=$("$work/cmake/consumer")
[ "$out" = "installed copy:14" ] || { echo "find_package consumer printed: $out"; exit 1; }

version=$(sed -n 's/^#define QEL_OS_ADAPTER_VERSION_STRING "\(.*\)"$/\1/p' \
          "$prefix/include/qel_os_adapter/qel_version.h")
[ -n "$version" ] && [ "$(pkg-config --modversion qel_os_adapter)" = "$version" ] ||
  { echo "pkg-config version $(pkg-config --modversion qel_os_adapter) is not the headers' $version"; exit 1; }
echo "installed copy found by pkg-config and find_package"
