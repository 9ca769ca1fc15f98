/*
 * ZelProfilerWrapper: the static facade through which the runtime drives profiling.
 *
 * It reads the profiling mode once (initialize), keeps every client and service profiler of the
 * process by model id and every device profiler by operation id, records stage start/end points
 * into the right profiler, and carries profiles across the runtime's boundaries: client to
 * service as shared memory or a raw-data file, device driver to service through the device
 * buffer, and out to a file. Whichever profiler is finally removed prints its report.
 *
 * Every operation returns at once (0, false, "", null) unless PROFILE_ON is set, so a process
 * with profiling off pays one test per call.
 *
 * Usual order in a process: initialize; create_profiler (service) or create_profiler_client
 * (client) per model; profile_from / profile_until pairs while the model runs; on the client
 * get_client_profiler_mem (or export_rawdata_to_file); on the service
 * merge_rawdata_mem_to_profiler (or ..._file_...) with it, create_device_profiler before and
 * merge_device_profiler_to_main_profiler after each device operation; finally remove_profiler.
 *
 * No lock is taken: set-up, creation, merging and removal must be serialised by the caller.
 * Recording may run on several threads for registered profilers (unless PROFILE_FASTTRACK), but
 * never overlapping creation or removal.
 */
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "debug/zel_debug.h"
#include "src/common/zel_memory/buffer.h"
#include "util/zel_utils_profiler.h"
#include "util/zel_utils_profiler_client.h"
#include "util/zel_utils_profiler_device.h"

namespace zel {
namespace util {

// Bits of the profiling mode word. Every bit but PROFILE_ON is ignored while PROFILE_ON is clear.
constexpr uint64_t PROFILE_ON = 0x1;
constexpr uint64_t PROFILE_DETAIL = 0x2;        // detail label lists, detail device labels
constexpr uint64_t PROFILE_SKIP_CLIENT = 0x4;   // client records nothing, sends nothing
constexpr uint64_t PROFILE_SKIP_SERVICE = 0x8;  // service records nothing, merges nothing
constexpr uint64_t PROFILE_SKIP_DD = 0x10;      // no device profilers
constexpr uint64_t PROFILE_FASTTRACK = 0x40;    // recording without locks

// What the device driver gets for one device profile: where and how to write its timings.
struct DeviceProfileInfo {
    uint8_t enable;         // 1
    uint8_t detail;         // 1 when the detail label sets are in use
    int32_t fd;             // descriptor of the device buffer
    uint64_t size;          // byte size of the device buffer
    uint64_t max_iter;      // iterations the buffer has room for
    uint64_t split_offset;  // byte offset of the FW area from the start of the DD area
    void* va;               // the buffer's address in the calling process
};

class ZelProfilerWrapper {
  public:
    ZelProfilerWrapper() = delete;

    static uint64_t mode_;
    static uint64_t labelMask_;  // bit n set: label n is recorded
    static uint64_t maxIter_;    // iteration limit of every profiler made here
    static bool fastTrack_;
    static bool printFlagClient_;   // initial show flag of client profilers
    static bool printFlagService_;  // initial show flag of service profilers
    static bool printFlagDevice_;   // initial show flag of device profilers
    static std::map<ProfilerKeyType, ZelProfiler*> profilerMap_;  // by model id; owned
    static std::map<ProfilerKeyType, std::shared_ptr<ZelProfiler>> deviceProfilerMap_;  // by op

    static std::vector<ProfileLabel> overview_labels_client;
    static std::vector<ProfileLabel> detail_labels_client;
    static std::vector<ProfileLabel> overview_labels_service;
    static std::vector<ProfileLabel> detail_labels_service;

    // --- mode

    // Sets the mode and iteration limit from the arguments, or, where an argument is 0, from the
    // properties "vendor.property.for.talorn.nn.profile.mode" / "...profile.max_iter"; then the
    // label mask, print flags and fast track. Never clears: a second call only adds.
    static void initialize(uint64_t mode, uint64_t max_iter);
    static bool is_mode_on();
    static bool is_mode_detail();
    static bool is_mode_skip_client();
    static bool is_mode_skip_service();
    static bool is_mode_skip_dd();
    static bool is_mode_fasttrack();
    static bool get_profiler_flag();
    static bool get_profiler_detail_flag();
    static void initialize_labelmask();
    // Which side prints the final report, given which sides take part.
    static void initialize_print_flag();
    static bool is_label_enabled(ProfileLabel label);

    // --- registry and recording

    // Registers a "service" profiler for the model; an existing entry is kept.
    static void create_profiler(ProfilerKeyType modelId);
    // Registers a client profiler for the model; an existing entry is kept.
    static void create_profiler_client(ProfilerKeyType modelId);
    static void set_profiler_show_flag(ProfilerKeyType modelId, bool show);
    // Unregisters, finalizes, prints (when its show flag is set) and deletes the profiler.
    static void remove_profiler(ProfilerKeyType modelId);
    // Start / end record of `label` when the label mask holds it.
    static void profile_from(ProfilerKeyType modelId, ProfilerLabelType label,
                             ProfilerKeyType postfix, ProfilerKeyType iterKey);
    static void profile_until(ProfilerKeyType modelId, ProfilerLabelType label,
                              ProfilerKeyType postfix, ProfilerKeyType iterKey);
    // Complete iterations / records per iteration of the finalized profiler; 0 on failure.
    static uint64_t get_profiler_iteration(ProfilerKeyType modelId);
    static uint64_t get_profiler_num_label(ProfilerKeyType modelId);

    // --- hand-over between client, service and device driver

    // Finalizes the model's profiler and writes its raw data to
    // "/data/vendor/zel/profile_rawdata_<key>.bin"; the path, or "" on failure.
    static std::string export_rawdata_to_file(ProfilerKeyType key);
    // Finalizes the model's client profiler and packs it into shared memory for the service
    // (see zel_utils_profiler_client.h); null when off, skipped or on failure.
    static zel::memory::Buffer::sptr get_client_profiler_mem(ProfilerKeyType modelId);
    // Rebuilds the client's profile from `size` bytes of raw data (copied) and merges the
    // service's profile under its CLIENT stage. 0 or 1.
    static ZelReturn merge_rawdata_mem_to_profiler(ProfilerKeyType modelId, void* mem, int size,
                                                   int numIter, int numLabel);
    // The same from a raw-data file.
    static ZelReturn merge_rawdata_file_to_profiler(ProfilerKeyType modelId, const char* path,
                                                    int numIter, int numLabel);
    // Docks the model's service profiler under the client's (CLIENT, 0) stage; on success the
    // client's profiler replaces the service's in the registry and is taken over. 0 or 1; on
    // failure nothing changes and the profiler stays the caller's.
    static ZelReturn merge_client_service_profilers(ProfilerKeyType modelId,
                                                    ZelProfiler* profilerFromClient);
    // Makes and registers the device profiler of an operation and describes its buffer in
    // `info` for the driver. Throws std::runtime_error when the profiler cannot be made.
    static void create_device_profiler(ProfilerKeyType modelId, ProfilerKeyType opId,
                                       DeviceProfileInfo& info);
    // Converts what the driver wrote for the operation and docks it under the model's
    // (DD, opId) stage; the device profiler is dropped. Throws std::runtime_error
    // ("finalize fail\n") when the merge itself fails.
    static void merge_device_profiler_to_main_profiler(ProfilerKeyType modelId,
                                                       ProfilerKeyType opId);

  private:
    // The model's registered profiler, or null with a "* " line when there is none.
    static ZelProfiler* registered(ProfilerKeyType modelId);
};

}  // namespace util
}  // namespace zel
