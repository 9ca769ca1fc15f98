/*
 * Execution-time profiler: start/end records per stage label, folded into a raw-data array,
 * built into a stage tree with self times, reported as text tables, exported and merged.
 *
 * A ZelProfiler collects records (add_record_start / add_record_end) until finalize() turns the
 * queue into raw data, builds the tree of stages from the first iteration, fills every
 * iteration's times into it and makes the profiler read-only. The reports and the export are
 * available only on a finalized profiler.
 *
 * Raw data is an array of 40-byte ZelProfileData records, num_iter iterations of num_label
 * records each, without header; the same bytes are written to and read from files and shared
 * memory. Raw data that comes from another process is not trusted: counts that disagree with its
 * size make the operation fail (1, or an empty result) with a "* " error line, and arbitrarily
 * deep nesting is walked without recursion.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "debug/zel_debug.h"
#include "src/common/zel_memory/memory_manager.h"

namespace zel {
namespace util {

// Stage labels. The numbering is shared with raw-data files and label lists; 11 is an unused
// hole whose name is the empty string.
enum ProfileLabel : int32_t {
    TOTAL = 0,
    DD_ROOT = 1,
    DD_QUEUE = 2,
    DD_SESSION = 3,
    DD_FW_IF = 4,
    FW = 5,
    HW = 6,
    HW_NPU0 = 7,
    HW_NPU1 = 8,
    HW_NPU01_OVERLAP = 9,
    HW_DSP = 10,
    UNIFIED_UD = 12,
    NPU_UD = 13,
    NPU_OP = 14,
    DSP_UD = 15,
    DSP_OP = 16,
    DD = 17,
    CPU_UD = 18,
    CPU_KERNEL = 19,
    GPU_UD = 20,
    GPU_KERNEL = 21,
    ENGINE = 22,
    SERVICE = 23,
    CLIENT = 24,
    API = 25,
};

// One past the last label: "no label yet" while counting the records of an iteration.
constexpr int32_t kProfileLabelNone = 26;

enum ProfileRecordType : uint32_t {
    START = 0,
    END = 1,
};

// Model id, operation id, label postfix or iteration key.
typedef uint64_t ProfilerKeyType;
typedef ProfileLabel ProfilerLabelType;

// One record of the queue, of the raw-data array and of raw-data files: five little-endian
// 64-bit words, 40 bytes, no padding.
struct ZelProfileData {
    uint64_t type;          // ProfileRecordType, zero-extended
    int64_t label;          // ProfileLabel, sign-extended
    uint64_t labelPostfix;  // caller's qualifier of the label, printed in hex after its name
    uint64_t iterKey;       // caller's key of the iteration (request)
    uint64_t timestamp;     // system clock, microseconds since its epoch
};
static_assert(sizeof(ZelProfileData) == 40, "raw-data record must be 40 bytes");
static_assert(offsetof(ZelProfileData, type) == 0, "raw-data record layout");
static_assert(offsetof(ZelProfileData, label) == 8, "raw-data record layout");
static_assert(offsetof(ZelProfileData, labelPostfix) == 16, "raw-data record layout");
static_assert(offsetof(ZelProfileData, iterKey) == 24, "raw-data record layout");
static_assert(offsetof(ZelProfileData, timestamp) == 32, "raw-data record layout");

// A stage of the tree; nodes are told apart by (label, labelPostfix). The per-iteration vectors
// hold num_iter entries.
struct ProfileNode {
    std::vector<std::shared_ptr<ProfileNode>> children;  // in the order of their opening records
    int32_t start_idx;  // index within an iteration of the opening record
    int32_t end_idx;    // index within an iteration of the closing record
    ProfileLabel label;
    ProfilerKeyType labelPostfix;
    std::vector<uint64_t> start_time;
    std::vector<uint64_t> end_time;
    std::vector<uint64_t> duration;   // end_time - start_time
    std::vector<uint64_t> self_time;  // duration minus the children's; for label 0 their sum
    uint64_t reserved;                // kept zero

    explicit ProfileNode(int num_iter);
    // Releases the subtree without recursion, so that a tree of any depth can be dropped.
    ~ProfileNode();
};

class ZelProfiler {
  public:
    uint64_t maxIter;
    uint64_t num_label;  // records (START and END) per iteration
    uint64_t num_iter;
    ZelProfileData* rawdata;  // malloc'ed, owned
    uint64_t rawdata_size;    // bytes
    std::shared_ptr<ProfileNode> root;
    bool finalized;
    std::map<int, std::shared_ptr<ProfileNode>> start_node_map;  // opening record index -> node
    std::map<int, std::shared_ptr<ProfileNode>> end_node_map;    // closing record index -> node
    std::pair<ProfileLabel, ProfilerKeyType> leaf_docking_point;
    std::unique_ptr<zel::memory::MemoryManager> memory_manager;
    std::mutex queue_mutex;
    std::deque<ZelProfileData> queue;
    bool fastTrack;           // the caller guarantees one recording thread; no lock is taken
    bool show_flag;           // show_output prints even when not forced
    bool relative_timestamp;  // timestamps count from the start of the docking stage
    std::string name;
    ProfilerKeyType key;

    // --- records and construction

    ZelProfiler(ProfilerKeyType key, uint64_t maxIter, std::string name, bool fastTrack);
    // Adopts a copy of `size` bytes of raw data; the counts are taken as given. Throws
    // std::runtime_error("no mem\n") for a null pointer or a failed allocation.
    ZelProfiler(ProfilerKeyType key, void* rawdata_mem, uint64_t size, uint64_t maxIter,
                uint64_t numIter, uint64_t numLabel);
    // Reads the file only for its size: the profiler keeps no raw data and cannot be finalized.
    ZelProfiler(ProfilerKeyType key, const char* rawdata_file, uint64_t maxIter, uint64_t numIter,
                uint64_t numLabel);
    virtual ~ZelProfiler();

    ZelProfiler(const ZelProfiler&) = delete;
    ZelProfiler& operator=(const ZelProfiler&) = delete;

    // Installs a new memory manager, destroying the previous one.
    void CreateMemoryManager();

    // Name of a label; "" for 11, "INVALID" above 25.
    static const char* labelToString(ProfileLabel label);

    // Queue a START / END record stamped with the current time. Refused (logged, dropped) after
    // finalization. Locked unless fastTrack.
    void add_record_start(ProfilerLabelType label, ProfilerKeyType labelPostfix,
                          ProfilerKeyType iterKey);
    void add_record_end(ProfilerLabelType label, ProfilerKeyType labelPostfix,
                        ProfilerKeyType iterKey);
    // General form: never locked, never refused.
    void add_record(ProfileRecordType type, ProfileLabel& label, ProfilerKeyType& labelPostfix,
                    ProfilerKeyType& iterKey);

    void set_name(std::string name);
    void set_leaf_docking_point(std::pair<ProfileLabel, ProfilerKeyType> point);
    std::pair<ProfileLabel, ProfilerKeyType> get_leaf_docking_point();

    // --- raw data

    // Drains the queue into a new raw-data array and derives num_label and num_iter. 0 or 1.
    ZelReturn generate_rawdata_from_queue();
    // Raw data, tree, times and self times; then read-only. 0 on success or when there is
    // nothing to analyse (the profiler stays unfinalized), 1 on failure. Throws
    // std::runtime_error("finalize fail\n") when the records do not fit the tree.
    virtual ZelReturn finalize();
    // Writes the raw data to "/data/vendor/zel/profile_rawdata_<key>.bin"; the path, or "".
    std::string export_rawdata_to_file();
    // Debug dump of every record of the complete iterations.
    void dbg_show_rawdata();

    // --- stage tree

    // Builds the tree and both node maps from iteration 0. 0, or 1 on inconsistent counts.
    ZelReturn grow_tree();
    // Appends the stages that follow cur_idx under `parent` until the record that closes
    // `parent_label`; cur_idx is left on that record (or at num_label).
    ZelReturn append_nodes_to_tree(int depth, int& cur_idx,
                                   std::pair<ProfilerLabelType, ProfilerKeyType>& parent_label,
                                   std::shared_ptr<ProfileNode> parent);
    // Copies every iteration's timestamps into the nodes. 1 on a malformed record sequence.
    ZelReturn fill_data_to_tree();
    // Durations and self times of iteration `iter` for a subtree; duration_out gets the node's
    // duration.
    ZelReturn calculate_self_time_nodes(int depth, uint64_t iter, std::shared_ptr<ProfileNode> node,
                                        uint64_t& duration_out);
    ZelReturn calculate_self_time();
    ZelReturn show_nodes(int depth, std::shared_ptr<ProfileNode> node);
    ZelReturn show_tree();

    // --- reports

    // Multi-record table and summary of a finalized profiler, when show_flag or `force` is set.
    // Throws std::runtime_error("finalize fail\n") when the summary fails.
    void show_output(bool force);
    // Table of the iterations ranked around num_iter * ratio (+- range), by the root's self time.
    ZelReturn show_result_multi_records(float ratio, int range);
    ZelReturn show_result_nth_nodes(int start_rank, int end_rank,
                                    std::shared_ptr<ProfileNode> node);
    void show_records_7columns(int depth, std::vector<int> ranks, std::vector<int> indices,
                               std::shared_ptr<ProfileNode> node);
    // Average, median and 90% iteration of every stage.
    ZelReturn show_result_summary();
    ZelReturn show_result_summary_nodes(int depth, int idx_90, int idx_median,
                                        std::shared_ptr<ProfileNode> node);

    // --- merge

    // Splices `child`'s iterations into this profiler's right after the opening record of
    // leaf_docking_point, and unfinalizes this profiler. 0 or 1; the child is not changed.
    ZelReturn merge(ZelProfiler* child);
};

}  // namespace util
}  // namespace zel
