#!/usr/bin/env bash
# Builds the library and its tools, then runs the end-to-end profiled-inference demo.
# Usage: scripts/demo.sh [zel-prof demo options...]   (see: build/release/tools/zel-prof demo --help)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target zel-prof >/dev/null
exec build/release/tools/zel-prof demo "$@"
