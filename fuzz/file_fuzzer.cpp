// Files: both import_file_to_mem overloads, get_file_size and FileBufferReader's reads and cursor
// operations, with fuzzed file contents and length (empty, small, or around the 1 MiB split-read
// threshold), and fuzzed sizes and offsets, wrapping ones included. Every read that reports
// success must have delivered exactly the file's bytes at that range.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "util/zel_utils.h"

namespace {

// Reads the fuzzer asks the caller to provide buffers for are capped: a caller owns a buffer of
// the size it asks for, and the harness cannot hold gigabytes.
constexpr uint32_t kMaxOut = 4u << 20;

std::string g_path;

void RemoveFile() {
    if (!g_path.empty()) unlink(g_path.c_str());
}

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "file_fuzzer: %s\n", what);
    std::abort();
}

// Size or offset: mostly around the file's length, sometimes anything, sometimes wrapping.
uint32_t PickU32(FuzzedDataProvider& in, uint32_t length) {
    switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0:
            return in.ConsumeIntegralInRange<uint32_t>(0, length + 2);
        case 1:
            return in.ConsumeIntegral<uint32_t>();
        case 2:
            return UINT32_MAX - in.ConsumeIntegralInRange<uint32_t>(0, length + 2);
        default:
            return 0;
    }
}

// A read that returned 0 delivered `length` bytes at `offset` of the file.
void CheckRead(const std::vector<uint8_t>& file, const char* out, uint64_t length,
               uint64_t offset) {
    if (offset + length > file.size()) Fail("success reported for a range outside the file");
    if (length != 0 && std::memcmp(out, file.data() + offset, length) != 0)
        Fail("bytes read differ from the file");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zel_fuzz::QuietLogs(false);
    g_path = "/tmp/zel_file_fuzzer_" + std::to_string(getpid()) + ".bin";
    std::atexit(RemoveFile);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    zel_fuzz::QuietLogs(in.ConsumeBool());

    // The file: missing, or the content repeated up to a chosen length.
    const int kind = in.ConsumeIntegralInRange(0, 3);
    const std::vector<uint8_t> content = in.ConsumeBytes<uint8_t>(in.ConsumeIntegral<uint16_t>());
    std::vector<uint8_t> file;
    if (kind == 1) file = content;
    if (kind >= 2 && !content.empty()) {
        file.resize(0x100000 - 16 + in.ConsumeIntegralInRange<uint32_t>(0, 0x20000));
        for (size_t done = 0; done < file.size(); done += content.size())
            std::memcpy(file.data() + done, content.data(),
                        std::min(content.size(), file.size() - done));
    }
    RemoveFile();
    if (kind != 0) {
        std::FILE* out = std::fopen(g_path.c_str(), "wb");
        if (out == nullptr) return 0;
        if (!file.empty()) std::fwrite(file.data(), 1, file.size(), out);
        std::fclose(out);
    }
    const char* path = g_path.c_str();
    const uint32_t length = static_cast<uint32_t>(file.size());

    zel::util::FileBufferReader reader(g_path);
    if (reader.size != length) Fail("reader size differs from the file");

    for (int op = 0; op < 12 && in.remaining_bytes() > 0; ++op) {
        const uint32_t a = PickU32(in, length);
        const uint32_t b = PickU32(in, length);
        switch (in.ConsumeIntegralInRange(0, 7)) {
            case 0: {  // the library allocates the image
                char* image = nullptr;
                uint32_t loaded = 0;
                if (zel::util::import_file_to_mem(path, &image, &loaded, a, b) == 0) {
                    CheckRead(file, image, loaded, b);
                }
                std::free(image);
                break;
            }
            case 1: {  // the caller's own block, of the length it asks for
                const uint32_t want = a != 0 ? a : length;
                if (want > kMaxOut) break;
                std::vector<char> block(want + 1);
                char* image = block.data();
                if (zel::util::import_file_to_mem(path, &image, nullptr, a, b) == 0) {
                    CheckRead(file, image, want, b);
                }
                break;
            }
            case 2: {
                uint32_t whole = 0;
                std::unique_ptr<char[]> image = zel::util::import_file_to_mem(path, &whole, a, b);
                if (image && whole != length) Fail("owning import reports another file size");
                break;
            }
            case 3: {
                uint32_t sized = 0;
                const ZelReturn result = zel::util::get_file_size(path, &sized);
                if ((result == 0) != (length != 0) || (result == 0 && sized != length))
                    Fail("get_file_size disagrees with the file");
                break;
            }
            case 4: {
                const uint32_t want = a != 0 ? a : reader.size;
                if (want > kMaxOut) break;
                std::vector<char> out(want);
                if (reader.copy_buffer(out.data(), a, b) == 0) CheckRead(file, out.data(), want, b);
                break;
            }
            case 5: {
                // Size 0 reads the whole file, as copy_buffer does.
                const uint32_t want = a != 0 ? a : reader.size;
                if (want > kMaxOut) break;
                const uint32_t before = reader.get_cursor();
                std::vector<char> out(want);
                if (reader.copy_buffer_with_cursor(out.data(), a) == 0) {
                    CheckRead(file, out.data(), a, before);
                    if (reader.get_cursor() != before + a) Fail("cursor not advanced by the read");
                } else if (reader.get_cursor() != before) {
                    Fail("failed read moved the cursor");
                }
                break;
            }
            case 6:
                reader.set_cursor(a);
                break;
            default:
                reader.move_cursor(a);
                break;
        }
        if (reader.get_cursor() > reader.size) Fail("cursor past the end");
    }
    return 0;
}
