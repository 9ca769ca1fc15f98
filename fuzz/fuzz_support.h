// Helpers shared by the fuzz targets and the seed generator: a quiet process, service-side
// profiles to merge with, and the process state that must not carry over from one input to the
// next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "util/zel_utils_profiler.h"

namespace zel_fuzz {

// Discards every log line (they are still formatted, so the formatting is exercised) and sets
// the print mask: every zone when `traces`, else the errors and warnings a service prints.
void QuietLogs(bool traces);

// Records `iterations` iterations of a service request into `profiler`:
// TOTAL{SERVICE{ENGINE{NPU_UD}, DD/dd_postfix}} with key `key` as TOTAL's postfix.
void RecordServiceIterations(zel::util::ZelProfiler& profiler, int iterations,
                             zel::util::ProfilerKeyType key, zel::util::ProfilerKeyType dd_postfix);

// Records `iterations` iterations of a client request: TOTAL{API{CLIENT}}.
void RecordClientIterations(zel::util::ZelProfiler& profiler, int iterations,
                            zel::util::ProfilerKeyType key);

// Deletes every profiler left in the wrapper's registries, so that no input sees another's.
void ResetProfilerRegistry();

// Mappings of memfd-backed memory (the host's device buffers and the fuzzers' own import
// sources). Open descriptors: zel_test::CountOpenFds() of support/proc_stats.h.
int MemfdMappingCount();

// A memfd of `size` bytes filled from `bytes` (repeated); -1 on failure.
int MakeMemfd(const char* name, const uint8_t* bytes, size_t count, size_t size);

}  // namespace zel_fuzz
