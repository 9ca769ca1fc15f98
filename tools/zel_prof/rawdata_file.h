// Raw-data files as a device exports them: 40-byte records, no header, the counts not stored.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "util/zel_utils_profiler.h"

namespace zel_prof {

struct RawDataCounts {
    uint64_t iterations = 0;
    uint64_t labels = 0;
};

// Reads the whole file; false with `error` set when it cannot be read.
bool ReadRawDataFile(const std::string& path, std::vector<uint8_t>* bytes, std::string* error);

// Fills in the counts that are 0 the way the profiler derives them from its records: an
// iteration ends at the first record that repeats the first record's label, and the iterations
// are cut from the records by count. False with `error` when they cannot be derived or do not
// fit the data.
bool InferCounts(const std::vector<uint8_t>& bytes, RawDataCounts* counts, std::string* error);

// The key in a "profile_rawdata_<key>.bin" file name, or 0.
uint64_t KeyFromFileName(const std::string& path);

// A raw-data file's records as a finalized profiler.
struct RawDataProfile {
    std::unique_ptr<zel::util::ZelProfiler> profiler;  // null when the file is no profile
    size_t bytes = 0;
    RawDataCounts counts;  // as given, the zeros derived
    uint64_t key = 0;
};

// Reads `path`, derives the counts left 0 (InferCounts) and finalizes a profiler from the
// records under `key`, or under the file name's key when `key` is null. On failure the result
// holds no profiler and `error` says why.
RawDataProfile LoadRawDataProfile(const std::string& path, RawDataCounts counts,
                                  const uint64_t* key, std::string* error);

}  // namespace zel_prof
