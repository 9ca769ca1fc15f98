#!/usr/bin/env bash
# Builds and runs the test suite. Usage: scripts/test.sh [release|asan|tsan|debug]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"

scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
# ThreadSanitizer needs the classic address-space layout; newer kernels randomise too widely.
run=()
if [ "$preset" = tsan ] && command -v setarch >/dev/null; then run=(setarch "$(uname -m)" -R); fi
"${run[@]}" ctest --preset "$preset"
