/*
 * Client-side profiler: records like any ZelProfiler and, once finalized, packs its raw data into
 * a cached dmabuf buffer whose descriptor the client hands to the service process.
 *
 * Profile memory layout (little-endian), exactly 24 + raw-data size bytes:
 *   0  u64 model_id   the profiler's key
 *   8  u64 num_label  records per iteration
 *  16  u64 num_iter   iterations
 *  24  raw data       the finalized ZelProfileData array, byte for byte
 */
#pragma once

#include <cstdint>

#include "src/common/zel_memory/buffer.h"
#include "util/zel_utils_profiler.h"

namespace zel {
namespace util {

// Byte size of the header in front of the raw data in client profile memory.
constexpr uint64_t kClientProfileHeaderSize = 24;

// The header in front of the raw data in client profile memory.
struct ClientProfileHeader {
    uint64_t model_id;
    uint64_t num_label;
    uint64_t num_iter;
};
static_assert(sizeof(ClientProfileHeader) == kClientProfileHeaderSize, "header is 24 bytes");

class ZelClientProfiler : public ZelProfiler {
  public:
    // Null until fill_profile_mem_to_send_service has packed the data; callers get extra
    // references, the buffer lives until the last one goes.
    zel::memory::Buffer::sptr profile_memory;

    // A profiler named "Client".
    ZelClientProfiler(ProfilerKeyType key, uint64_t maxIter, bool fastTrack);
    ~ZelClientProfiler() override;

    // Packs header and raw data into a new cached device buffer and returns it. Call it on a
    // finalized profiler. Packing happens once: a second call warns and returns null. Throws
    // std::runtime_error("Fail to alloc profile mem\n") when no buffer can be had.
    zel::memory::Buffer::sptr fill_profile_mem_to_send_service();
};

}  // namespace util
}  // namespace zel
