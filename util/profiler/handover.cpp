// Hand-over of profiles between client, service and device driver: raw-data files, client
// profile memory, and the merges that dock one profile under a stage of another.
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "util/profiler/internal.h"
#include "util/zel_utils_profiler_wrapper.h"

namespace zel {
namespace util {

std::string ZelProfilerWrapper::export_rawdata_to_file(ProfilerKeyType key) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  key(0x%lx) mode(0x%lx)\n", key, mode_);
    if (!(mode_ & PROFILE_ON)) return "";
    ZelProfiler* profiler = registered(key);
    if (profiler == nullptr) return "";
    if (profiler->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to finalize for export to file\n");
        return "";
    }
    return profiler->export_rawdata_to_file();
}

Buffer::sptr ZelProfilerWrapper::get_client_profiler_mem(ProfilerKeyType modelId) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  modelId(0x%lx) mode(0x%lx)\n", modelId, mode_);
    // Skipped service: nobody would take the data.
    if (!(mode_ & PROFILE_ON) || (mode_ & PROFILE_SKIP_CLIENT) || (mode_ & PROFILE_SKIP_SERVICE)) {
        return nullptr;
    }
    ZelProfiler* profiler = registered(modelId);
    if (profiler == nullptr) return nullptr;
    auto* client = dynamic_cast<ZelClientProfiler*>(profiler);
    if (client == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* modelId(0x%lx) is not a client profiler\n", modelId);
        return nullptr;
    }
    if (client->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to finailize for getting profile mem\n");
        return nullptr;
    }
    return client->fill_profile_mem_to_send_service();
}

ZelReturn ZelProfilerWrapper::merge_rawdata_mem_to_profiler(ProfilerKeyType modelId, void* mem,
                                                            int size, int numIter, int numLabel) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  merge mem : modelId(0x%lx) mode(0x%lx)\n", modelId, mode_);
    if (!(mode_ & PROFILE_ON)) return 0;
    // Sign extension as the counts are widened; the memory comes from the client process, so
    // counts that do not fit its size are refused before anything reads by them.
    const auto iterations = static_cast<uint64_t>(static_cast<int64_t>(numIter));
    const auto labels = static_cast<uint64_t>(static_cast<int64_t>(numLabel));
    if (size < 0 ||
        !profiler_internal::counts_fit(iterations, labels, static_cast<uint64_t>(size))) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                "* Client profile counts disagree with its size. size(%d) num_iter(%d) "
                "num_label(%d)\n",
                size, numIter, numLabel);
        return 1;
    }
    auto client = std::make_unique<ZelProfiler>(modelId, mem, static_cast<uint64_t>(size), maxIter_,
                                                iterations, labels);
    const ZelReturn merged = merge_client_service_profilers(modelId, client.get());
    // On success the registry owns it; on failure nobody else can reach it.
    if (merged == 0) client.release();
    return merged;
}

ZelReturn ZelProfilerWrapper::merge_rawdata_file_to_profiler(ProfilerKeyType modelId,
                                                             const char* path, int numIter,
                                                             int numLabel) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  merge file: modelId(0x%lx) mode(0x%lx)\n", modelId, mode_);
    if (!(mode_ & PROFILE_ON)) return 0;
    auto client = std::make_unique<ZelProfiler>(
            modelId, path, maxIter_, static_cast<uint64_t>(static_cast<int64_t>(numIter)),
            static_cast<uint64_t>(static_cast<int64_t>(numLabel)));
    const ZelReturn merged = merge_client_service_profilers(modelId, client.get());
    if (merged == 0) client.release();
    return merged;
}

ZelReturn ZelProfilerWrapper::merge_client_service_profilers(ProfilerKeyType modelId,
                                                             ZelProfiler* profilerFromClient) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  modelId(0x%lx) mode(0x%lx)\n", modelId, mode_);
    // The service's stages go under the client's CLIENT stage.
    profilerFromClient->set_leaf_docking_point({CLIENT, 0});
    if (profilerFromClient->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to finalize profilerFromClient at merge stage\n");
        return 1;
    }
    ZelProfiler* service = registered(modelId);
    if (service == nullptr) return 1;
    if (service->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to finalize serviceProfiler at merge stage\n");
        return 1;
    }
    if (profilerFromClient->merge(service) != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to merge profiler\n");
        return 1;
    }
    if (profilerFromClient->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                "* Fail to finalize merged(Client+Service) at merge stage\n");
        return 1;
    }
    profilerFromClient->show_flag = true;
    delete service;
    profilerMap_.erase(modelId);
    profilerMap_.emplace(modelId, profilerFromClient);
    return 0;
}

void ZelProfilerWrapper::create_device_profiler(ProfilerKeyType modelId, ProfilerKeyType opId,
                                                DeviceProfileInfo& info) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  modelId(0x%lx) opId(0x%lx)  mode(0x%lx)\n", modelId, opId,
            mode_);
    if (!(mode_ & PROFILE_ON) || (mode_ & PROFILE_SKIP_DD)) return;
    const bool detail = (mode_ & PROFILE_DETAIL) != 0;
    auto profiler = std::make_shared<ZelDeviceProfiler>(opId, maxIter_, detail);
    info.enable = 1;
    info.detail = detail ? 1 : 0;
    info.fd = profiler->device_memory->fd;
    info.size = profiler->device_memory->size;
    info.max_iter = maxIter_;
    info.split_offset = static_cast<uint32_t>(profiler->split_offset_);
    info.va = profiler->device_memory->va;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  devProfiler(%p)\n", static_cast<void*>(profiler.get()));
    // An existing entry is kept; the new profiler then goes with its last reference.
    deviceProfilerMap_.emplace(opId, profiler);
    profiler->show_flag = printFlagDevice_;
}

void ZelProfilerWrapper::merge_device_profiler_to_main_profiler(ProfilerKeyType modelId,
                                                                ProfilerKeyType opId) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  modelId(0x%lx) opId(0x%lx)  mode(0x%lx)\n", modelId, opId,
            mode_);
    if (!(mode_ & PROFILE_ON) || (mode_ & PROFILE_SKIP_DD)) return;
    auto found = deviceProfilerMap_.find(opId);
    if (found == deviceProfilerMap_.end()) {
        ZEL_LOG(ZONE_WAR, PRINT_IF_ON, "  No device profiler with id(0x%lx)", opId);
        return;
    }
    std::shared_ptr<ZelProfiler> device = found->second;
    // The result is not needed here: a conversion that failed leaves nothing to finalize, and
    // the merge below refuses such a profile.
    static_cast<ZelDeviceProfiler*>(device.get())->preprocess_device_data_to_rawdata();
    if (device->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to finalize device profiler\n");
        return;
    }
    device->show_output(false);
    deviceProfilerMap_.erase(opId);

    if (mode_ & PROFILE_SKIP_SERVICE) {
        ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                "  Skip merging device-service profiler due to skip service mode\n");
        return;
    }
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Merge device-service profiler.\n");
    auto parent_entry = profilerMap_.find(modelId);
    if (parent_entry == profilerMap_.end()) {
        ZEL_LOG(ZONE_WAR, PRINT_IF_ON, "  No parent profiler with id(0x%lx)", modelId);
        return;
    }
    ZelProfiler* parent = parent_entry->second;
    if (parent->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to finalize parent(main) profiler\n");
        return;
    }
    parent->set_leaf_docking_point({DD, device->key});
    // A device profile that could not be converted (or is empty) fails here like any other
    // merge, and the caller hears of it.
    if (parent->merge(device.get()) != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to merge child(0x%lx\n", device->key);
        throw std::runtime_error("finalize fail\n");
    }
    if (parent->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to finalize merged(main+device) profiler\n");
        return;
    }
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  + Show device-service profile output\n");
    parent->show_flag = true;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  - Show device-service profile output\n");
}

}  // namespace util
}  // namespace zel
