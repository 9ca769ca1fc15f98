// A profile as one self-contained HTML page: per-iteration chart, box plots, icicle, summary.
#pragma once

#include <cstdint>
#include <string>

#include "zel_prof/rawdata_file.h"

namespace zel_prof {

// Loads the raw-data file at `path` (counts left 0 are derived, `key` null: from the file name)
// and writes the page to `out`. False with `error` set on failure.
bool WriteHtmlReport(const std::string& path, RawDataCounts counts, const uint64_t* key,
                     const std::string& out, std::string* error);

}  // namespace zel_prof
