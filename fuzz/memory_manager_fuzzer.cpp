// The memory manager under fuzzed create / import / dummy / delete / lookup sequences, by stale or
// copied records: buffers are touched at both ends, nothing is left open or mapped.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "fuzz_support.h"
#include "src/common/zel_memory/memory_manager.h"

using namespace zel::memory;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    zel_fuzz::QuietLogs(in.ConsumeBool());
    const int fds = zel_test::CountOpenFds(), mappings = zel_test::CountMemfdMappings();
    const uint32_t source_size = in.ConsumeIntegralInRange<uint32_t>(0, 3 * 4096);
    const int source = memfd_create("zel_fuzz_src", MFD_CLOEXEC);  // zeros to import
    if (source < 0 || ftruncate(source, source_size) != 0) abort();
    int offset_imports = 0;  // their release unmaps from va: the pages before it stay mapped
    {
        std::vector<char> own(4096);
        // Caller references (null once dropped) and copies of their records.
        std::vector<std::pair<Buffer::sptr, ZelBuffer>> all;
        MemoryManager manager;
        for (int op = 0; op < 64 && in.remaining_bytes() > 0; ++op) {
            const uint32_t size = in.ConsumeIntegralInRange<uint32_t>(0, 3 * 4096);
            const uint32_t offset = in.ConsumeBool() ? in.ConsumeIntegral<uint32_t>() : size / 3;
            Buffer::sptr made;
            uint32_t backed = 0;  // bytes at va known to be memory
            const int action = in.ConsumeIntegralInRange(0, 6);
            if (action == 0) {
                const int type = in.ConsumeIntegralInRange(0, 5);
                made = manager.create_memory(static_cast<ZelMmType>(type), size, in.ConsumeBool());
                if (made && ((type != 1 && type != 4) || size == 0 || made->size != size)) abort();
                backed = size;
            } else if (action == 1) {
                const int fd = in.ConsumeBool() ? source : in.ConsumeIntegralInRange(-2, 64);
                try {
                    made = manager.import_memory(fd, source_size, size, offset);
                } catch (const zel::TalornNnException&) {
                }
                backed = fd == source && uint64_t{size} + offset <= source_size ? size : 0;
                offset_imports += made && offset != 0;
            } else if (action == 2) {
                made = manager.dummy_memory(-1, 0, size % 64, offset % 64, own.data());
                backed = made ? size % 64 : 0;
            } else if (!all.empty()) {
                auto& [buffer, view] = all[in.ConsumeIntegralInRange<size_t>(0, all.size() - 1)];
                ZelBuffer copy = view;  // a copy of the record, stale or not
                if (action == 3) manager.delete_memory(&copy);
                if (action == 4 && buffer) manager.delete_memory(buffer);
                if (action == 5) manager.get_fd(&copy), manager.get_buffer(&copy);
                if (action == 6) buffer.reset();
            }
            if (!made) continue;
            all.push_back({made, {made->va, made->size, made->offset}});
            if (action < 2 && !manager.get_user_raw_buffer(made)) abort();
            volatile char* va = static_cast<char*>(made->va);
            if (backed) va[0] = va[backed - 1];
        }
    }
    close(source);
    if (zel_test::CountOpenFds() != fds ||
        zel_test::CountMemfdMappings() > mappings + offset_imports)
        abort();
    return 0;
}
