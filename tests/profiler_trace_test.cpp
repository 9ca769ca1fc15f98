// Timeline export: the JSON parses, holds one event per stage and iteration with the tree's own
// times, nests exactly like the tree, keeps each track properly nested, and refuses what it must.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>

#include "profiler_test_util.h"
#include "util/zel_utils_profiler_trace.h"

using namespace zel::util;
using namespace profiler_test;
using json = nlohmann::json;
using zel_test::Line;

namespace {

struct Trace {
    std::map<std::pair<std::string, uint64_t>, json> events;  // X events by (name, iteration)
    std::map<int64_t, std::string> tracks;                    // thread names by tid
};

Trace Parse(const std::string& text) {
    Trace trace;
    const json doc = json::parse(text);  // throws, failing the test, on malformed JSON
    for (const json& e : doc.at("traceEvents")) {
        if (e.at("ph") == "M" && e.at("name") == "thread_name")
            trace.tracks[e.at("tid")] = e.at("args").at("name");
        if (e.at("ph") != "X") continue;
        const auto key = std::make_pair(e.at("name").get<std::string>(),
                                        e.at("args").at("iteration").get<uint64_t>());
        EXPECT_TRUE(trace.events.emplace(key, e).second) << "twice: " << key.first;
    }
    return trace;
}

std::string ReadAll(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

uint64_t EndOf(const json& e) {
    return e.at("ts").get<uint64_t>() + e.at("dur").get<uint64_t>();
}

// Events of one track must nest or follow each other: a viewer cannot show them otherwise.
void ExpectTracksNest(const Trace& trace) {
    std::map<int64_t, std::vector<std::pair<uint64_t, uint64_t>>> by_track;  // (ts, end)
    for (const auto& [key, e] : trace.events)
        by_track[e["tid"]].push_back({e["ts"], EndOf(e)});
    for (auto& [tid, spans] : by_track) {
        std::sort(spans.begin(), spans.end(), [](const auto& a, const auto& b) {
            return a.first != b.first ? a.first < b.first : a.second > b.second;
        });
        std::vector<uint64_t> open;  // ends of the enclosing events
        for (const auto& [ts, end] : spans) {
            while (!open.empty() && open.back() <= ts)
                open.pop_back();
            EXPECT_TRUE(open.empty() || end <= open.back()) << "track " << tid << " at " << ts;
            open.push_back(end);
        }
    }
}

// Every node has its event in every iteration, named as the reports name it, with the node's
// times and inside its parent's event; and every track nests.
void ExpectNestsLikeTree(const ZelProfiler& p, const Trace& trace) {
    size_t nodes = 0;
    std::function<void(const ProfileNode&, const json*, uint64_t)> walk =
            [&](const ProfileNode& node, const json* parent, uint64_t i) {
                for (const auto& child : node.children) {
                    char postfix[24];
                    snprintf(postfix, sizeof(postfix), "_0x%lx", child->labelPostfix);
                    const std::string name = ZelProfiler::labelToString(child->label) +
                                             std::string(child->labelPostfix ? postfix : "");
                    auto found = trace.events.find({name, i});
                    ASSERT_NE(found, trace.events.end()) << name << " iteration " << i;
                    const json& e = found->second;
                    EXPECT_EQ(e["ts"], child->start_time[i]) << name;
                    EXPECT_EQ(EndOf(e), child->end_time[i]) << name;
                    if (parent)
                        EXPECT_TRUE(e["ts"] >= (*parent)["ts"] && EndOf(e) <= EndOf(*parent));
                    nodes += i == 0;
                    walk(*child, &e, i);
                }
            };
    for (uint64_t i = 0; i < p.num_iter; ++i)
        walk(*p.root, nullptr, i);
    EXPECT_EQ(trace.events.size(), nodes * p.num_iter);
    ExpectTracksNest(trace);
}

// A finalized profiler whose iterations are TOTAL/7 { SERVICE { CPU_UD }, NPU_UD/0x1f }.
std::unique_ptr<ZelProfiler> Plain(uint64_t iterations, const std::vector<uint64_t>& bases) {
    std::vector<ZelProfileData> records;
    for (uint64_t i = 0; i < iterations; ++i) {
        const uint64_t t = bases[i];
        records.insert(records.end(),
                       {Start(TOTAL, 7, t, 0x100 + i), Start(SERVICE, 0, t + 10, 0x100 + i),
                        Start(CPU_UD, 0, t + 12, 0x100 + i), End(CPU_UD, 0, t + 30, 0x100 + i),
                        End(SERVICE, 0, t + 30, 0x100 + i), Start(NPU_UD, 0x1f, t + 40, 0x100 + i),
                        End(NPU_UD, 0x1f, t + 60, 0x100 + i), End(TOTAL, 7, t + 70, 0x100 + i)});
    }
    auto p = FromRecords(records, iterations, 8);
    EXPECT_EQ(p->finalize(), 0);
    return p;
}

TEST_F(ProfilerTest, TraceOfAPlainProfileNestsLikeItsTreeAndBoundsItsEvents) {
    // Iteration 1 lies inside iteration 0's span, so it moves to further tracks; iteration 2
    // follows both.
    auto p = Plain(3, {1000, 1020, 3000});
    const Trace trace = Parse(export_trace_json(*p));
    ExpectNestsLikeTree(*p, trace);
    const json& npu = trace.events.at({"NPU_UD_0x1f", 1});
    EXPECT_EQ(npu["pid"], 0x42);
    EXPECT_EQ(npu["args"], json::parse(R"({"iterKey":"0x101","iteration":1,"label":13,
                                          "postfix":"0x1f"})"));
    EXPECT_EQ(trace.events.at({"TOTAL_0x7", 0})["tid"], 1);  // a measured TOTAL: request track
    EXPECT_EQ(trace.events.at({"CPU_UD", 1})["tid"], 8 + 3);
    EXPECT_EQ(trace.events.at({"CPU_UD", 2})["tid"], 3);
    EXPECT_EQ(trace.tracks, (std::map<int64_t, std::string>{{1, "request"},
                                                            {3, "service"},
                                                            {9, "request (overlap 1)"},
                                                            {11, "service (overlap 1)"}}));

    // Four stages a iteration: 9 events take two whole iterations, and say so.
    const json doc = json::parse(export_trace_json(*p, 9));
    EXPECT_EQ(doc["otherData"]["exported_iterations"], "2");
    EXPECT_EQ(Parse(doc.dump()).events.size(), 8u);
    EXPECT_TRUE(log.contains(Line("* Trace holds 2 of 3 iterations: limit of 9 events\n")));
}

TEST_F(ProfilerTest, TraceOfMergedProfilesKeepsEachSideOnItsTrack) {
    // Client API { CLIENT }, the service docked under CLIENT, and a device profile (times
    // from its docking stage's start) under DD/0x3.
    std::vector<ZelProfileData> client, service, device;
    for (uint64_t i = 0; i < 3; ++i) {
        const uint64_t t = 10000 * (i + 1);
        client.insert(client.end(), {Start(API, 0, t, i), Start(CLIENT, 0, t + 5, i),
                                     End(CLIENT, 0, t + 900, i), End(API, 0, t + 950, i)});
        service.insert(service.end(), {Start(SERVICE, 0, t + 10, i), Start(DD, 3, t + 100, i),
                                       End(DD, 3, t + 200, i), End(SERVICE, 0, t + 800, i)});
        device.insert(device.end(),
                      {Start(DD_ROOT, 3, 0, i), Start(FW, 3, 0, i), Start(HW, 3, 0, i),
                       End(HW, 3, 20, i), End(FW, 3, 30, i), End(DD_ROOT, 3, 50, i)});
    }
    auto merged = FromRecords(client, 3, 4, 9);
    auto serv = FromRecords(service, 3, 4, 9);
    auto dev = FromRecords(device, 3, 6, 3);
    dev->relative_timestamp = true;
    ASSERT_EQ(serv->finalize(), 0);
    ASSERT_EQ(dev->finalize(), 0);
    merged->set_leaf_docking_point({CLIENT, 0});
    ASSERT_EQ(merged->merge(serv.get()), 0);
    merged->set_leaf_docking_point({DD, 3});
    ASSERT_EQ(merged->merge(dev.get()), 0);
    ASSERT_EQ(merged->finalize(), 0);

    const Trace trace = Parse(export_trace_json(*merged));
    ExpectNestsLikeTree(*merged, trace);
    EXPECT_EQ(trace.tracks,
              (std::map<int64_t, std::string>{{2, "client"}, {3, "service"}, {4, "device"}}));
    const json& hw = trace.events.at({"HW_0x3", 2});
    EXPECT_EQ(hw["ts"], 30100u);  // relative device times moved to the DD stage's start
    EXPECT_EQ(hw["tid"], 4);

    // The device profile on its own: each iteration from 0, on the device track.
    const Trace alone = Parse(export_trace_json(*dev));
    ExpectNestsLikeTree(*dev, alone);
    EXPECT_EQ(alone.events.at({"FW_0x3", 1})["ts"], 0u);
    EXPECT_EQ(alone.events.at({"DD_ROOT_0x3", 1})["pid"], 3);
}

TEST_F(ProfilerTest, TraceEscapesNamesAndShowsLabelsWithoutASide) {
    const auto hole = static_cast<ProfileLabel>(11), beyond = static_cast<ProfileLabel>(30);
    auto p = FromRecords(
            {Start(hole, 0, 10), Start(beyond, 0xab, 11), End(beyond, 0xab, 12), End(hole, 0, 13)},
            1, 4);
    ASSERT_EQ(p->finalize(), 0);
    p->set_name("q\"b\\s\n\x01 \xc3\xa9 \xff\xc3 \xed\xa0\x80 \xf0\x9f\x99\x82");
    const std::string text = export_trace_json(*p);
    EXPECT_EQ(json::parse(text)["traceEvents"][0]["args"]["name"],
              "model 0x42 (q\"b\\s\n\x01 \xc3\xa9 \xef\xbf\xbd\xef\xbf\xbd "
              "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd \xf0\x9f\x99\x82)");
    const Trace trace = Parse(text);
    EXPECT_EQ(trace.events.at({"", 0})["tid"], 5);
    EXPECT_EQ(trace.events.at({"INVALID_0xab", 0})["args"]["label"], 30);
}

TEST_F(ProfilerTest, TraceRefusesUnfinalizedAndAlteredProfilesAndUnwritableFiles) {
    const std::string path = testing::TempDir() + "zel_trace_test.json";
    ZelProfiler collecting(1, 10, "service", false);
    collecting.add_record_start(API, 0, 0);
    EXPECT_EQ(export_trace_json(collecting), "");
    EXPECT_EQ(export_trace_to_file(collecting, path.c_str()), 1);
    EXPECT_EQ(log.count(Line("* Need to be finalized to export trace\n")), 2u);
    EXPECT_NE(access(path.c_str(), F_OK), 0);

    auto p = Plain(2, {1000, 2000});
    EXPECT_EQ(export_trace_to_file(*p, "/nonexistent/dir/t.json"), 1);
    EXPECT_TRUE(log.contains(Line("* Fail to open trace file(/nonexistent/dir/t.json)\n")));
    ASSERT_EQ(export_trace_to_file(*p, path.c_str()), 0);
    EXPECT_EQ(ReadAll(path), export_trace_json(*p));

    // A child moved out of its parent after finalize fails, and leaves no file behind.
    p->root->children[0]->children[0]->end_time[1] = 2075;
    EXPECT_EQ(export_trace_to_file(*p, path.c_str()), 1);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_TRUE(
            log.contains(Line("* Trace: stage(SERVICE:0x0) iter[1] start(2010) end(2075) lies "
                              "outside its parent\n")));
    // A tree with more stages than the raw data has records cannot be this profile's.
    p->root->children[0]->children[0]->end_time[1] = 2030;
    p->root->children.push_back(p->root->children[0]);
    p->root->children.push_back(p->root->children[0]);
    EXPECT_EQ(export_trace_json(*p), "");
    EXPECT_TRUE(log.contains(
            Line("* Trace: profile tree does not match its raw data. num_iter(2) num_label(8)\n")));
}

#ifdef ZEL_PROF_COMMAND
int ZelProf(const std::string& args) {
    const int status =
            system((std::string(ZEL_PROF_COMMAND) + " " + args + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(ProfilerTest, ZelProfWritesTracesOfRawDataFilesAndOfTheDemo) {
    const std::string raw = testing::TempDir() + "profile_rawdata_66.bin";
    const std::string out = testing::TempDir() + "zel_prof_trace.json";
    auto p = Plain(3, {1000, 2000, 3000});
    std::ofstream(raw).write(reinterpret_cast<const char*>(p->rawdata), p->rawdata_size);
    ASSERT_EQ(ZelProf("trace " + raw + " -o " + out), 0);
    const Trace trace = Parse(ReadAll(out));
    ExpectNestsLikeTree(*p, trace);
    EXPECT_EQ(trace.events.at({"SERVICE", 2})["pid"], 66);  // the key of the file name
    remove(raw.c_str());

    // The demo's merged profile: API, CLIENT, SERVICE, ENGINE, CPU_UD, NPU_UD, and per operation
    // DD { DD_ROOT { FW { HW } } }.
    ASSERT_EQ(ZelProf("demo -n 4 --ops 2 --model 12 --trace " + out), 0);
    const Trace demo = Parse(ReadAll(out));
    ExpectTracksNest(demo);
    EXPECT_EQ(demo.events.size(), 4u * (6 + 2 * 4));
    EXPECT_EQ(demo.tracks.size(), 3u);
    EXPECT_EQ(demo.events.at({"HW_0x2", 3})["tid"], 4);
    EXPECT_EQ(demo.events.at({"API", 0})["pid"], 12);
    remove(out.c_str());
    remove("/data/vendor/zel/profile_rawdata_12.bin");
    remove((std::filesystem::temp_directory_path() / "profile_rawdata_12.bin").c_str());
}
#endif

}  // namespace
