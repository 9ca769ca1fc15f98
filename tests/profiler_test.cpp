// Profiler core: recording, raw data, finalize, the stage tree and export.
#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <stdexcept>

#include "profiler_test_util.h"

using namespace zel::util;
using namespace profiler_test;
using zel_test::Line;
using ProfilerTest = Fixture;

TEST_F(ProfilerTest, RecordFinalizeRefuseAndExport) {
    // TOTAL/7 { NPU_OP/0x1f } three times, then a lone TOTAL/7 start.
    Mask(0x7);
    ZelProfiler p(5, 100, "service", true);
    for (uint64_t i = 0; i < 3; ++i) {
        p.add_record_start(TOTAL, 7, i);
        p.add_record_start(NPU_OP, 0x1f, i);
        p.add_record_end(NPU_OP, 0x1f, i);
        p.add_record_end(TOTAL, 7, i);
    }
    p.add_record_start(TOTAL, 7, 3);
    EXPECT_EQ(p.export_rawdata_to_file(), "");
    ASSERT_EQ(p.finalize(), 0);
    EXPECT_EQ(p.rawdata_size * 100 + p.num_label * 10 + p.num_iter, 52043u);
    p.add_record_end(CLIENT, 1, 1);
    ProfileLabel label = CLIENT;
    uint64_t postfix = 1, iter = 2;
    p.add_record(START, label, postfix, iter);  // never refused
    EXPECT_EQ(p.queue.size(), 1u);
    EXPECT_EQ(p.finalize() + p.generate_rawdata_from_queue(), 1);  // finalized already
    // The dump counts 64-bit words: records 0, 1, 2 print as 0, 5, 10.
    for (const std::string& line :
         {"  [5] label(NPU_OP) labelPostfix(31) type(0) iterKey(0) timestamp(" +
                  std::to_string(p.rawdata[1].timestamp) + ")\n",
          std::string("* Need to be finalized to export file\n"),
          std::string("  Get count of profile_labels. start/end(TOTAL) = cnt(4)\n"),
          std::string("* Cannot add new profile data after finalized. label(24)\n"),
          std::string("* Wrong flow. We already have rawdata\n")})
        EXPECT_TRUE(log.contains(Line(line))) << line;
    ZelProfiler open(9, 100, "service", false);  // the first label never recurs: stays open
    open.add_record_start(TOTAL, 7, 0);
    open.add_record_start(NPU_OP, 0, 0);
    EXPECT_EQ(open.finalize() + open.finalized, 0);

    for (const char* dir : {"/data", "/data/vendor", "/data/vendor/zel"}) {
        if (mkdir(dir, 0775) != 0 && errno != EEXIST) GTEST_SKIP() << "cannot create " << dir;
    }
    const std::string path = p.export_rawdata_to_file();
    ASSERT_EQ(path, "/data/vendor/zel/profile_rawdata_5.bin");
    std::ifstream in(path, std::ios::binary);  // the incomplete iteration too
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}),
              std::string(reinterpret_cast<const char*>(p.rawdata), 520));
    ZelProfiler from_file(5, path.c_str(), 100, 3, 4);  // only the size: nothing to finalize
    EXPECT_EQ(from_file.finalize() + from_file.finalized + from_file.fastTrack +
                      from_file.show_flag + from_file.relative_timestamp + from_file.rawdata_size,
              520u);
    std::remove(path.c_str());
}

TEST_F(ProfilerTest, TimesAgreeTracedOrQuietAndAFailedFillComputesNone) {
    // root { TOTAL/7 { FW { NPU_OP/2 }, TOTAL/9 } }, 5000 iterations: quiet (blocks of 2048) and
    // traced (iteration by iteration) agree.
    std::vector<ZelProfileData> r;
    for (uint64_t i = 0; i < 5000; ++i) {
        const uint64_t t = 1000 * i, d = i % 17;
        r.insert(r.end(), {Start(TOTAL, 7, t), Start(FW, 0, t + 1), Start(NPU_OP, 2, t + 2 + d),
                           End(NPU_OP, 2, t + 20 + d), End(FW, 0, t + 40), Start(TOTAL, 9, t + 41),
                           End(TOTAL, 9, t + 45 + d), End(TOTAL, 7, t + 90)});
    }
    auto quiet = FromRecords(r, 5000, 8), traced = FromRecords(r, 5000, 8);
    ASSERT_EQ(quiet->finalize(), 0);
    Mask(0xF);
    ASSERT_EQ(traced->finalize() + traced->calculate_self_time(), 0);  // again: the same times
    Mask(0x3);
    EXPECT_EQ(quiet->calculate_self_time(), 0);
    EXPECT_FALSE(quiet->relative_timestamp || quiet->show_flag);  // a profiler of raw data
    const ProfileNode* q[] = {quiet->root.get(), quiet->root->children.at(0).get(), nullptr};
    q[2] = q[1]->children.at(0).get();  // FW
    const ProfileNode* t[] = {traced->root.get(), traced->root->children[0].get(), nullptr};
    t[2] = t[1]->children.at(0).get();
    for (int n = 0; n < 3; ++n)
        EXPECT_TRUE(q[n]->duration == t[n]->duration && q[n]->self_time == t[n]->self_time) << n;
    EXPECT_EQ(q[1]->end_idx * 100 + q[1]->children.at(1)->start_idx, 705);
    EXPECT_EQ(q[0]->duration[4999] * 1000 + q[0]->self_time[4999], 90u);  // root: its children
    EXPECT_EQ(q[1]->self_time[4999], 39u + 4 + 4999 % 17);  // TOTAL counts what they measured
    EXPECT_EQ(q[2]->self_time[4999], 39u - 18);             // FW what they did not cover

    // The last iteration runs backwards, or is claimed and not held: times are stored up to the
    // failure, and no duration or self time exists.
    r[4999 * 8 + 7].timestamp = 4999000 + 30;
    auto backwards = FromRecords(r, 5000, 8);
    r.resize(8 * 4999);
    auto claimed = FromRecords(r, 5000, 8);
    for (ZelProfiler* p : {backwards.get(), claimed.get()}) {
        EXPECT_THROW(p->finalize(), std::runtime_error);
        const auto& total = p->root->children.at(0);
        EXPECT_EQ(total->start_time.at(4998) + total->children.at(0)->end_time[0], 4998040u);
        const std::vector<uint64_t> none(total->duration.size(), 0);
        EXPECT_TRUE(total->duration == none && p->root->self_time == none && !p->finalized);
    }
    // (TOTAL, 0) closes the root; pairs that do not nest leave a record without its node.
    auto closed = FromRecords({Start(TOTAL, 0, 1), End(NPU_OP, 0, 2), End(TOTAL, 0, 3)}, 1, 3);
    EXPECT_EQ(closed->grow_tree() + backwards->grow_tree(), 0);
    EXPECT_EQ(closed->root->children.size() + closed->end_node_map.count(0), 1u);
    EXPECT_THROW(FromRecords({Start(TOTAL, 7, 1), Start(NPU_OP, 0, 2), Start(DSP_OP, 0, 3),
                              End(NPU_OP, 0, 4), End(DSP_OP, 0, 5), End(TOTAL, 7, 6)},
                             1, 6)
                         ->finalize(),
                 std::runtime_error);
    for (const char* line :
         {"* Wrong flow! timestamp(TOTAL:4999030) is smaller than previous "
          "timestamp(TOTAL:4999046).  iter[4999]\n",
          "* Raw data too small for its counts. name[default] num_iter(5000) "
          "num_label(8) size(1599680)\n",
          "* Fail to find end label. label_count[3]\n",
          "  -- depth[0] idx[0] child[0] --> duration(90)\n",
          "  [0] label(TOTAL             ) labelPostfix(0x               7) type(   "
          "0) iterKey(0x               0) timestamp(0)\n"})
        EXPECT_TRUE(log.contains(Line(line))) << line;
    EXPECT_EQ(log.count(Line("* Fail to fill_data_to_tree\n")), 3u);
}

TEST_F(ProfilerTest, DeepNestingIsWalkedWithoutTheThreadsStack) {
    // 150 000 nested stages: building, self times, both reports and the release walk them.
    constexpr uint64_t kDepth = 150000;
    std::vector<ZelProfileData> records;
    for (uint64_t i = 0, t = 0; i < 2; ++i, t = 1000000) {
        records.push_back(Start(TOTAL, 7, t++, i));
        for (uint64_t d = 1; d <= kDepth; ++d)
            records.push_back(Start(FW, d, t++, i));
        for (uint64_t d = kDepth; d >= 1; --d)
            records.push_back(End(FW, d, t++, i));
        records.push_back(End(TOTAL, 7, t, i));
    }
    auto p = FromRecords(records, 2, 2 * kDepth + 2);
    ASSERT_EQ(p->finalize(), 0);
    const ProfileNode* node = p->root.get();
    for (uint64_t depth = 0; depth <= kDepth; ++depth)
        node = node->children.at(0).get();
    EXPECT_EQ(node->duration[1], 1u);  // the innermost stage
    EXPECT_EQ(p->root->children[0]->duration[0], 2 * kDepth + 1);
    // Counted, not kept: each line carries up to a kilobyte of depth prefix.
    static std::atomic<size_t> lines{0};
#if defined(__ANDROID__)
    __android_log_set_logger([](const struct __android_log_message*) { ++lines; });
#else
    __android_log_set_logger([](const struct __android_logger_data*, const char*) { ++lines; });
#endif
    p->show_output(true);
    EXPECT_GT(lines.load(), 2 * kDepth);  // every stage in both reports
    p.reset();
}
