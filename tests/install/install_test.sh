#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds and runs a consumer found once
# through find_package (strict C11) and once through pkg-config (strict C99).
# Usage: install_test.sh <build-dir> <consumer-source-dir> <extra C flags...>
set -euo pipefail
build=$1 source=$2
shift 2
extra_flags="$*"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libqel_os_adapter.so.1' | head -n 1)")
export LD_LIBRARY_PATH=$libdir

echo "== find_package"
cmake -S "$source" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_C_FLAGS="$extra_flags" -DCMAKE_EXE_LINKER_FLAGS="$extra_flags" >/dev/null
cmake --build "$work/cmake" >/dev/null
out=$("$work/cmake/consumer")
[ "$out" = "installed copy:14" ] || { echo "find_package consumer printed: $out"; exit 1; }

echo "== pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046,SC2086
# Strict C99: the pkg-config flags must bring what the headers need.
cc -std=c99 -pedantic -Wall -Wextra -Werror $extra_flags "$source/consumer.c" -o "$work/pc-consumer" \
   $(pkg-config --cflags --libs qel_os_adapter)
out=$("$work/pc-consumer")
[ "$out" = "installed copy:14" ] || { echo "pkg-config consumer printed: $out"; exit 1; }
version=$(sed -n 's/^#define QEL_OS_ADAPTER_VERSION_STRING "\(.*\)"$/\1/p' \
          "$prefix/include/qel_os_adapter/qel_version.h")
[ -n "$version" ] && [ "$(pkg-config --modversion qel_os_adapter)" = "$version" ] ||
  { echo "pkg-config version $(pkg-config --modversion qel_os_adapter) is not the headers' $version"; exit 1; }
echo "installed copy found by find_package and pkg-config"
