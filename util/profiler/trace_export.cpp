// Timeline export of a finalized profiler as Trace Event Format JSON.
//
// The tree is flattened once, in pre-order, into stages whose constant parts of the event text
// (name, track, label, postfix) are prepared up front; each iteration then only adds its times and
// iteration key. The profiler's tree walk keeps a deeply nested profile from exhausting the
// thread's stack, and the flattening never takes more stages than the raw data has opening
// records, so that a tree altered into a cycle still ends.
#include "util/zel_utils_profiler_trace.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <functional>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include "util/profiler/internal.h"

namespace zel {
namespace util {

namespace {

// Tracks: one per side of the runtime; iterations that overlap earlier ones use further lanes.
enum TraceSide : int { kRequest = 1, kClient, kService, kDevice, kOther, kSideCount = kOther };
constexpr int64_t kLaneStride = 8;  // tid = lane * kLaneStride + side

constexpr size_t kFlushSize = 1 << 16;  // bytes gathered before a file write

const char* side_name(int side) {
    switch (side) {
        case kRequest:
            return "request";
        case kClient:
            return "client";
        case kService:
            return "service";
        case kDevice:
            return "device";
        default:
            return "other";
    }
}

TraceSide side_of(int32_t label) {
    if (label == TOTAL) return kRequest;
    if (label == API || label == CLIENT) return kClient;
    if (label >= DD_ROOT && label <= HW_DSP) return kDevice;
    if (label >= UNIFIED_UD && label <= SERVICE) return kService;
    return kOther;
}

void append_u64(std::string& out, uint64_t value, int base = 10) {
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof(digits), value, base);
    out.append(digits, result.ptr);
}

void append_hex(std::string& out, uint64_t value) {
    out += "0x";
    append_u64(out, value, 16);
}

// Length of the well-formed UTF-8 sequence at `s` (2 to 4 bytes), or 0 when it is not one.
size_t utf8_sequence(const unsigned char* s, size_t left) {
    const unsigned char c = s[0];
    size_t length;
    unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
        length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        length = 3;
        if (c == 0xE0) low = 0xA0;   // no overlong forms
        if (c == 0xED) high = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        length = 4;
        if (c == 0xF0) low = 0x90;
        if (c == 0xF4) high = 0x8F;  // nothing above U+10FFFF
    } else {
        return 0;
    }
    if (left < length || s[1] < low || s[1] > high) return 0;
    for (size_t k = 2; k < length; ++k) {
        if (s[k] < 0x80 || s[k] > 0xBF) return 0;
    }
    return length;
}

// `text` as a JSON string. Names can hold any bytes: quotes, backslashes and control characters
// are escaped, and bytes that are not well-formed UTF-8 become U+FFFD, so the file always parses.
void append_json_string(std::string& out, const std::string& text) {
    static const char kHex[] = "0123456789abcdef";
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    out += '"';
    for (size_t i = 0; i < n;) {
        const unsigned char c = s[i];
        if (c >= 0x80) {
            const size_t length = utf8_sequence(s + i, n - i);
            if (length == 0) {
                out += "\\ufffd";
                ++i;
            } else {
                out.append(text, i, length);
                i += length;
            }
            continue;
        }
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    out += "\\u00";
                    out += kHex[c >> 4];
                    out += kHex[c & 0xF];
                } else {
                    out += static_cast<char>(c);
                }
        }
        ++i;
    }
    out += '"';
}

// One stage of the flattened tree, with the parts of its event text that every iteration shares.
struct Stage {
    const ProfileNode* node;
    int64_t parent;  // index of the enclosing stage, -1 at the top
    int side;
    std::string head;  // {"ph":"X",...,"pid":P,"tid":
    std::string tail;  // ,"label":n,"postfix":"0x.."}}
};

// Where the text goes: kept in memory, or written to a file whenever enough has gathered.
class TraceOut {
  public:
    explicit TraceOut(FILE* file) : file_(file) {}

    std::string text;

    bool flush_if_full() { return text.size() < kFlushSize || flush(); }
    bool flush() {
        if (file_ == nullptr || text.empty()) return !failed_;
        if (fwrite(text.data(), 1, text.size(), file_) != text.size()) failed_ = true;
        text.clear();
        return !failed_;
    }
    bool failed() const { return failed_; }

  private:
    FILE* file_;
    bool failed_ = false;
};

// The profiler's key as a pid that viewers reading 32-bit pids take as it is.
uint64_t trace_pid(ProfilerKeyType key) {
    return key <= 0x7fffffff ? key : (key & 0x7fffffff);
}

// Flattens the tree in pre-order. False when it cannot belong to this profiler's raw data.
bool flatten(const ZelProfiler& p, std::vector<Stage>* stages) {
    using profiler_internal::TreeWalk;
    using profiler_internal::Visit;
    std::string pid;
    append_u64(pid, trace_pid(p.key));
    // A frame's value is its stage's index; the root is no stage.
    auto enter = [&](TreeWalk::Frame& frame, TreeWalk::Frame* parent) {
        if (parent == nullptr) {
            frame.value = static_cast<uint64_t>(-1);
            return Visit::kInto;
        }
        // Every stage has its own opening record within an iteration.
        const ProfileNode* node = frame.node;
        if (stages->size() >= p.num_label || node->start_idx < 0 ||
            static_cast<uint64_t>(node->start_idx) >= p.num_label ||
            node->start_time.size() < p.num_iter || node->end_time.size() < p.num_iter) {
            return Visit::kStop;
        }
        Stage stage{node, static_cast<int64_t>(parent->value), side_of(node->label), "", ""};
        std::string name = ZelProfiler::labelToString(node->label);
        if (node->labelPostfix != 0) {
            name += '_';
            append_hex(name, node->labelPostfix);
        }
        stage.head = "{\"ph\":\"X\",\"cat\":\"";
        stage.head += side_name(stage.side);
        stage.head += "\",\"name\":";
        append_json_string(stage.head, name);
        stage.head += ",\"pid\":" + pid + ",\"tid\":";
        stage.tail = ",\"label\":" + std::to_string(node->label) + ",\"postfix\":\"";
        append_hex(stage.tail, node->labelPostfix);
        stage.tail += "\"}}";
        frame.value = stages->size();
        stages->push_back(std::move(stage));
        return Visit::kInto;
    };
    return profiler_internal::walk_tree(p.root.get(), 0, enter,
                                        [](TreeWalk::Frame&, TreeWalk::Frame*) {});
}

// Picks a lane for each iteration so that the iterations in one lane do not overlap: the lane
// that came free earliest when it is free by the iteration's start, else a new one.
class Lanes {
  public:
    int64_t place(uint64_t begin, uint64_t end) {
        int64_t lane;
        if (!free_.empty() && free_.top().first <= begin) {
            lane = free_.top().second;
            free_.pop();
        } else {
            lane = count_++;
        }
        free_.emplace(end, lane);
        return lane;
    }
    int64_t count() const { return count_; }

  private:
    using Entry = std::pair<uint64_t, int64_t>;  // (end of its last iteration, lane)
    std::priority_queue<Entry, std::vector<Entry>, std::greater<Entry>> free_;
    int64_t count_ = 0;
};

void append_metadata(std::string& out, const char* what, uint64_t pid, int64_t tid,
                     const char* field, const std::string& value, bool as_string) {
    out += ",\n{\"ph\":\"M\",\"name\":\"";
    out += what;
    out += "\",\"pid\":";
    append_u64(out, pid);
    out += ",\"tid\":" + std::to_string(tid) + ",\"args\":{\"";
    out += field;
    out += "\":";
    if (as_string) {
        append_json_string(out, value);
    } else {
        out += value;
    }
    out += "}}";
}

ZelReturn write_trace(const ZelProfiler& p, uint64_t max_events, TraceOut& out) {
    if (!p.finalized) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Need to be finalized to export trace\n");
        return 1;
    }
    std::vector<Stage> stages;
    if (!p.root || p.num_iter == 0 || p.num_label == 0 || !flatten(p, &stages)) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                "* Trace: profile tree does not match its raw data. num_iter(%lu) num_label(%lu)\n",
                p.num_iter, p.num_label);
        return 1;
    }

    // Whole iterations only, as many as the event limit takes.
    uint64_t iterations = p.num_iter;
    if (!stages.empty() && iterations > max_events / stages.size())
        iterations = max_events / stages.size();
    if (iterations < p.num_iter) {
        ZEL_LOG(ZONE_WAR, PRINT_ALWAYS,
                "* Trace holds %lu of %lu iterations: limit of %lu events\n", iterations,
                p.num_iter, max_events);
    }
    // Each exported iteration reads its iteration keys from the raw data.
    if (!profiler_internal::rawdata_holds(p, iterations)) return 1;

    out.text = "{\"displayTimeUnit\":\"ms\",\"otherData\":{\"profiler\":";
    append_json_string(out.text, p.name);
    out.text += ",\"key\":\"";
    append_hex(out.text, p.key);
    out.text += "\",\"iterations\":\"" + std::to_string(p.num_iter) +
                "\",\"exported_iterations\":\"" + std::to_string(iterations) +
                "\"},\n\"traceEvents\":[\n";

    const uint64_t pid = trace_pid(p.key);
    std::string process = "model ";
    append_hex(process, p.key);
    process += " (" + p.name + ")";
    out.text += "{\"ph\":\"M\",\"name\":\"process_name\",\"pid\":";
    append_u64(out.text, pid);
    out.text += ",\"tid\":0,\"args\":{\"name\":";
    append_json_string(out.text, process);
    out.text += "}}";

    Lanes lanes;
    std::vector<bool> used;  // per tid: a track that needs its name
    for (uint64_t i = 0; i < iterations; ++i) {
        uint64_t begin = UINT64_MAX, end = 0;
        for (const Stage& stage : stages) {
            const uint64_t start = stage.node->start_time[i];
            const uint64_t stop = stage.node->end_time[i];
            const bool inside =
                    stage.parent < 0 || (start >= stages[stage.parent].node->start_time[i] &&
                                         stop <= stages[stage.parent].node->end_time[i]);
            if (stop < start || !inside) {
                ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                        "* Trace: stage(%s:0x%lx) iter[%lu] start(%lu) end(%lu) lies outside "
                        "its parent\n",
                        ZelProfiler::labelToString(stage.node->label), stage.node->labelPostfix, i,
                        start, stop);
                return 1;
            }
            if (stage.parent < 0) {
                begin = std::min(begin, start);
                end = std::max(end, stop);
            }
        }
        const int64_t lane = stages.empty() ? 0 : lanes.place(begin, end);
        for (const Stage& stage : stages) {
            const int64_t tid = lane * kLaneStride + stage.side;
            if (static_cast<uint64_t>(tid) >= used.size()) used.resize(tid + 1, false);
            used[tid] = true;
            const uint64_t start = stage.node->start_time[i];
            out.text += ",\n";
            out.text += stage.head;
            out.text += std::to_string(tid);
            out.text += ",\"ts\":";
            append_u64(out.text, start);
            out.text += ",\"dur\":";
            append_u64(out.text, stage.node->end_time[i] - start);
            out.text += ",\"args\":{\"iterKey\":\"";
            append_hex(out.text, p.rawdata[i * p.num_label + stage.node->start_idx].iterKey);
            out.text += "\",\"iteration\":";
            append_u64(out.text, i);
            out.text += stage.tail;
        }
        if (!out.flush_if_full()) return 1;
    }

    for (size_t tid = 0; tid < used.size(); ++tid) {
        if (!used[tid]) continue;
        const int64_t lane = static_cast<int64_t>(tid) / kLaneStride;
        const int side = static_cast<int>(tid % kLaneStride);
        std::string name = side_name(side);
        if (lane > 0) name += " (overlap " + std::to_string(lane) + ")";
        append_metadata(out.text, "thread_name", pid, static_cast<int64_t>(tid), "name", name,
                        true);
        append_metadata(out.text, "thread_sort_index", pid, static_cast<int64_t>(tid), "sort_index",
                        std::to_string(tid), false);
        if (!out.flush_if_full()) return 1;
    }
    out.text += "\n]}\n";
    ZEL_LOG(ZONE_INF, PRINT_TRACE, "  Trace: %zu stages x %lu iterations, %ld lanes\n",
            stages.size(), iterations, static_cast<long>(lanes.count()));
    return 0;
}

}  // namespace

std::string export_trace_json(const ZelProfiler& profiler, uint64_t max_events) {
    TraceOut out(nullptr);
    if (write_trace(profiler, max_events, out) != 0) return "";
    return std::move(out.text);
}

ZelReturn export_trace_to_file(const ZelProfiler& profiler, const char* path, uint64_t max_events) {
    if (path == nullptr || *path == '\0') {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to open trace file(%s)\n", "");
        return 1;
    }
    // Refuse before creating the file, so that a failed export leaves nothing behind.
    if (!profiler.finalized) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Need to be finalized to export trace\n");
        return 1;
    }
    FILE* file = fopen(path, "w");
    if (file == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to open trace file(%s)\n", path);
        return 1;
    }
    TraceOut out(file);
    const ZelReturn built = write_trace(profiler, max_events, out);
    const bool written = out.flush();
    const bool closed = fclose(file) == 0;
    if (built != 0 || !written || !closed) {
        // A failed write ends the walk early; it is reported here rather than as a bad tree.
        if (!written || !closed)
            ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to write trace file(%s)\n", path);
        remove(path);
        return 1;
    }
    ZEL_LOG(ZONE_INF, PRINT_TRACE, "  Trace written to %s\n", path);
    return 0;
}

}  // namespace util
}  // namespace zel
