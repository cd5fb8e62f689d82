#!/usr/bin/env bash
# Installs the library into a folder of its own and builds a user's program against it outside the tree: as a CMake
# package, in C11 and in C++, and through pkg-config.
#
# usage: install_test.sh BUILD-FOLDER
set -euo pipefail
build=$1
source=$(cd "$(dirname "$0")/consumer" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/root" >/dev/null
cmake -S "$source" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/root" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/consumer_c"
"$work/build/consumer_cpp"

pc=$(find "$work/root" -name qel.pc -printf '%h\n')
flags=$(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs qel)
# shellcheck disable=SC2086
cc -std=c11 "$source/consumer.c" -o "$work/consumer" $flags -Wl,-rpath,"$(dirname "$pc")"
"$work/consumer"
readelf -d "$work/consumer" | grep -q 'NEEDED.*libqel\.so\.0\]'
