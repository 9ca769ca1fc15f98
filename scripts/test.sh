#!/usr/bin/env bash
# Builds and runs the test suite. Usage: scripts/test.sh [release|asan|tsan|debug|arm64]
# (arm64: cross-built with Debian's aarch64 toolchain, tests run under qemu-aarch64)
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"

if [ "$preset" = arm64 ]; then scripts/install-deps.sh --arm64; else scripts/install-deps.sh; fi
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
# ThreadSanitizer needs the classic address-space layout; newer kernels randomise too widely.
run=()
if [ "$preset" = tsan ] && command -v setarch >/dev/null; then run=(setarch "$(uname -m)" -R); fi
"${run[@]}" ctest --preset "$preset"
