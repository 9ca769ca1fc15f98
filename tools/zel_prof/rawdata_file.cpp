#include "zel_prof/rawdata_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>

#include "util/zel_utils_profiler.h"

namespace zel_prof {

using zel::util::ZelProfileData;

bool ReadRawDataFile(const std::string& path, std::vector<uint8_t>* bytes, std::string* error) {
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    bytes->clear();
    uint8_t chunk[1 << 16];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0)
        bytes->insert(bytes->end(), chunk, chunk + got);
    const bool failed = ferror(file) != 0;
    fclose(file);
    if (failed) *error = path + ": read error";
    return !failed;
}

bool InferCounts(const std::vector<uint8_t>& bytes, RawDataCounts* counts, std::string* error) {
    const uint64_t records = bytes.size() / sizeof(ZelProfileData);
    if (records == 0) {
        *error = "the file holds no complete record";
        return false;
    }
    auto label_at = [&](uint64_t index) {
        ZelProfileData record;
        memcpy(&record, bytes.data() + index * sizeof(record), sizeof(record));
        return static_cast<int32_t>(record.label);
    };
    if (counts->labels == 0) {
        const int32_t first = label_at(0);
        for (uint64_t index = 1; index < records && counts->labels == 0; ++index) {
            if (label_at(index) == first) counts->labels = index + 1;
        }
        if (counts->labels == 0) {
            *error = "cannot tell where an iteration ends: the first label never recurs "
                     "(give --labels)";
            return false;
        }
    }
    if (counts->iterations == 0) counts->iterations = records / counts->labels;
    if (counts->iterations == 0 || counts->labels > records ||
        counts->iterations > records / counts->labels) {
        *error = std::to_string(counts->iterations) + " iterations of " +
                 std::to_string(counts->labels) + " records do not fit " + std::to_string(records) +
                 " records in the file";
        return false;
    }
    return true;
}

uint64_t KeyFromFileName(const std::string& path) {
    static const std::regex pattern("profile_rawdata_([0-9]+)\\.bin$");
    std::smatch match;
    if (!std::regex_search(path, match, pattern)) return 0;
    errno = 0;
    const unsigned long long key = strtoull(match[1].str().c_str(), nullptr, 10);
    return errno == 0 ? key : 0;
}

RawDataProfile LoadRawDataProfile(const std::string& path, RawDataCounts counts,
                                  const uint64_t* key, std::string* error) {
    RawDataProfile loaded;
    std::vector<uint8_t> bytes;
    if (!ReadRawDataFile(path, &bytes, error) || !InferCounts(bytes, &counts, error)) {
        return loaded;
    }
    loaded.bytes = bytes.size();
    loaded.counts = counts;
    loaded.key = key != nullptr ? *key : KeyFromFileName(path);
    try {
        auto profiler = std::make_unique<zel::util::ZelProfiler>(loaded.key, bytes.data(),
                                                                 bytes.size(), counts.iterations,
                                                                 counts.iterations, counts.labels);
        if (profiler->finalize() != 0 || !profiler->finalized) {
            *error = "the records do not form a profile";
            return loaded;
        }
        loaded.profiler = std::move(profiler);
    } catch (const std::exception& failure) {
        std::string reason = failure.what();
        while (!reason.empty() && reason.back() == '\n')
            reason.pop_back();
        *error = "the records do not form a profile (" + reason + ")";
    }
    return loaded;
}

}  // namespace zel_prof
