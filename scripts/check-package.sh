#!/usr/bin/env bash
# Installs the library into a scratch prefix, then builds and runs a small consumer against it
# twice: through the CMake package and through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh pkg-config
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake -S . -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$work/prefix" \
    -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_BENCHMARKS=OFF -DZEL_BUILD_TOOLS=OFF >/dev/null
cmake --build "$work/build" -j2 >/dev/null
cmake --install "$work/build" >/dev/null

cmake -S tests/package -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"

PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name zel_common_utils.pc)")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046
c++ -std=c++17 tests/package/consumer.cpp -o "$work/consumer-pc" $(pkg-config --cflags --libs zel_common_utils)
"$work/consumer-pc"
echo "package check passed"
