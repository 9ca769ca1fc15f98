// Client profiler: packs the finalized raw data into shared memory for the service process.
#include <cstring>
#include <limits>
#include <stdexcept>

#include "src/common/zel_memory/memory_manager.h"
#include "util/profiler/internal.h"
#include "util/zel_utils_profiler_client.h"

namespace zel {
namespace util {

ZelClientProfiler::ZelClientProfiler(ProfilerKeyType key, uint64_t maxIter, bool fastTrack)
    : ZelProfiler(key, maxIter, "Client", fastTrack), profile_memory(nullptr) {}

ZelClientProfiler::~ZelClientProfiler() {
    profile_memory.reset();
}

Buffer::sptr ZelClientProfiler::fill_profile_mem_to_send_service() {
    if (profile_memory != nullptr) {
        ZEL_LOG(ZONE_WAR, PRINT_IF_ON, "  ClientProfiler mem is already processed\n");
        return nullptr;
    }
    // The buffer size travels as 32 bits, and raw data claimed without an array behind it
    // cannot be copied.
    if (rawdata_size > std::numeric_limits<uint32_t>::max() - kClientProfileHeaderSize ||
        (rawdata == nullptr && rawdata_size != 0)) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Cannot pack rawdata(%p) size(%lu) to send service\n",
                static_cast<void*>(rawdata), rawdata_size);
        return nullptr;
    }
    const uint64_t size = rawdata_size + kClientProfileHeaderSize;
    profile_memory = memory_manager->create_memory(zel::memory::ZEL_MM_DEVICE_BUFFER,
                                                   static_cast<uint32_t>(size), 1);
    if (profile_memory == nullptr) throw std::runtime_error("Fail to alloc profile mem\n");

    const ClientProfileHeader header{key, num_label, num_iter};
    auto* dst = static_cast<uint8_t*>(profile_memory->va);
    memcpy(dst, &header, sizeof(header));
    ZEL_LOG(ZONE_INF, PRINT_ALWAYS,
            "* Data to Service : model_id(0x%lx) num_label(%lu) num_iter(%lu) size(%zu)\n",
            header.model_id, header.num_label, header.num_iter, static_cast<size_t>(size));
    if (rawdata_size != 0) memcpy(dst + kClientProfileHeaderSize, rawdata, rawdata_size);
    return profile_memory;
}

}  // namespace util
}  // namespace zel
