#!/usr/bin/env bash
# Installs a build into a temporary prefix and builds and runs a program
# outside the tree against it with pkg-config alone.
#   scripts/check_install.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
prefix=$(mktemp -d /tmp/kolvinst.XXXXXX)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(find "$prefix" -name kolvvessa.pc -printf '%h\n' | head -1)
export PKG_CONFIG_PATH=$libdir
c++ -std=c++17 -Wall -Wextra -Werror tests/install/consumer.cpp -o "$prefix/consumer" \
    $(pkg-config --cflags --libs kolvvessa)
LD_LIBRARY_PATH="$(dirname "$libdir")" "$prefix/consumer"
readelf -d "$(dirname "$libdir")/libkolvvessa.so" | grep -q 'SONAME.*libkolvvessa.so.5'
echo "install check: an outside program builds and runs against the installed package"
