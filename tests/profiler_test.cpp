// Profiler core: recording, raw data, finalize, stage tree and export.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "profiler_test_util.h"

using namespace zel::util;
using namespace profiler_test;
using zel_test::Line;

TEST_F(ProfilerTest, RecordFinalizeRefuseAndExport) {
    EXPECT_STREQ(ZelProfiler::labelToString(API), "API");
    EXPECT_STREQ(ZelProfiler::labelToString(static_cast<ProfileLabel>(26)), "INVALID");

    // TOTAL/7 { NPU_OP/0x1f } three times, then a lone TOTAL/7 start.
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0x7);  // with the generation dump
    ZelProfiler p(5, 100, "service", true);
    const auto now_us = [] {
        using namespace std::chrono;
        return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    };
    const uint64_t before = now_us();
    for (uint64_t i = 0; i < 3; ++i) {
        p.add_record_start(TOTAL, 7, i);
        p.add_record_start(NPU_OP, 0x1f, i);
        p.add_record_end(NPU_OP, 0x1f, i);
        p.add_record_end(TOTAL, 7, i);
    }
    p.add_record_start(TOTAL, 7, 3);
    ASSERT_EQ(p.queue.size(), 13u);
    EXPECT_GE(p.queue.front().timestamp, before);  // microseconds of the system clock
    EXPECT_LE(p.queue.back().timestamp, static_cast<uint64_t>(now_us()));
    EXPECT_EQ(p.export_rawdata_to_file(), "");
    EXPECT_TRUE(log.contains(Line("* Need to be finalized to export file\n")));

    ASSERT_EQ(p.finalize(), 0);
    EXPECT_EQ(p.rawdata_size, 520u);  // the incomplete iteration stays in the array
    EXPECT_EQ(p.num_label, 4u);
    EXPECT_EQ(p.num_iter, 3u);
    // The dump counts 64-bit words: records 0, 1, 2 print as 0, 5, 10.
    const std::string rec1 = "] label(NPU_OP) labelPostfix(31) type(0) iterKey(0) timestamp(";
    EXPECT_TRUE(log.count(Line("  [5" + rec1 + std::to_string(p.rawdata[1].timestamp) + ")\n")));
    EXPECT_TRUE(log.contains(Line("  Get count of profile_labels. start/end(TOTAL) = cnt(4)\n")));

    log.clear();
    p.add_record_start(CLIENT, 1, 1);
    p.add_record_end(CLIENT, 1, 1);
    EXPECT_EQ(log.count(Line("* Cannot add new profile data after finalized. label(24)\n")), 2u);
    EXPECT_TRUE(p.queue.empty());
    ProfileLabel label = CLIENT;
    ProfilerKeyType postfix = 1, iter = 2;
    p.add_record(START, label, postfix, iter);  // the general form is never refused
    EXPECT_EQ(p.queue.size(), 1u);
    EXPECT_EQ(p.finalize(), 0);  // already finalized: nothing happens
    EXPECT_EQ(p.generate_rawdata_from_queue(), 1);
    EXPECT_TRUE(log.contains(Line("* Wrong flow. We already have rawdata\n")));

    for (const char* dir : {"/data", "/data/vendor", "/data/vendor/zel"}) {
        if (mkdir(dir, 0775) != 0 && errno != EEXIST) GTEST_SKIP() << "cannot create " << dir;
    }
    const std::string path = p.export_rawdata_to_file();
    ASSERT_EQ(path, "/data/vendor/zel/profile_rawdata_5.bin");
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(bytes.size(), 520u);
    EXPECT_EQ(std::memcmp(bytes.data() + 480, &p.rawdata[12], 40), 0);
    // Read back from the file, only the size is kept: there is nothing to finalize.
    ZelProfiler from_file(5, path.c_str(), 100, 3, 4);
    EXPECT_EQ(from_file.rawdata_size, 520u);
    EXPECT_EQ(from_file.finalize(), 0);
    EXPECT_FALSE(from_file.finalized);
    std::remove(path.c_str());
}

TEST_F(ProfilerTest, NothingToAnalyseLeavesTheProfilerOpen) {
    ZelProfiler p(9, 100, "service", false);
    p.add_record_start(TOTAL, 7, 0);
    p.add_record_start(NPU_OP, 0, 0);  // the first label never recurs
    EXPECT_EQ(p.finalize(), 0);
    EXPECT_FALSE(p.finalized);
    EXPECT_EQ(log.count(Line("  [service] info is empty. rawdata(" + Ptr(p.rawdata) +
                             ") num_iter(0) num_label(0). \n")),
              1u);
    p.show_output(true);
    EXPECT_TRUE(log.contains(Line("  Not finalized so skip show output\n")));
}

TEST_F(ProfilerTest, TreeTimesAndMalformedSequences) {
    // TOTAL/7 { A, B } with times 100..170, and FW { A } where A covers 30 of FW's 50.
    auto p = FromRecords(
            {Start(TOTAL, 7, 100), Start(NPU_OP, 0, 110), End(NPU_OP, 0, 130),
             Start(DSP_OP, 0, 130), End(DSP_OP, 0, 150), End(TOTAL, 7, 170), Start(FW, 0, 200),
             Start(NPU_OP, 1, 210), End(NPU_OP, 1, 240), End(FW, 0, 250)},
            1, 10);
    ASSERT_EQ(p->finalize(), 0);
    const auto& root = p->root;
    ASSERT_EQ(root->children.size(), 2u);
    const auto& total = root->children[0];
    const auto& fw = root->children[1];
    ASSERT_EQ(total->children.size(), 2u);
    EXPECT_EQ(total->duration[0], 70u);
    EXPECT_EQ(total->self_time[0], 40u);  // TOTAL counts what its children measured
    EXPECT_EQ(total->children[0]->self_time[0], 20u);
    EXPECT_EQ(fw->duration[0], 50u);
    EXPECT_EQ(fw->self_time[0], 20u);
    EXPECT_EQ(root->duration[0], 0u);
    EXPECT_EQ(root->self_time[0], 120u);

    // A record carrying the root's own pair (TOTAL, 0) closes the root there.
    auto closed = FromRecords({Start(TOTAL, 0, 1), End(NPU_OP, 0, 2), End(TOTAL, 0, 3)}, 1, 3);
    closed->grow_tree();
    EXPECT_TRUE(closed->root->children.empty());
    EXPECT_EQ(closed->end_node_map.count(0), 1u);

    // The second iteration's END is earlier than the record before it.
    auto backwards = FromRecords(
            {Start(TOTAL, 7, 10), End(TOTAL, 7, 20), Start(TOTAL, 7, 30), End(TOTAL, 7, 25)}, 2, 2);
    try {
        backwards->finalize();
        ADD_FAILURE() << "finalize did not throw";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "finalize fail\n");
    }
    EXPECT_FALSE(backwards->finalized);
    EXPECT_TRUE(
            log.contains(Line("* Wrong flow! timestamp(TOTAL:25) is smaller than previous "
                              "timestamp(TOTAL:30).  iter[1]\n")));
    EXPECT_TRUE(log.contains(Line("* Fail to fill_data_to_tree\n")));

    // A opens, B opens, A, B: pairs that do not nest.
    auto crossed = FromRecords({Start(TOTAL, 7, 1), Start(NPU_OP, 0, 2), Start(DSP_OP, 0, 3),
                                End(NPU_OP, 0, 4), End(DSP_OP, 0, 5), End(TOTAL, 7, 6)},
                               1, 6);
    EXPECT_THROW(crossed->finalize(), std::runtime_error);
    EXPECT_TRUE(log.contains(Line("* Fail to find end label. label_count[3]\n")));
}

TEST_F(ProfilerTest, LockedRecordingFromEightThreadsLosesNothing) {
    constexpr int kThreads = 8;
    constexpr uint64_t kPerThread = 5000;
    ZelProfiler p(1, 100, "service", false);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&p, t] {
            for (uint64_t i = 0; i < kPerThread; ++i) {
                if (i % 2 == 0)
                    p.add_record_start(NPU_OP, t, i);
                else
                    p.add_record_end(NPU_OP, t, i);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();

    ASSERT_EQ(p.queue.size(), kThreads * kPerThread);
    std::vector<uint64_t> next(kThreads, 0);
    for (size_t i = 0; i < p.queue.size(); ++i) {
        const ZelProfileData& r = p.queue[i];
        if (i) EXPECT_LE(p.queue[i - 1].timestamp, r.timestamp) << "record " << i;
        ASSERT_LT(r.labelPostfix, static_cast<uint64_t>(kThreads));
        EXPECT_EQ(r.label, NPU_OP);
        EXPECT_EQ(r.iterKey, next[r.labelPostfix]++);  // each thread's records in its order
        EXPECT_EQ(r.type, r.iterKey % 2);
    }
}

TEST_F(ProfilerTest, TracedAndQuietFinalizeComputeTheSameTimes) {
    // Finalize computes block by block when its traces are off and iteration by iteration when
    // they are on; the two must agree, across block boundaries too.
    std::vector<ZelProfileData> records;
    for (uint64_t i = 0; i < 5000; ++i) {
        const uint64_t t = 1000 * i, d = i % 17;
        records.insert(records.end(),
                       {Start(TOTAL, 7, t), Start(FW, 0, t + 1), Start(NPU_OP, 2, t + 2 + d),
                        End(NPU_OP, 2, t + 20 + d), End(FW, 0, t + 40), Start(TOTAL, 9, t + 41),
                        End(TOTAL, 9, t + 45 + d), End(TOTAL, 7, t + 90)});
    }
    auto quiet = FromRecords(records, 5000, 8);
    ASSERT_EQ(quiet->finalize(), 0);
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0xF);
    auto traced = FromRecords(records, 5000, 8);
    ASSERT_EQ(traced->finalize(), 0);
    EXPECT_TRUE(log.contains(Line("  calculate_self_time Done\n")));

    // root, TOTAL/7 { FW { NPU_OP/2 }, TOTAL/9 }
    const auto nodes = [](const ZelProfiler& p) {
        const auto& total = p.root->children.at(0);
        return std::vector<ProfileNode*>{p.root.get(), total.get(), total->children.at(0).get(),
                                         total->children.at(0)->children.at(0).get(),
                                         total->children.at(1).get()};
    };
    const auto a = nodes(*quiet), b = nodes(*traced);
    for (size_t n = 0; n < a.size(); ++n) {
        EXPECT_EQ(a[n]->duration, b[n]->duration) << "node " << n;
        EXPECT_EQ(a[n]->self_time, b[n]->self_time) << "node " << n;
    }
    EXPECT_EQ(a[2]->self_time[4999], 39u - 18);  // FW
    EXPECT_EQ(a[1]->self_time[4999], 39u + 4 + 4999 % 17);
}
