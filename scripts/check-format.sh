#!/usr/bin/env bash
# Fails when a tracked C++ file differs from what the repository's .clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || scripts/install-deps.sh clang-format
git ls-files -z '*.h' '*.cpp' '*.cc' | xargs -0 clang-format --dry-run -Werror
echo "formatting: every C++ file matches .clang-format"
