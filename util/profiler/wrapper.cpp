// The profiling facade: mode, label mask, print flags, the profiler registry and recording.
#include <cutils/properties.h>

#include <memory>
#include <string>

#include "util/profiler/internal.h"
#include "util/zel_utils_profiler_wrapper.h"

namespace zel {
namespace util {

uint64_t ZelProfilerWrapper::mode_ = 0;
uint64_t ZelProfilerWrapper::labelMask_ = 0;
uint64_t ZelProfilerWrapper::maxIter_ = 50000;
bool ZelProfilerWrapper::fastTrack_ = false;
bool ZelProfilerWrapper::printFlagClient_ = false;
bool ZelProfilerWrapper::printFlagService_ = false;
bool ZelProfilerWrapper::printFlagDevice_ = false;
std::map<ProfilerKeyType, ZelProfiler*> ZelProfilerWrapper::profilerMap_;
std::map<ProfilerKeyType, std::shared_ptr<ZelProfiler>> ZelProfilerWrapper::deviceProfilerMap_;

// The client has no detail labels of its own, hence two equal lists.
std::vector<ProfileLabel> ZelProfilerWrapper::overview_labels_client = {API, CLIENT};
std::vector<ProfileLabel> ZelProfilerWrapper::detail_labels_client = {API, CLIENT};
std::vector<ProfileLabel> ZelProfilerWrapper::overview_labels_service = {
        SERVICE, ENGINE, CPU_UD, NPU_UD, DSP_UD, GPU_UD, DD};
std::vector<ProfileLabel> ZelProfilerWrapper::detail_labels_service = {
        SERVICE, ENGINE, CPU_UD, CPU_KERNEL, NPU_UD,     NPU_OP,
        DSP_UD,  DSP_OP, GPU_UD, UNIFIED_UD, GPU_KERNEL, DD};

namespace {

// Label numbers come from callers of the facade; keep a negative one away from the name table.
const char* name_of(ProfileLabel label) {
    return label < 0 ? "INVALID" : ZelProfiler::labelToString(label);
}

// Reads an unsigned setting from a property into `value`; absent (negative) or zero leaves it.
// Returns whether the value was stored.
bool read_property(const std::string& name, uint64_t* value) {
    const int64_t read = property_get_int64(name.c_str(), -1);
    if (read < 0) {
        ZEL_LOG(ZONE_INF, PRINT_TRACE, "* No value for (%s). Skip.\n", name.c_str());
        return false;
    }
    if (read == 0) return false;
    *value = static_cast<uint64_t>(read);
    return true;
}

}  // namespace

void ZelProfilerWrapper::initialize(uint64_t mode, uint64_t max_iter) {
    static const std::string mode_property = "vendor.property.for.talorn.nn.profile.mode";
    static const std::string max_iter_property = "vendor.property.for.talorn.nn.profile.max_iter";
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  mode(0x%lx) max_iter(%lu)\n", mode, max_iter);

    bool stored = mode != 0;
    if (stored) {
        mode_ = mode;
    } else {
        stored = read_property(mode_property, &mode_);
    }
    if (stored) ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "* Profiler mode value updated. (0x%lx)\n", mode_);

    stored = max_iter != 0;
    if (stored) {
        maxIter_ = max_iter;
    } else {
        stored = read_property(max_iter_property, &maxIter_);
    }
    if (stored) {
        ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "* Profiler max_iter value updated. (%lu)\n", maxIter_);
    }

    initialize_labelmask();
    initialize_print_flag();
    if (mode_ & PROFILE_FASTTRACK) fastTrack_ = true;
}

bool ZelProfilerWrapper::is_mode_on() {
    const bool on = (mode_ & PROFILE_ON) != 0;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Profiler PROFILE_ON flag(%d)\n", static_cast<int>(on));
    return on;
}

bool ZelProfilerWrapper::is_mode_detail() {
    const bool on = (mode_ & PROFILE_DETAIL) != 0;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Profiler PROFILE_DETAIL flag(%d)\n", static_cast<int>(on));
    return on;
}

bool ZelProfilerWrapper::is_mode_skip_client() {
    const bool on = (mode_ & PROFILE_SKIP_CLIENT) != 0;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Profiler PROFILE_SKIP_CLIENT flag(%d)\n",
            static_cast<int>(on));
    return on;
}

bool ZelProfilerWrapper::is_mode_skip_service() {
    const bool on = (mode_ & PROFILE_SKIP_SERVICE) != 0;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Profiler PROFILE_SKIP_SERVICE flag(%d)\n",
            static_cast<int>(on));
    return on;
}

bool ZelProfilerWrapper::is_mode_skip_dd() {
    const bool on = (mode_ & PROFILE_SKIP_DD) != 0;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Profiler PROFILE_SKIP_DD flag(%d)\n", static_cast<int>(on));
    return on;
}

bool ZelProfilerWrapper::is_mode_fasttrack() {
    const bool on = (mode_ & PROFILE_FASTTRACK) != 0;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Profiler PROFILE_FASTTRACK flag(%d)\n", static_cast<int>(on));
    return on;
}

bool ZelProfilerWrapper::get_profiler_flag() {
    const bool on = is_mode_on();
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  mode(0x%lx) --> %d\n", mode_, static_cast<int>(on));
    return on;
}

bool ZelProfilerWrapper::get_profiler_detail_flag() {
    const bool on = is_mode_detail();
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  mode(0x%lx) --> %d\n", mode_, static_cast<int>(on));
    return on;
}

void ZelProfilerWrapper::initialize_labelmask() {
    const bool detail = (mode_ & PROFILE_DETAIL) != 0;
    if (!(mode_ & PROFILE_SKIP_CLIENT)) {
        for (ProfileLabel label : detail ? detail_labels_client : overview_labels_client)
            labelMask_ |= uint64_t{1} << label;
    }
    if (!(mode_ & PROFILE_SKIP_SERVICE)) {
        for (ProfileLabel label : detail ? detail_labels_service : overview_labels_service)
            labelMask_ |= uint64_t{1} << label;
    }
}

void ZelProfilerWrapper::initialize_print_flag() {
    if (mode_ & PROFILE_SKIP_SERVICE) {
        // Nothing is merged into the service: each side that takes part prints its own data.
        if (!(mode_ & PROFILE_SKIP_CLIENT)) printFlagClient_ = true;
        if (!(mode_ & PROFILE_SKIP_DD)) printFlagDevice_ = true;
    } else if ((mode_ & PROFILE_SKIP_CLIENT) && (mode_ & PROFILE_SKIP_DD)) {
        // Otherwise the service prints once a merge has brought the other sides in.
        printFlagService_ = true;
    }
}

bool ZelProfilerWrapper::is_label_enabled(ProfileLabel label) {
    // A number outside the mask's 64 bits is no recorded label (and no valid shift).
    if (label < 0 || label >= 64) return false;
    return (labelMask_ >> label) & 1;
}

void ZelProfilerWrapper::create_profiler(ProfilerKeyType modelId) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  modelId(%lu) mode(0x%lx)\n", modelId, mode_);
    if (!(mode_ & PROFILE_ON)) return;
    auto profiler = std::make_unique<ZelProfiler>(modelId, maxIter_, "service", fastTrack_);
    profiler->show_flag = printFlagService_;
    // An existing entry is kept; the new profiler then goes unused.
    if (profilerMap_.emplace(modelId, profiler.get()).second) profiler.release();
}

void ZelProfilerWrapper::create_profiler_client(ProfilerKeyType modelId) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  modelId(0x%lx) mode(0x%lx)\n", modelId, mode_);
    if (!(mode_ & PROFILE_ON)) return;
    auto profiler = std::make_unique<ZelClientProfiler>(modelId, maxIter_, fastTrack_);
    profiler->show_flag = printFlagClient_;
    if (profilerMap_.emplace(modelId, profiler.get()).second) profiler.release();
}

void ZelProfilerWrapper::set_profiler_show_flag(ProfilerKeyType modelId, bool show) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  modelId(0x%lx) show(%d) mode(0x%lx)\n", modelId,
            static_cast<int>(show), mode_);
    if (!(mode_ & PROFILE_ON)) return;
    auto found = profilerMap_.find(modelId);
    if (found == profilerMap_.end()) {
        ZEL_LOG(ZONE_WAR, PRINT_IF_ON, "  No profiler to set show flag.");
        return;
    }
    found->second->show_flag = show;
}

void ZelProfilerWrapper::remove_profiler(ProfilerKeyType modelId) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  modelId:(0x%lx) mode(0x%lx)\n", modelId, mode_);
    if (!(mode_ & PROFILE_ON)) return;
    auto found = profilerMap_.find(modelId);
    if (found == profilerMap_.end()) {
        ZEL_LOG(ZONE_WAR, PRINT_IF_ON, "  No profiler to remove.");
        return;
    }
    // Out of the registry first; owned here from now on, also when finalize or the report
    // throws.
    std::unique_ptr<ZelProfiler> profiler(found->second);
    profilerMap_.erase(found);
    if (profiler->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to finalize at cleanup.");
        return;
    }
    profiler->show_output(false);
}

ZelProfiler* ZelProfilerWrapper::registered(ProfilerKeyType modelId) {
    auto found = profilerMap_.find(modelId);
    if (found != profilerMap_.end()) return found->second;
    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No profiler registered for modelId(0x%lx)\n", modelId);
    return nullptr;
}

void ZelProfilerWrapper::profile_from(ProfilerKeyType modelId, ProfilerLabelType label,
                                      ProfilerKeyType postfix, ProfilerKeyType iterKey) {
    if (!(mode_ & PROFILE_ON)) return;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  label(%s)\n", name_of(label));
    if (!is_label_enabled(label)) return;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE,
            "  FROM  : modelId(%lu)  label(%s)  postfix(%lu)  iterKey(%lu)  mode(0x%lx) "
            "labelMask(0x%lx)\n",
            modelId, name_of(label), postfix, iterKey, mode_, labelMask_);
    ZelProfiler* profiler = registered(modelId);
    if (profiler != nullptr) profiler->add_record_start(label, postfix, iterKey);
}

void ZelProfilerWrapper::profile_until(ProfilerKeyType modelId, ProfilerLabelType label,
                                       ProfilerKeyType postfix, ProfilerKeyType iterKey) {
    if (!(mode_ & PROFILE_ON)) return;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  label(%s)\n", name_of(label));
    if (!is_label_enabled(label)) return;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE,
            "  UNTIL  : modelId(%lu)  label(%s)  postfix(%lu)  iterKey(%lu)  mode(0x%lx) "
            "labelMask(0x%lx)\n",
            modelId, name_of(label), postfix, iterKey, mode_, labelMask_);
    ZelProfiler* profiler = registered(modelId);
    if (profiler != nullptr) profiler->add_record_end(label, postfix, iterKey);
}

uint64_t ZelProfilerWrapper::get_profiler_iteration(ProfilerKeyType modelId) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  modelId(0x%lx) mode(0x%lx)\n", modelId, mode_);
    if (!(mode_ & PROFILE_ON)) return 0;
    ZelProfiler* profiler = registered(modelId);
    if (profiler == nullptr) return 0;
    if (profiler->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to finalize for get_profiler_iteration\n");
        return 0;
    }
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  iteration:%lu\n", profiler->num_iter);
    return profiler->num_iter;
}

uint64_t ZelProfilerWrapper::get_profiler_num_label(ProfilerKeyType modelId) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  modelId(0x%lx) mode(0x%lx)\n", modelId, mode_);
    if (!(mode_ & PROFILE_ON)) return 0;
    ZelProfiler* profiler = registered(modelId);
    if (profiler == nullptr) return 0;
    if (profiler->finalize() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to finalize for get_profiler_num_label\n");
        return 0;
    }
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  num_label:%lu\n", profiler->num_label);
    return profiler->num_label;
}

}  // namespace util
}  // namespace zel
