/*
 * Device profiler: takes over the timings that the device driver and its firmware measure for
 * one operation, through a buffer shared with the driver, and turns them into ordinary raw data
 * that can be finalized, reported and merged under the service's DD stage.
 *
 * Device buffer (little-endian; D, F = number of DD, FW labels; M = iteration limit):
 *   0                       u64 num_iter written by the driver
 *   8                       DD area: entry of iteration k, slot i at 8 + (k*D + i)*8
 *   8 + split_offset_       FW area: entry of iteration k, slot j at 8 + split_offset_ + (k*F +
 * j)*8 with split_offset_ = M*8*D; the buffer holds 8 + M*8*2(D+F) bytes, zeroed at construction.
 * Each entry is a DeviceProfilerData; an all-zero entry is an empty slot.
 *
 * The buffer is written by another component and is not trusted: a num_iter beyond the buffer,
 * or slots whose labels do not fit the tree, fail the conversion (and stop the debug dump) with a
 * "* " error line instead of reading outside the buffer.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "src/common/zel_memory/buffer.h"
#include "util/zel_utils_profiler.h"

namespace zel {
namespace util {

// One entry of the device buffer, as the driver writes it.
struct DeviceProfilerData {
    uint16_t label;     // ProfileLabel number
    uint16_t clist_i;   // the driver's own index; only printed here
    uint32_t duration;  // in the driver's unit (microseconds); 0xFFFFFFFF counts as 0

    // Debug trace of the entry.
    void show() const;
};
static_assert(sizeof(DeviceProfilerData) == 8, "device entry is 8 bytes");

// Node of the fixed device label tree; knows where its label's entries lie in the buffer.
struct IngredientNode {
    ProfileLabel label;
    uint8_t* base;       // start of the area (DD or FW) holding the label's entries
    int32_t iterOffset;  // bytes from one iteration's entry to the next
    int32_t offset;      // byte position of the label's slot within one iteration
    std::vector<std::shared_ptr<IngredientNode>> children;

    void set_offset_val(uint8_t* base, int iterOffset, int offset);
};

class ZelDeviceProfiler : public ZelProfiler {
  public:
    // The largest iteration limit a device profiler accepts.
    static constexpr uint64_t kMaxIterLimit = 100000000;

    std::shared_ptr<IngredientNode> ingredient_root;  // null until generate_ingredient_tree
    int32_t reserved;                                 // 8; not read by this library
    zel::memory::Buffer::sptr device_memory;          // the buffer shared with the driver
    uint64_t split_offset_;  // bytes from the start of the DD area to the FW area
    int32_t num_dd_labels;
    int32_t num_fw_labels;
    bool detail;  // detail label sets in use

    // Label sets: only their sizes matter, they fix the entries per iteration.
    static std::vector<ProfileLabel> overview_labels_dd_;
    static std::vector<ProfileLabel> detail_labels_dd_;
    static std::vector<ProfileLabel> overview_labels_fw_;
    static std::vector<ProfileLabel> detail_labels_fw_;

    // A profiler named "device" keyed by operation id, with a zeroed device buffer. Throws
    // std::runtime_error("Fail to alloc profile mem\n") for maxIter above kMaxIterLimit or when
    // no buffer can be had.
    ZelDeviceProfiler(ProfilerKeyType key, uint64_t maxIter, bool detail);
    ~ZelDeviceProfiler() override;

    // Rebuilds the fixed label tree (detail or overview shape).
    ZelReturn generate_ingredient_tree();
    std::shared_ptr<IngredientNode> append_ingredient_node(std::shared_ptr<IngredientNode> parent,
                                                           ProfileLabel label);
    // Breadth-first; the first match wins. Null (logged) if absent.
    std::shared_ptr<IngredientNode> find_node_in_ingredient_tree(ProfilerLabelType label);
    // Binds each slot to its tree node by the labels of iteration 0. 0, or 1 when a slot's label
    // has no node.
    ZelReturn fill_offset_ingredient_tree();
    // Takes the iteration count from the buffer as the driver wrote it.
    void update_num_iteration();
    // Debug dump of the buffer.
    void show_dev_output();
    // The whole conversion of the buffer into raw data. 0 or 1.
    ZelReturn preprocess_device_data_to_rawdata();
    // Writes 2(D+F) records per iteration, each iteration starting at time 0; marks the
    // timestamps relative to the docking stage. 0 or 1.
    ZelReturn convert_to_rawdata();
    // Records of `node`'s subtree for one iteration, from raw-data position `index` on. 0, or 1
    // (logged) when a record would fall outside the raw data or an entry outside the buffer.
    ZelReturn fill_rawdata_entry(int depth, int& index, int iteration,
                                 std::shared_ptr<IngredientNode> node, int& time);

  private:
    // Whole iterations of `slots` entries between `base` and the end of the device buffer.
    uint64_t readable_iterations(const uint8_t* base, int slots) const;
    // Whether `iterations` iterations of both areas lie inside the device buffer.
    bool areas_fit(uint64_t iterations) const;
    // Whether num_iter iterations of the bound tree can be converted (logged when not).
    bool convertible() const;
    // Whether raw-data position `index` exists (logged when not).
    bool record_slot_ok(int index) const;
    // The node's entry for `iteration`, or null when it does not lie inside the buffer.
    const uint8_t* entry_in_buffer(const IngredientNode& node, int iteration) const;
};

}  // namespace util
}  // namespace zel
