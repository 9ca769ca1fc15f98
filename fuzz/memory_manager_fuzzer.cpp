// The memory manager under a fuzzed sequence of create / import / dummy / delete / lookup
// operations, deletes by copied and stale ZelBuffer records included. A model of the pool
// predicts every delete and lookup; buffers that report success are touched at both ends; and
// once the manager and every reference are gone, no descriptor or mapping may be left.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "fuzz_support.h"
#include "src/common/zel_memory/memory_manager.h"
#include "support/proc_stats.h"

using zel::TalornNnException;
using zel::memory::Buffer;
using zel::memory::MemoryManager;
using zel::memory::ZelBuffer;
using zel::memory::ZelMmType;

namespace {

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "memory_manager_fuzzer: %s\n", what);
    std::abort();
}

// A buffer handed out by the manager, as the harness believes it stands.
struct Tracked {
    Buffer::sptr buffer;  // the harness's reference; null once dropped
    const Buffer* address;
    ZelBuffer view;     // va, size, offset
    ZelBuffer* record;  // the pool's record, null for dummy buffers
    bool pooled;
    int fd;
    uint32_t touchable;  // bytes at va known to be backed by memory
    bool imported;
};

// An import source owned by the harness.
struct Source {
    int fd;
    uint32_t size;
};

bool SameView(const ZelBuffer& a, const ZelBuffer& b) {
    return a.va == b.va && a.size == b.size && a.offset == b.offset;
}

void Touch(const Tracked& t) {
    if (t.touchable == 0) return;
    volatile char* va = static_cast<char*>(t.view.va);
    va[0] = va[0];
    va[t.touchable - 1] = va[t.touchable - 1];
}

// The pooled buffer that a lookup by record finds: the lowest Buffer address with that view.
Tracked* FindPooled(std::vector<Tracked>& all, const ZelBuffer& view) {
    Tracked* found = nullptr;
    for (Tracked& t : all) {
        if (t.pooled && SameView(t.view, view) && (found == nullptr || t.address < found->address))
            found = &t;
    }
    return found;
}

uint32_t PickSize(FuzzedDataProvider& in, uint32_t around) {
    switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0:
            return in.ConsumeIntegralInRange<uint32_t>(0, around + 16);
        case 1:
            return in.ConsumeIntegral<uint32_t>();
        case 2:
            return UINT32_MAX - in.ConsumeIntegralInRange<uint32_t>(0, around + 16);
        default:
            return around;
    }
}

void Adopt(std::vector<Tracked>& all, MemoryManager& manager, Buffer::sptr buffer,
           uint32_t touchable, bool pooled, bool imported = false) {
    Tracked t{buffer,    buffer.get(), {buffer->va, buffer->size, buffer->offset},
              nullptr,   pooled,       buffer->fd,
              touchable, imported};
    if (pooled) {
        t.record = manager.get_user_raw_buffer(buffer);
        if (t.record == nullptr || !SameView(*t.record, t.view)) Fail("pooled record differs");
    }
    Touch(t);
    all.push_back(t);
}

void Run(FuzzedDataProvider& in) {
    std::vector<Source> sources;
    for (int i = in.ConsumeIntegralInRange(1, 3); i > 0; --i) {
        const uint32_t size = in.ConsumeIntegralInRange<uint32_t>(0, 3 * 4096);
        const uint8_t fill = in.ConsumeIntegral<uint8_t>();
        const int fd = zel_fuzz::MakeMemfd("zel_fuzz_src", &fill, 1, size);
        if (fd >= 0) sources.push_back({fd, size});
    }
    std::vector<char> own_memory(4096);
    std::vector<Tracked> all;
    std::vector<ZelBuffer*> stale;
    {
        MemoryManager manager;
        for (int op = 0; op < 64 && in.remaining_bytes() > 0; ++op) {
            switch (in.ConsumeIntegralInRange(0, 7)) {
                case 0: {  // create
                    static const uint32_t kTypes[] = {1, 1, 4, 5, 2, 0};
                    const uint32_t type = kTypes[in.ConsumeIntegralInRange(0, 5)];
                    const uint32_t size = in.ConsumeIntegralInRange<uint32_t>(0, 1 << 20);
                    Buffer::sptr buffer = manager.create_memory(static_cast<ZelMmType>(type), size,
                                                                in.ConsumeIntegral<uint8_t>() & 1);
                    if (buffer == nullptr) break;
                    if ((type != 1 && type != 4) || size == 0 || buffer->size != size)
                        Fail("create_memory succeeded for a request it cannot serve");
                    Adopt(all, manager, buffer, size, true);
                    break;
                }
                case 1: {  // import
                    int fd = -1;
                    uint32_t backed = 0;
                    const int pick = in.ConsumeIntegralInRange(0, 3);
                    if (pick == 0 && !sources.empty()) {
                        const Source& s =
                                sources[in.ConsumeIntegralInRange<size_t>(0, sources.size() - 1)];
                        fd = s.fd;
                        backed = s.size;
                    } else if (pick == 1 && !all.empty()) {
                        const Tracked& t =
                                all[in.ConsumeIntegralInRange<size_t>(0, all.size() - 1)];
                        if (t.buffer != nullptr) fd = t.fd;
                    } else if (pick == 2) {
                        fd = in.ConsumeIntegralInRange(-2, 64);
                    }
                    const uint32_t fd_size = PickSize(in, backed);
                    const uint32_t size = PickSize(in, fd_size);
                    const uint32_t offset = PickSize(in, fd_size - size);
                    Buffer::sptr buffer;
                    try {
                        buffer = manager.import_memory(fd, fd_size, size, offset);
                    } catch (const TalornNnException&) {
                        break;
                    }
                    if (buffer == nullptr) Fail("import_memory returned null without throwing");
                    if (static_cast<uint32_t>(size + offset) > fd_size || fd < 0)
                        Fail("import_memory accepted a range outside the descriptor");
                    // Only the harness's own sources are known to back the mapped range.
                    const uint64_t end = static_cast<uint64_t>(offset) + size;
                    const bool backed_range = pick == 0 && end <= backed && end <= fd_size;
                    Adopt(all, manager, buffer, backed_range ? size : 0, true, true);
                    break;
                }
                case 2: {  // dummy: the caller's own mapping, never pooled
                    const uint32_t size = PickSize(in, 64);
                    const uint32_t offset = PickSize(in, 64);
                    const uint32_t fd_size = PickSize(in, size + offset);
                    Buffer::sptr buffer =
                            manager.dummy_memory(in.ConsumeIntegralInRange(-1, 64), fd_size, size,
                                                 offset, own_memory.data());
                    if (buffer == nullptr) break;
                    const bool inside = static_cast<uint64_t>(offset) + size <= own_memory.size();
                    Adopt(all, manager, buffer, inside ? size : 0, false);
                    if (manager.get_user_raw_buffer(buffer) != nullptr)
                        Fail("dummy buffer found in the pool");
                    break;
                }
                case 3: {  // delete by record: the pool's, a copy, a stale one, or made up
                    ZelBuffer copy{};
                    ZelBuffer* record = nullptr;
                    const int pick = in.ConsumeIntegralInRange(0, 4);
                    if (pick <= 1 && !all.empty()) {
                        Tracked& t = all[in.ConsumeIntegralInRange<size_t>(0, all.size() - 1)];
                        copy = t.view;
                        record = pick == 0 && t.record != nullptr ? t.record : &copy;
                    } else if (pick == 2 && !stale.empty()) {
                        record = stale[in.ConsumeIntegralInRange<size_t>(0, stale.size() - 1)];
                    } else if (pick == 3) {
                        copy = {reinterpret_cast<void*>(in.ConsumeIntegral<uintptr_t>()),
                                in.ConsumeIntegral<uint32_t>(), in.ConsumeIntegral<uint32_t>()};
                        record = &copy;
                    }
                    const ZelBuffer asked = record != nullptr ? *record : ZelBuffer{};
                    Tracked* expected = record != nullptr ? FindPooled(all, asked) : nullptr;
                    const ZelReturn result = manager.delete_memory(record);
                    if ((result == 0) != (expected != nullptr))
                        Fail("delete by record mispredicted");
                    if (expected != nullptr) {
                        expected->pooled = false;
                        stale.push_back(expected->record);
                    }
                    break;
                }
                case 4: {  // delete by Buffer::sptr
                    if (all.empty() || in.ConsumeIntegralInRange(0, 7) == 0) {
                        if (manager.delete_memory(Buffer::sptr()) != 5) Fail("null sptr deleted");
                        break;
                    }
                    Tracked& t = all[in.ConsumeIntegralInRange<size_t>(0, all.size() - 1)];
                    if (t.buffer == nullptr) break;
                    if (manager.delete_memory(t.buffer) != 0) Fail("delete by sptr failed");
                    if (t.pooled) stale.push_back(t.record);
                    t.pooled = false;
                    break;
                }
                case 5: {  // lookups by sptr and by a copy of the record
                    if (all.empty()) break;
                    Tracked& t = all[in.ConsumeIntegralInRange<size_t>(0, all.size() - 1)];
                    ZelBuffer copy = t.view;
                    Tracked* found = FindPooled(all, copy);
                    Buffer::sptr by_record = manager.get_buffer(&copy);
                    if ((by_record != nullptr) != (found != nullptr) ||
                        (found != nullptr && by_record.get() != found->address))
                        Fail("get_buffer mispredicted");
                    if (manager.get_fd(&copy) != (found != nullptr ? found->fd : -1))
                        Fail("get_fd mispredicted");
                    if (t.buffer != nullptr) {
                        ZelBuffer* record = manager.get_user_raw_buffer(t.buffer);
                        if ((record != nullptr) != t.pooled)
                            Fail("get_user_raw_buffer mispredicted");
                    }
                    if (t.buffer != nullptr || t.pooled) Touch(t);
                    break;
                }
                case 6: {  // the caller lets go of its reference
                    if (all.empty()) break;
                    const size_t i = in.ConsumeIntegralInRange<size_t>(0, all.size() - 1);
                    all[i].buffer.reset();
                    if (!all[i].pooled) all.erase(all.begin() + static_cast<long>(i));
                    break;
                }
                default:
                    manager.to_string();
                    break;
            }
        }
        // An imported buffer's deleter calls back into the manager's importer, so the caller
        // must let go of imports first; allocated and dummy buffers may outlive the manager.
        for (Tracked& t : all) {
            if (t.imported) t.buffer.reset();
        }
    }
    all.clear();
    for (const Source& s : sources)
        close(s.fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    zel_fuzz::QuietLogs(in.ConsumeBool());
    const int fds = zel_test::CountOpenFds();
    const int mappings = zel_fuzz::MemfdMappingCount();
    Run(in);
    if (zel_test::CountOpenFds() != fds) Fail("descriptor left open");
    if (zel_fuzz::MemfdMappingCount() != mappings) Fail("mapping left behind");
    return 0;
}
