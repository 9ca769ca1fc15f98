// ZelProfiler construction, stage nodes and the recording path.
#include <cutils/trace.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "src/common/zel_memory/memory_manager.h"
#include "util/profiler/internal.h"
#include "util/zel_utils.h"
#include "util/zel_utils_profiler.h"

namespace zel {
namespace util {

namespace {

const char* const kLabelNames[] = {
        "TOTAL",      "DD_ROOT",    "DD_QUEUE", "DD_SESSION",       "DD_FW_IF", "FW",
        "HW",         "HW_NPU0",    "HW_NPU1",  "HW_NPU01_OVERLAP", "HW_DSP",   "",
        "UNIFIED_UD", "NPU_UD",     "NPU_OP",   "DSP_UD",           "DSP_OP",   "DD",
        "CPU_UD",     "CPU_KERNEL", "GPU_UD",   "GPU_KERNEL",       "ENGINE",   "SERVICE",
        "CLIENT",     "API",
};
static_assert(sizeof(kLabelNames) / sizeof(kLabelNames[0]) == kProfileLabelNone,
              "one name per label");

inline uint64_t now_us() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                         std::chrono::system_clock::now().time_since_epoch())
                                         .count());
}

// Out of line, so that the record path below carries none of the logging.
__attribute__((noinline, cold)) bool RefuseRecord(ProfilerLabelType label) {
    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Cannot add new profile data after finalized. label(%ld)\n",
            static_cast<long>(label));
    return false;
}

// The measured path: one clock reading and one append, under the queue's lock unless the
// profiler records from a single thread (fast track). False when the record is refused.
bool QueueRecord(ZelProfiler& profiler, ProfileRecordType type, ProfilerLabelType label,
                 ProfilerKeyType labelPostfix, ProfilerKeyType iterKey) {
    if (CC_UNLIKELY(profiler.finalized)) return RefuseRecord(label);
    // One append site for both modes, so that the compiler inlines the queue's fast path.
    std::unique_lock<std::mutex> lock(profiler.queue_mutex, std::defer_lock);
    if (!profiler.fastTrack) lock.lock();
    profiler.queue.push_back({type, label, labelPostfix, iterKey, now_us()});
    return true;
}

uint64_t Mix(uint64_t x) {
    x ^= x >> 30;
    x *= 0xbf58476d1ce4e5b9ULL;
    x ^= x >> 27;
    x *= 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

// Every accepted record is also a section of the system trace while its NNAPI category is on, so
// that the stages line up with the scheduler, the clocks and the driver in one timeline. Async
// sections, because a stage may end on another thread than the one that began it. The name is
// the stage as the reports print it; the cookie pairs a start with its end and keeps stages that
// are open at the same time apart. Kept out of line: the record path only tests the category.
__attribute__((noinline, cold)) void EmitSection(ProfileRecordType type, ProfilerLabelType label,
                                                 ProfilerKeyType labelPostfix,
                                                 ProfilerKeyType iterKey) {
    char name[64];
    const char* stage = ZelProfiler::labelToString(label);
    if (labelPostfix != 0) {
        snprintf(name, sizeof(name), "%s_0x%lx", stage, labelPostfix);
    } else {
        snprintf(name, sizeof(name), "%s", stage);
    }
    const uint64_t hash = Mix(
            Mix(Mix(static_cast<uint64_t>(static_cast<uint32_t>(label))) ^ labelPostfix) ^ iterKey);
    const auto cookie = static_cast<int32_t>(static_cast<uint32_t>(hash ^ (hash >> 32)));
    if (type == START) {
        atrace_async_begin(ATRACE_TAG_NNAPI, name, cookie);
    } else {
        atrace_async_end(ATRACE_TAG_NNAPI, name, cookie);
    }
}

// A build with ZEL_PROFILER_SYSTEM_TRACE set to 0 leaves the category test out of the record
// path; the record benchmark loads such a build beside the library as its baseline.
#ifndef ZEL_PROFILER_SYSTEM_TRACE
#define ZEL_PROFILER_SYSTEM_TRACE 1
#endif

// With the category off this costs one read of the enabled tags.
inline void TraceRecord(ProfileRecordType type, ProfilerLabelType label,
                        ProfilerKeyType labelPostfix, ProfilerKeyType iterKey) {
    if (ZEL_PROFILER_SYSTEM_TRACE && CC_UNLIKELY(atrace_is_tag_enabled(ATRACE_TAG_NNAPI)))
        EmitSection(type, label, labelPostfix, iterKey);
}

}  // namespace

ProfileNode::ProfileNode(int num_iter)
    : start_idx(0),
      end_idx(0),
      label(TOTAL),
      labelPostfix(0),
      start_time(num_iter, 0),
      end_time(num_iter, 0),
      duration(num_iter, 0),
      self_time(num_iter, 0),
      reserved(0) {}

ProfileNode::~ProfileNode() {
    // A chain of nested nodes would otherwise be released by one destructor call per level: the
    // walk empties the deepest nodes first, so each release below finds nothing left to release.
    // Nodes that someone else still holds are left to their other owners.
    if (children.empty()) return;
    profiler_internal::walk_tree(
            this, 0,
            [](profiler_internal::TreeWalk::Frame&, profiler_internal::TreeWalk::Frame* parent) {
                if (parent == nullptr) return profiler_internal::Visit::kInto;
                const auto& owner = parent->node->children[parent->next_child - 1];
                return owner.use_count() == 1 ? profiler_internal::Visit::kInto
                                              : profiler_internal::Visit::kOver;
            },
            [](profiler_internal::TreeWalk::Frame& frame, profiler_internal::TreeWalk::Frame*) {
                frame.node->children.clear();
            });
}

ZelProfiler::ZelProfiler(ProfilerKeyType key, uint64_t maxIter, std::string name, bool fastTrack)
    : maxIter(maxIter),
      num_label(0),
      num_iter(0),
      rawdata(nullptr),
      rawdata_size(0),
      finalized(false),
      leaf_docking_point(TOTAL, 0),
      fastTrack(fastTrack),
      show_flag(false),
      relative_timestamp(false),
      name(std::move(name)),
      key(key) {
    CreateMemoryManager();
}

ZelProfiler::ZelProfiler(ProfilerKeyType key, void* rawdata_mem, uint64_t size, uint64_t maxIter,
                         uint64_t numIter, uint64_t numLabel)
    : maxIter(maxIter),
      num_label(numLabel),
      num_iter(numIter),
      rawdata(nullptr),
      rawdata_size(size),
      finalized(false),
      leaf_docking_point(TOTAL, 0),
      fastTrack(false),
      show_flag(false),
      relative_timestamp(false),
      name("default"),
      key(key) {
    ZEL_LOG(ZONE_INF, PRINT_TRACE,
            "  ZelProfiler(%lx) construct from rawdata_mem(%p) maxIter(%lu) numIter(%lu) "
            "numLabel(%lu)\n",
            key, rawdata_mem, maxIter, numIter, numLabel);
    if (rawdata_mem == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* profiler mem info error\n");
        throw std::runtime_error("no mem\n");
    }
    // malloc(0) may legitimately return null; an empty copy still needs a distinct block.
    void* copy = std::malloc(size != 0 ? size : 1);
    if (copy == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* profiler mem alloc error\n");
        throw std::runtime_error("no mem\n");
    }
    if (size != 0) std::memcpy(copy, rawdata_mem, size);
    rawdata = static_cast<ZelProfileData*>(copy);
    try {
        CreateMemoryManager();
    } catch (...) {
        std::free(rawdata);
        throw;
    }
}

ZelProfiler::ZelProfiler(ProfilerKeyType key, const char* rawdata_file, uint64_t maxIter,
                         uint64_t numIter, uint64_t numLabel)
    : maxIter(maxIter),
      num_label(numLabel),
      num_iter(numIter),
      rawdata(nullptr),
      rawdata_size(0),
      finalized(false),
      leaf_docking_point(TOTAL, 0),
      fastTrack(false),
      show_flag(false),
      relative_timestamp(false),
      name("default"),
      key(key) {
    ZEL_LOG(ZONE_INF, PRINT_TRACE,
            "  ZelProfiler(%lx) construct from rawdatafile(%s) maxIter(%lu) numIter(%lu) "
            "numLabel(%lu)\n",
            key, rawdata_file, maxIter, numIter, numLabel);
    uint32_t size = 0;
    // Only the size is taken over; the contents are dropped when `contents` goes.
    std::unique_ptr<char[]> contents = import_file_to_mem(rawdata_file, &size, 0, 0);
    ZEL_LOG(ZONE_INF, PRINT_TRACE, "  size(%d)\n", static_cast<int>(size));
    rawdata_size = size;
    CreateMemoryManager();
}

ZelProfiler::~ZelProfiler() {
    if (rawdata != nullptr) std::free(rawdata);
}

void ZelProfiler::CreateMemoryManager() {
    memory_manager = std::make_unique<zel::memory::MemoryManager>();
}

const char* ZelProfiler::labelToString(ProfileLabel label) {
    // Negative values never come from callers, but raw data from another process can hold
    // anything: they print as INVALID rather than index outside the table.
    if (static_cast<int32_t>(label) > API || static_cast<int32_t>(label) < 0) return "INVALID";
    return kLabelNames[label];
}

void ZelProfiler::add_record_start(ProfilerLabelType label, ProfilerKeyType labelPostfix,
                                   ProfilerKeyType iterKey) {
    if (QueueRecord(*this, START, label, labelPostfix, iterKey))
        TraceRecord(START, label, labelPostfix, iterKey);
}

void ZelProfiler::add_record_end(ProfilerLabelType label, ProfilerKeyType labelPostfix,
                                 ProfilerKeyType iterKey) {
    if (QueueRecord(*this, END, label, labelPostfix, iterKey))
        TraceRecord(END, label, labelPostfix, iterKey);
}

void ZelProfiler::add_record(ProfileRecordType type, ProfileLabel& label,
                             ProfilerKeyType& labelPostfix, ProfilerKeyType& iterKey) {
    queue.push_back({type, label, labelPostfix, iterKey, now_us()});
}

void ZelProfiler::set_name(std::string new_name) {
    name = std::move(new_name);
}

void ZelProfiler::set_leaf_docking_point(std::pair<ProfileLabel, ProfilerKeyType> point) {
    leaf_docking_point = point;
}

std::pair<ProfileLabel, ProfilerKeyType> ZelProfiler::get_leaf_docking_point() {
    return leaf_docking_point;
}

}  // namespace util
}  // namespace zel
