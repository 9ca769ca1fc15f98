// Helpers shared by the fuzz targets: a quiet process and the process state that must not carry
// over from one input to the next.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/proc_stats.h"
#include "util/zel_utils_profiler.h"

namespace zel_fuzz {

// Discards every log line (still formatted, so the formatting is exercised) and sets the print
// mask: every zone when `traces`, else errors and warnings. ZEL_FUZZ_VERBOSE=1 prints them instead.
void QuietLogs(bool traces);

}  // namespace zel_fuzz
