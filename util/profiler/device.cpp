// Device profiler: the buffer shared with the driver, the label tree that says where each
// label's entries lie, and the conversion of the entries into raw data.
#include <cstdlib>
#include <cstring>
#include <queue>
#include <stdexcept>

#include "src/common/zel_memory/memory_manager.h"
#include "util/profiler/internal.h"
#include "util/zel_utils_profiler_device.h"

namespace zel {
namespace util {

std::vector<ProfileLabel> ZelDeviceProfiler::overview_labels_dd_ = {DD_ROOT};
std::vector<ProfileLabel> ZelDeviceProfiler::detail_labels_dd_ = {DD_ROOT, DD_QUEUE, DD_SESSION,
                                                                  DD_FW_IF};
std::vector<ProfileLabel> ZelDeviceProfiler::overview_labels_fw_ = {FW, HW};
std::vector<ProfileLabel> ZelDeviceProfiler::detail_labels_fw_ = {FW, HW_NPU0, HW_NPU1,
                                                                  HW_NPU01_OVERLAP, HW_DSP};

namespace {

constexpr uint64_t kEntrySize = sizeof(DeviceProfilerData);
constexpr uint64_t kHeaderSize = sizeof(uint64_t);  // num_iter in front of the DD area
constexpr uint32_t kNoDuration = 0xFFFFFFFF;        // the driver's "not measured"

const char* name_of(int label) {
    return ZelProfiler::labelToString(static_cast<ProfileLabel>(label));
}

// Entries are read with memcpy: the driver's buffer gives no alignment promise to this process.
uint64_t read_u64(const uint8_t* at) {
    uint64_t value;
    memcpy(&value, at, sizeof(value));
    return value;
}

DeviceProfilerData read_entry(const uint8_t* at) {
    DeviceProfilerData entry;
    memcpy(&entry, at, sizeof(entry));
    return entry;
}

}  // namespace

void DeviceProfilerData::show() const {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  ---- label(%d=%s) clist_i[%d] duration(%u)\n",
            static_cast<int>(label), name_of(label), static_cast<int>(clist_i), duration);
}

void IngredientNode::set_offset_val(uint8_t* new_base, int new_iter_offset, int new_offset) {
    base = new_base;
    iterOffset = new_iter_offset;
    offset = new_offset;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  label(%s) base(%p) iterOffset(%d) offset(%d)\n",
            name_of(label), static_cast<void*>(base), iterOffset, offset);
}

ZelDeviceProfiler::ZelDeviceProfiler(ProfilerKeyType key, uint64_t maxIter, bool detail)
    : ZelProfiler(key, maxIter, "device", false),
      ingredient_root(nullptr),
      reserved(8),
      device_memory(nullptr),
      split_offset_(0),
      num_dd_labels(0),
      num_fw_labels(0),
      detail(detail) {
    if (maxIter > kMaxIterLimit) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Cannot accept too big iteration limit(%lu > %lu)\n",
                maxIter, kMaxIterLimit);
        throw std::runtime_error("Fail to alloc profile mem\n");
    }
    num_dd_labels = static_cast<int32_t>((detail ? detail_labels_dd_ : overview_labels_dd_).size());
    num_fw_labels = static_cast<int32_t>((detail ? detail_labels_fw_ : overview_labels_fw_).size());
    split_offset_ = maxIter * kEntrySize * num_dd_labels;
    num_label = 2 * static_cast<uint64_t>(num_dd_labels + num_fw_labels);
    const uint64_t size = maxIter * kEntrySize * num_label + kHeaderSize;
    ZEL_LOG(ZONE_INF, PRINT_TRACE,
            "* key(%lu) size(%lu), split_offset_(%lu)max_iter(%lu)num_label(%lu) detail(%d)\n", key,
            size, split_offset_, maxIter, num_label, static_cast<int>(detail));
    device_memory = memory_manager->create_memory(zel::memory::ZEL_MM_DEVICE_BUFFER,
                                                  static_cast<uint32_t>(size), 1);
    if (device_memory == nullptr) throw std::runtime_error("Fail to alloc profile mem\n");
    // The size is handed over in 32 bits; zero only what was really allocated (the reads are
    // bounded by the same size).
    memset(device_memory->va, 0, device_memory->size);
}

ZelDeviceProfiler::~ZelDeviceProfiler() = default;

ZelReturn ZelDeviceProfiler::generate_ingredient_tree() {
    ingredient_root = std::make_shared<IngredientNode>();
    ingredient_root->label = TOTAL;
    ingredient_root->base = nullptr;
    ingredient_root->iterOffset = 0;
    ingredient_root->offset = 0;
    auto dd_root = append_ingredient_node(ingredient_root, DD_ROOT);
    if (detail) {
        append_ingredient_node(dd_root, DD_QUEUE);
        append_ingredient_node(dd_root, DD_SESSION);
        auto fw_if = append_ingredient_node(dd_root, DD_FW_IF);
        auto fw = append_ingredient_node(fw_if, FW);
        append_ingredient_node(fw, HW_DSP);
        append_ingredient_node(fw, HW_NPU01_OVERLAP);
        append_ingredient_node(fw, HW_NPU0);
        append_ingredient_node(fw, HW_NPU1);
    } else {
        auto fw = append_ingredient_node(dd_root, FW);
        append_ingredient_node(fw, HW);
    }
    return 0;
}

std::shared_ptr<IngredientNode> ZelDeviceProfiler::append_ingredient_node(
        std::shared_ptr<IngredientNode> parent, ProfileLabel label) {
    auto node = std::make_shared<IngredientNode>();
    node->label = label;
    node->base = nullptr;
    node->iterOffset = 0;
    node->offset = 0;
    parent->children.push_back(node);
    return node;
}

std::shared_ptr<IngredientNode> ZelDeviceProfiler::find_node_in_ingredient_tree(
        ProfilerLabelType label) {
    std::queue<std::shared_ptr<IngredientNode>> pending;
    if (ingredient_root != nullptr) pending.push(ingredient_root);
    while (!pending.empty()) {
        std::shared_ptr<IngredientNode> node = pending.front();
        pending.pop();
        if (node->label == label) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "* Found node(%s) in tree\n", name_of(label));
            return node;
        }
        for (const auto& child : node->children)
            pending.push(child);
    }
    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to find node(%s:%d) in tree.\n", name_of(label),
            static_cast<int>(label));
    return nullptr;
}

uint64_t ZelDeviceProfiler::readable_iterations(const uint8_t* base, int slots) const {
    if (device_memory == nullptr || slots <= 0) return 0;
    const auto* const va = static_cast<const uint8_t*>(device_memory->va);
    const uint64_t begin = static_cast<uint64_t>(base - va);
    if (begin > device_memory->size) return 0;
    return (device_memory->size - begin) / (static_cast<uint64_t>(slots) * kEntrySize);
}

bool ZelDeviceProfiler::areas_fit(uint64_t iterations) const {
    if (device_memory == nullptr) return false;
    if (device_memory->size < kHeaderSize || split_offset_ > device_memory->size) return false;
    if (iterations == 0) return true;
    auto* const dd = static_cast<const uint8_t*>(device_memory->va) + kHeaderSize;
    return iterations <= readable_iterations(dd, num_dd_labels) &&
           iterations <= readable_iterations(dd + split_offset_, num_fw_labels);
}

ZelReturn ZelDeviceProfiler::fill_offset_ingredient_tree() {
    if (!areas_fit(1)) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Device buffer too small for one iteration\n");
        return 1;
    }
    auto* const va = static_cast<uint8_t*>(device_memory->va);
    struct Area {
        uint8_t* base;
        int slots;
    };
    const Area areas[] = {{va + kHeaderSize, num_dd_labels},
                          {va + kHeaderSize + split_offset_, num_fw_labels}};
    for (const Area& area : areas) {
        for (int i = 0; i < area.slots; ++i) {
            const uint64_t raw = read_u64(area.base + i * kEntrySize);
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  label[%d] rawdata(0x%016lx)\n", i, raw);
            const int label = static_cast<int>(raw & 0xFFFF);
            std::shared_ptr<IngredientNode> node =
                    find_node_in_ingredient_tree(static_cast<ProfileLabel>(label));
            if (node == nullptr) {
                ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to fill index\n");
                return 1;
            }
            node->set_offset_val(area.base, area.slots * static_cast<int>(kEntrySize),
                                 i * static_cast<int>(kEntrySize));
        }
    }
    return 0;
}

void ZelDeviceProfiler::update_num_iteration() {
    // Taken as the driver wrote it: the steps that read by it refuse iterations that lie
    // beyond the buffer.
    if (device_memory != nullptr)
        num_iter = read_u64(static_cast<const uint8_t*>(device_memory->va));
}

void ZelDeviceProfiler::show_dev_output() {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Print device profiler output! num_iter(%lu)\n", num_iter);
    if (device_memory == nullptr || !zel::debug::check_print_mask(ZONE_DBG, PRINT_TRACE) ||
        split_offset_ > device_memory->size) {
        return;
    }
    auto* const va = static_cast<uint8_t*>(device_memory->va);
    struct Area {
        const char* title;
        uint8_t* base;
        int slots;
    };
    const Area areas[] = {{"  ------------------- DD data ---------------------\n",
                           va + kHeaderSize, num_dd_labels},
                          {"  ------------------- FW data ---------------------\n",
                           va + kHeaderSize + split_offset_, num_fw_labels}};
    for (const Area& area : areas) {
        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "%s", area.title);
        const uint64_t readable = readable_iterations(area.base, area.slots);
        for (uint64_t k = 0; k < num_iter; ++k) {
            if (k >= readable) {
                // The driver's count runs past the buffer; what lies beyond is not ours to read.
                ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                        "* Device num_iter(%lu) beyond the buffer. size(%u)\n", num_iter,
                        device_memory->size);
                return;
            }
            for (int i = 0; i < area.slots; ++i) {
                const uint8_t* at = area.base + (k * area.slots + i) * kEntrySize;
                const uint64_t raw = read_u64(at);
                ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  [%lu][%d] rawdata(0x%016lx)\n", k, i, raw);
                if (raw != 0) read_entry(at).show();
            }
        }
    }
}

ZelReturn ZelDeviceProfiler::preprocess_device_data_to_rawdata() {
    update_num_iteration();
    show_dev_output();
    generate_ingredient_tree();
    if (fill_offset_ingredient_tree() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to fill_offset_ingredient_treer\n");
        return 1;
    }
    if (convert_to_rawdata() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to convert_to_rawdata\n");
        return 1;
    }
    return 0;
}

ZelReturn ZelDeviceProfiler::convert_to_rawdata() {
    // A count whose byte size does not fit in size_t cannot be allocated either.
    const uint64_t per_iteration =
            static_cast<uint64_t>(num_dd_labels + num_fw_labels) * 2 * sizeof(ZelProfileData);
    const bool representable = num_iter <= SIZE_MAX / per_iteration;
    const size_t count = representable ? num_iter * per_iteration : SIZE_MAX;
    auto* converted = representable
                              ? static_cast<ZelProfileData*>(calloc(count == 0 ? 1 : count, 1))
                              : nullptr;
    if (converted == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to alloc rawdata mem. size(%zu)\n", count);
        return 1;
    }
    // What the driver wrote is checked before it is converted, so that a refused conversion
    // leaves the profiler's raw data as it was: a count beyond the buffer, or a node without its
    // entries (a slot label bound twice, or an empty slot binding the root), would read past the
    // buffer or through a null base.
    if (num_iter != 0 && !convertible()) {
        free(converted);
        return 1;
    }
    free(rawdata);
    rawdata = converted;
    rawdata_size = count;
    int index = 0;
    for (uint64_t k = 0; k < num_iter; ++k) {
        int time = 0;
        if (fill_rawdata_entry(0, index, static_cast<int>(k), ingredient_root, time) != 0) return 1;
    }
    relative_timestamp = true;
    return 0;
}

bool ZelDeviceProfiler::convertible() const {
    if (!areas_fit(num_iter)) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Device num_iter(%lu) beyond the buffer. size(%u)\n",
                num_iter, device_memory != nullptr ? device_memory->size : 0);
        return false;
    }
    std::vector<std::shared_ptr<IngredientNode>> pending{ingredient_root};
    while (!pending.empty()) {
        std::shared_ptr<IngredientNode> node = pending.back();
        pending.pop_back();
        if (node == nullptr) {
            ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No ingredient tree to convert\n");
            return false;
        }
        if (node->label != TOTAL && node->base == nullptr) {
            ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No device slot for label(%s)\n",
                    name_of(node->label));
            return false;
        }
        for (const auto& child : node->children)
            pending.push_back(child);
    }
    return true;
}

ZelReturn ZelDeviceProfiler::fill_rawdata_entry(int depth, int& index, int iteration,
                                                std::shared_ptr<IngredientNode> node, int& time) {
    const std::string indent =
            "*" + std::string(depth > 0 ? 2 * static_cast<size_t>(depth) : 0, '*');
    int start = time;
    if (node == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No ingredient node to convert\n");
        return 1;
    }
    const bool measured = node->label != TOTAL;
    if (measured) {
        if (!record_slot_ok(index)) return 1;
        rawdata[index++] = {START, static_cast<int64_t>(node->label), key, 0,
                            static_cast<uint64_t>(static_cast<int64_t>(start))};
        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  %s START(%s) time(%lu)\n", indent.c_str(),
                name_of(node->label), static_cast<uint64_t>(static_cast<int64_t>(start)));
    }
    for (const auto& child : node->children) {
        if (fill_rawdata_entry(depth + 1, index, iteration, child, start) != 0) return 1;
        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  %s start_timestamp_shared:%d\n", indent.c_str(), start);
    }
    if (measured) {
        const uint8_t* entry = entry_in_buffer(*node, iteration);
        if (entry == nullptr) {
            ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No device entry for label(%s) iteration(%d)\n",
                    name_of(node->label), iteration);
            return 1;
        }
        if (!record_slot_ok(index)) return 1;
        uint32_t duration = read_entry(entry).duration;
        if (duration == kNoDuration) duration = 0;
        // 32-bit arithmetic on purpose: device times wrap like the driver's counters.
        const uint32_t end = static_cast<uint32_t>(time) + duration;
        rawdata[index++] = {END, static_cast<int64_t>(node->label), key, 0,
                            static_cast<uint64_t>(end)};
        time = static_cast<int>(end);
        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  %s END(%s) time(%lu) next_timestamp(%d)\n",
                indent.c_str(), name_of(node->label), static_cast<uint64_t>(end), time);
    }
    return 0;
}

bool ZelDeviceProfiler::record_slot_ok(int index) const {
    if (rawdata != nullptr && index >= 0 &&
        static_cast<uint64_t>(index) < rawdata_size / sizeof(ZelProfileData)) {
        return true;
    }
    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No raw data slot for record(%d). rawdata(%p) size(%lu)\n",
            index, static_cast<void*>(rawdata), rawdata_size);
    return false;
}

const uint8_t* ZelDeviceProfiler::entry_in_buffer(const IngredientNode& node, int iteration) const {
    if (device_memory == nullptr || node.base == nullptr || iteration < 0 || node.iterOffset < 0 ||
        node.offset < 0) {
        return nullptr;
    }
    const auto* const va = static_cast<const uint8_t*>(device_memory->va);
    if (node.base < va || static_cast<uint64_t>(node.base - va) > device_memory->size)
        return nullptr;
    const uint64_t at = static_cast<uint64_t>(node.base - va) +
                        static_cast<uint64_t>(iteration) * static_cast<uint64_t>(node.iterOffset) +
                        static_cast<uint64_t>(node.offset);
    if (at > device_memory->size || device_memory->size - at < kEntrySize) return nullptr;
    return va + at;
}

}  // namespace util
}  // namespace zel
