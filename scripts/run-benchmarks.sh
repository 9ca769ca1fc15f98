#!/usr/bin/env bash
# Runs every benchmark of a build once, briefly, to show that each still works, and prints their
# ratio tables for the log. No time is asserted: a short run on a shared machine measures nothing.
# Fails when a program fails or a benchmark reports an error. Usage: scripts/run-benchmarks.sh
# [preset], after the preset (release by default) has been built.
set -euo pipefail
cd "$(dirname "$0")/.."
dir="build/${1:-release}/bench"

found=0
for bench in "$dir"/*_bench; do
    found=1
    echo "--- $(basename "$bench")"
    status=0
    output=$("$bench" --benchmark_min_time=0.01 2>&1) || status=$?
    if [ "$status" != 0 ] || grep -q "ERROR OCCURRED" <<<"$output"; then
        echo "$output"
        exit 1
    fi
    sed -n '/^ratio/,$p' <<<"$output"
done
[ "$found" = 1 ] || { echo "no benchmarks in $dir" >&2; exit 1; }
