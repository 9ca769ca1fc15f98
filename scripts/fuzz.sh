#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang, ASan + UBSan) and runs each for a bounded
# time. Usage: scripts/fuzz.sh [seconds-per-target] [target...]   (default 60 s, every target)
#
# Each target starts from its committed seeds (fuzz/corpus/<target>) and the corpus grown by
# earlier runs on this machine (build/fuzz/corpus/<target>). A crash, leak, sanitizer report or
# timeout fails the script and leaves the input in build/fuzz/artifacts/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    targets=(profile_handover_fuzzer file_fuzzer kth_selection_fuzzer memory_manager_fuzzer)
fi

scripts/install-deps.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target zel_fuzzers

out=build/fuzz
mkdir -p "$out/artifacts"

# A huge request fails and returns null, as it does on a device: the device profile's conversion
# allocates what the driver's count asks for before it checks that count against the buffer.
export ASAN_OPTIONS="detect_leaks=1:allocator_may_return_null=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:${UBSAN_OPTIONS:-}"

status=0
summary=()
for target in "${targets[@]}"; do
    corpus="$out/corpus/$target"
    mkdir -p "$corpus"
    log="$out/$target.log"
    echo "=== $target: ${seconds} s"
    # A wrapped file range may ask for a 2 GiB image, which the library allocates as asked (the
    # read then fails), and a device count for far more, which is never touched: the memory a
    # process really uses stays limited, a single request is not.
    set +e
    "$out/fuzz/$target" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 \
        -malloc_limit_mb=1048576 -print_final_stats=1 -artifact_prefix="$out/artifacts/$target-" \
        "$corpus" "fuzz/corpus/$target" >"$log" 2>&1
    rc=$?
    set -e
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    units=$(wc -l < <(ls "$corpus"))
    if [ $rc -ne 0 ]; then
        status=1
        echo "!!! $target failed (exit $rc); log: $log"
        grep -E "ERROR|SUMMARY|Test unit written|_fuzzer: " "$log" | tail -15 || true
    fi
    summary+=("$(printf '%-24s %10s executions  %5s corpus units  exit %d' "$target" "${runs:-?}" "$units" "$rc")")
done

echo "=== fuzzing summary (${seconds} s per target)"
printf '%s\n' "${summary[@]}"
exit $status
