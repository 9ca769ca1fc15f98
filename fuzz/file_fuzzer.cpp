// Files: import_file_to_mem and FileBufferReader's split reads over a fuzzed file (missing, small,
// or around the 1 MiB split-read threshold) and fuzzed, possibly wrapping, sizes and offsets.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "fuzz_support.h"
#include "util/zel_utils.h"

// A read that reports success for `length` bytes at `offset` delivered those bytes of the file.
static void Check(const std::string& file, const char* out, uint64_t length, uint64_t offset) {
    if (offset + length > file.size() || memcmp(out, file.data() + offset, length) != 0) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    zel_fuzz::QuietLogs(in.ConsumeBool());
    static const std::string path = "/tmp/zel_file_fuzzer_" + std::to_string(getpid()) + ".bin";
    const int kind = in.ConsumeIntegralInRange(0, 2);
    std::string file = kind != 0 ? in.ConsumeRandomLengthString(4096) : "";
    const size_t length = 0x100000 - 16 + in.ConsumeIntegralInRange(0, 0x20000);
    while (kind == 2 && !file.empty() && file.size() < length)
        file += file.substr(0, length - file.size());
    unlink(path.c_str());
    if (kind != 0) std::ofstream(path, std::ios::binary) << file;
    zel::util::FileBufferReader reader(path);
    if (reader.size != file.size()) abort();
    while (in.remaining_bytes() > 0) {
        const uint32_t a = in.ConsumeIntegral<uint32_t>() % (file.size() + 3) +
                           (in.ConsumeBool() ? 0 : 0xFFFFFFFFu - file.size() - 2);
        const uint32_t b = in.ConsumeBool() ? in.ConsumeIntegral<uint32_t>() : 0;
        const uint32_t want = a != 0 ? a : reader.size;
        char* image = nullptr;
        uint32_t loaded = 0;
        if (in.ConsumeBool()) {
            if (zel::util::import_file_to_mem(path.c_str(), &image, &loaded, a, b) == 0)
                Check(file, image, loaded, b);
            free(image);
        } else if (want <= file.size()) {
            std::string out(want, '\0');
            if (reader.copy_buffer(&out[0], a, b) == 0) Check(file, out.data(), want, b);
        }
    }
    unlink(path.c_str());
    return 0;
}
