// Timeline export: one event per stage and iteration, a track per side, overlaps on further ones.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>

#include "profiler_test_util.h"
#include "util/zel_utils_profiler_trace.h"

using namespace zel::util;
using namespace profiler_test;
using json = nlohmann::json;
using zel_test::Line;
using ProfilerTraceTest = Fixture;

namespace {

// X events by (name, iteration), and thread names by tid.
using Events = std::map<std::pair<std::string, uint64_t>, json>;
Events Parse(const std::string& text, std::map<int64_t, std::string>* tracks = nullptr) {
    Events events;
    const json doc = json::parse(text);  // throws, failing the test, on malformed JSON
    for (const json& e : doc.at("traceEvents")) {
        if (e.at("name") == "thread_name" && tracks) (*tracks)[e.at("tid")] = e["args"]["name"];
        if (e.at("ph") == "X")
            events[{e.at("name").get<std::string>(), e["args"]["iteration"]}] = e;
    }
    return events;
}

// TOTAL/7 { CLIENT { SERVICE { DD_ROOT/3 } }, (label 11) { (label 30)/0xab } } from each base.
std::unique_ptr<ZelProfiler> Stages(const std::vector<uint64_t>& bases) {
    std::vector<ZelProfileData> r;
    for (uint64_t i = 0; i < bases.size(); ++i) {
        const uint64_t t = bases[i], k = 0x100 + i;
        r.insert(r.end(),
                 {Start(TOTAL, 7, t, k), Start(CLIENT, 0, t + 10, k), Start(SERVICE, 0, t + 12, k),
                  Start(DD_ROOT, 3, t + 14, k), End(DD_ROOT, 3, t + 20, k),
                  End(SERVICE, 0, t + 30, k), End(CLIENT, 0, t + 30, k), Start(11, 0, t + 40, k),
                  Start(30, 0xab, t + 41, k), End(30, 0xab, t + 50, k), End(11, 0, t + 60, k),
                  End(TOTAL, 7, t + 70, k)});
    }
    auto p = FromRecords(r, bases.size(), 12, 0x80000042);
    EXPECT_EQ(p->finalize(), 0);
    return p;
}

}  // namespace

TEST_F(ProfilerTraceTest, EventsTracksLanesNamesAndTheEventLimit) {
    // Iteration 1 lies inside iteration 0, on further tracks; iteration 2 starts as 0 ends.
    auto p = Stages({1000, 1020, 1070});
    p->set_name(
            "q\"b\\s\n\x01 \xc3\x80 \xff\xc3 \xed\xa0\x80 \xe0\x80\x80 \xf4\x90 \xf0\x9f\x99\x82"
            "\xf4\x8f\xbf\xbf\xdf\xbf");
    const std::string text = export_trace_json(*p);
    EXPECT_EQ(json::parse(text)["traceEvents"][0]["args"]["name"],
              "model 0x80000042 (q\"b\\s\n\x01 \xc3\x80 \xef\xbf\xbd\xef\xbf\xbd "
              "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd \xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd "
              "\xef\xbf\xbd\xef\xbf\xbd \xf0\x9f\x99\x82\xf4\x8f\xbf\xbf\xdf\xbf)");
    std::map<int64_t, std::string> tracks;
    const Events events = Parse(text, &tracks);
    EXPECT_EQ(events.size(), 18u);
    EXPECT_EQ(events.at({"DD_ROOT_0x3", 1}),
              json::parse(R"({"ph":"X","cat":"device","name":"DD_ROOT_0x3","pid":66,"tid":12,
                  "ts":1034,"dur":6,"args":{"iterKey":"0x101","iteration":1,"label":1,
                  "postfix":"0x3"}})"));
    std::string tids;
    for (const auto& [key, e] : events)
        tids += key.first + ":" + std::to_string(e["tid"].get<int>()) + " ";
    EXPECT_EQ(tids,
              ":5 :13 :5 CLIENT:2 CLIENT:10 CLIENT:2 DD_ROOT_0x3:4 DD_ROOT_0x3:12 "
              "DD_ROOT_0x3:4 INVALID_0xab:5 INVALID_0xab:13 INVALID_0xab:5 SERVICE:3 "
              "SERVICE:11 SERVICE:3 TOTAL_0x7:1 TOTAL_0x7:9 TOTAL_0x7:1 ");
    EXPECT_EQ(tracks.size(), 10u);
    EXPECT_EQ(tracks[5] + "," + tracks[9], "other,request (overlap 1)");
    // Six stages an iteration: 17 events take two whole iterations, and say so.
    const json doc = json::parse(export_trace_json(*p, 17));
    EXPECT_EQ(doc["otherData"]["exported_iterations"], "2");
    EXPECT_EQ(Parse(doc.dump()).size(), 12u);
    EXPECT_TRUE(log.contains(Line("* Trace holds 2 of 3 iterations: limit of 17 events\n")));
}

TEST_F(ProfilerTraceTest, RefusesUnfinalizedAndAlteredProfilesAndUnwritableFiles) {
    const std::string path =
            testing::TempDir() + "zel_trace_test_" + std::to_string(getpid()) + ".json";
    ZelProfiler collecting(1, 10, "service", false);
    EXPECT_EQ(export_trace_json(collecting), "");
    EXPECT_EQ(export_trace_to_file(collecting, path.c_str()), 1);
    EXPECT_EQ(log.count(Line("* Need to be finalized to export trace\n")), 2u);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    auto p = Stages({1000, 2000});
    EXPECT_EQ(export_trace_to_file(*p, "/nonexistent/dir/t.json"), 1);
    ASSERT_EQ(export_trace_to_file(*p, path.c_str()), 0);
    std::ifstream file(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), export_trace_json(*p));
    // A child outside its parent, raw data short of its counts, a tree bigger than its records.
    p->root->children[0]->children[0]->end_time[1] = 2075;
    EXPECT_EQ(export_trace_to_file(*p, path.c_str()), 1);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    p->root->children[0]->children[0]->end_time[1] = 2030;
    p->rawdata_size = 40 * 12;
    EXPECT_EQ(export_trace_to_file(*p, path.c_str()), 1);
    p->root->children.push_back(p->root->children[0]);
    p->root->children.push_back(p->root->children[0]);
    EXPECT_EQ(export_trace_to_file(*p, path.c_str(), 6), 1);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    // A file that takes no bytes, through a link: the failed export removes only the link.
    const std::string full =
            testing::TempDir() + "zel_trace_full_" + std::to_string(getpid()) + ".json";
    unlink(full.c_str());
    ASSERT_EQ(symlink("/dev/full", full.c_str()), 0);
    EXPECT_EQ(export_trace_to_file(*Stages(std::vector<uint64_t>(100, 1000)), full.c_str()), 1);
    EXPECT_TRUE(log.contains(Line("* Fail to write trace file(" + full + ")\n")));
    unlink(full.c_str());
    for (const char* line :
         {"* Fail to open trace file(/nonexistent/dir/t.json)\n",
          "* Trace: stage(CLIENT:0x0) iter[1] start(2010) end(2075) lies outside its parent\n",
          "* Raw data too small for its counts. name[default] num_iter(2) num_label(12) "
          "size(480)\n",
          "* Trace: profile tree does not match its raw data. num_iter(2) num_label(12)\n"})
        EXPECT_TRUE(log.contains(Line(line))) << line;
}
