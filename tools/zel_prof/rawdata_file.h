// Raw-data files as a device exports them: 40-byte records, no header, the counts not stored.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

}  // namespace zel_prof
