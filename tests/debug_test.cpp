// Mask operations and log emission on the configured singleton.
#include "debug/zel_debug.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace {

using namespace zel::debug;
using zel_test::Line;
using zel_test::LogCapture;
using zel_test::MsgLine;

// Each test starts from mask 3 and leaves the mask as it found it.
class DebugTest : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_ = DbgPrintManager::GetInstance()->get_print_mask();
        DbgPrintManager::GetInstance()->set_mask(0x3);
    }
    void TearDown() override { DbgPrintManager::GetInstance()->set_mask(saved_); }
    uint64_t mask() { return DbgPrintManager::GetInstance()->get_print_mask(); }

  private:
    uint64_t saved_ = 0;
};

TEST_F(DebugTest, ZoneTableHoldsEightZones) {
    const auto& table = DbgPrintManager::GetInstance()->get_debug_zone_info();
    ASSERT_EQ(8u, table.size());
    const std::vector<std::pair<int, std::string>> expected = {{6, "ERR"}, {5, "WAR"}, {4, "INF"},
                                                               {3, "DBG"}, {3, "TST"}, {3, "MEM"},
                                                               {3, "USR"}, {3, "DBGr"}};
    for (uint64_t zone = 0; zone < 8; ++zone) {
        const DebugPartitionInfo& info = table.at(static_cast<DbgPartition>(zone));
        EXPECT_EQ(expected[zone].first, info.priority) << zone;
        EXPECT_EQ(expected[zone].second, info.label) << zone;
        EXPECT_TRUE(info.extra1.empty() && info.extra2.empty());
    }
}

TEST_F(DebugTest, ZoneSetAndClearWithTheir32BitQuirks) {
    EXPECT_EQ(0, zel_set_debug_zone(static_cast<DbgPartition>(21)));
    EXPECT_EQ(0x200003u, mask());
    EXPECT_EQ(3, zel_set_debug_zone(static_cast<DbgPartition>(22)));
    EXPECT_EQ(3, zel_clr_debug_zone(static_cast<DbgPartition>(22)));
    EXPECT_EQ(0x200003u, mask());

    // The complement is taken in 32 bits, so clearing any zone drops bits 32..63 as well.
    DbgPrintManager::GetInstance()->set_mask(0xFFFF00000000000FUL);
    EXPECT_EQ(0, zel_clr_debug_zone(ZONE_ERR));
    EXPECT_EQ(0xEu, mask());
}

TEST_F(DebugTest, CheckPrintMaskTestsOnlyTheLow32Bits) {
    DbgPrintManager::GetInstance()->set_mask(0);
    EXPECT_TRUE(check_print_mask(ZONE_DBG, PRINT_ALWAYS));
    EXPECT_TRUE(check_print_mask(static_cast<DbgPartition>(63), PRINT_ALWAYS));
    EXPECT_FALSE(check_print_mask(ZONE_ERR, PRINT_IF_ON));

    DbgPrintManager::GetInstance()->set_mask(0x3);
    EXPECT_TRUE(check_print_mask(ZONE_WAR, PRINT_TRACE));
    EXPECT_FALSE(check_print_mask(ZONE_INF, PRINT_TRACE));
    // Zone numbers wrap at 32: zone 33 tests bit 1.
    EXPECT_TRUE(check_print_mask(static_cast<DbgPartition>(33), PRINT_IF_ON));

    DbgPrintManager::GetInstance()->set_mask(1ULL << 32);
    EXPECT_FALSE(check_print_mask(static_cast<DbgPartition>(32), PRINT_IF_ON));
    EXPECT_FALSE(check_print_mask(ZONE_ERR, PRINT_IF_ON));
}

TEST_F(DebugTest, PrintLogWritesOneLinePerCallWithPrefixAndTag) {
    LogCapture log;
    EXPECT_EQ(4, zel_print_log(nullptr, static_cast<DbgPartition>(8), "f", 1, "  x\n"));
    EXPECT_EQ(4, zel_print_log(nullptr, ZONE_DUMP, "f", 1, "  x\n"));
    EXPECT_TRUE(log.lines().empty());

    // The function ignores the mask: zone 2 prints although only ERR and WAR are on.
    EXPECT_EQ(0, zel_print_log(nullptr, ZONE_INF, "f", 1,
                               "  Get filename(%s), size(%u), offset(%u)\n", "a.bin", 3u, 0u));
    EXPECT_EQ(0, zel_print_log("OTHER_TAG", ZONE_ERR, "f", 1, "* code %d\n", -7));
    EXPECT_EQ(0, zel_print_log(nullptr, ZONE_DBGR, "f", 1, "%s: %s", "a", "b"));

    const auto lines = log.lines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(ANDROID_LOG_INFO, lines[0].priority);
    EXPECT_EQ("ZEL_FRAMEWORK", lines[0].tag);
    EXPECT_EQ("2.1.17:   Get filename(a.bin), size(3), offset(0)\n", lines[0].message);
    EXPECT_EQ(ANDROID_LOG_ERROR, lines[1].priority);
    EXPECT_EQ("OTHER_TAG", lines[1].tag);
    EXPECT_EQ(Line("* code -7\n"), lines[1].message);
    EXPECT_EQ(ANDROID_LOG_DEBUG, lines[2].priority);
    EXPECT_EQ("2.1.17: a: b", lines[2].message);
}

TEST_F(DebugTest, PrintLogCutsTheFormatAt1023Characters) {
    LogCapture log;
    // The format is cut behind the prefix; the cut format is still used with every argument.
    const std::string format = std::string(1012, 'f') + "%s|%s";
    EXPECT_EQ(0, zel_print_log(nullptr, ZONE_ERR, "f", 1, format.c_str(), "A", "lost"));
    // A short format with a long argument is not cut by the library (liblog caps a whole line
    // at its own 1023 characters).
    const std::string argument(600, 'a');
    EXPECT_EQ(0, zel_print_log(nullptr, ZONE_ERR, "f", 1, "<%s>", argument.c_str()));
    const auto messages = log.messages();
    ASSERT_EQ(2u, messages.size());
    EXPECT_EQ("2.1.17: " + std::string(1012, 'f') + "A|", messages[0]);
    EXPECT_EQ("2.1.17: <" + argument + ">", messages[1]);
}

int g_evaluations = 0;
int Evaluate() {
    return ++g_evaluations;
}

TEST_F(DebugTest, MacrosEvaluateNothingForAFilteredMessage) {
    LogCapture log;
    g_evaluations = 0;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  value(%d)\n", Evaluate());
    ZEL_MSG(ZONE_MEM) << "value " << Evaluate() << std::endl;
    EXPECT_EQ(0, g_evaluations);
    EXPECT_TRUE(log.lines().empty());

    ZEL_LOG(ZONE_DBG, PRINT_ALWAYS, "  value(%d)\n", Evaluate());
    ZEL_LOG(ZONE_WAR, PRINT_IF_ON, "  value(%d)\n", Evaluate());
    zel_set_debug_zone(ZONE_MEM);
    ZEL_MSG(ZONE_MEM) << "value " << Evaluate() << std::endl;
    EXPECT_EQ(3, g_evaluations);
    EXPECT_EQ((std::vector<std::string>{Line("  value(1)\n"), Line("  value(2)\n"),
                                        MsgLine("value 3")}),
              log.messages());
}

TEST_F(DebugTest, MsgHandlerPrintsAtEachEndlAndKeepsItsText) {
    LogCapture log;
    {
        ZelMsgHandler msg("fn", 7, ZONE_WAR);
        msg << "Handle is created: " << 12 << std::endl;
        msg << ", more " << 3u << std::endl;
        EXPECT_STREQ("Handle is created: 12, more 3", msg.c_str());
        EXPECT_EQ("Handle is created: 12, more 3", msg.text);
    }
    {
        ZelMsgHandler filtered("fn", 8, ZONE_INF);
        filtered << "not shown" << std::endl;
        EXPECT_STREQ("not shown", filtered.c_str());
    }
    EXPECT_EQ((std::vector<std::string>{MsgLine("Handle is created: 12"),
                                        MsgLine("Handle is created: 12, more 3")}),
              log.messages());
    EXPECT_EQ(ANDROID_LOG_WARN, log.lines()[0].priority);
}

// Many threads log at once; every line arrives whole. Run under ThreadSanitizer in CI.
TEST_F(DebugTest, ConcurrentLoggingLosesNothing) {
    LogCapture log;
    constexpr int kThreads = 8;
    constexpr int kLines = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  thread(%d) line(%d)\n", t, i);
                ZEL_MSG(ZONE_WAR) << "thread " << t << " line " << i << std::endl;
                ZEL_LOG(ZONE_INF, PRINT_TRACE, "  filtered\n");
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(size_t{2 * kThreads * kLines}, log.lines().size());
    EXPECT_EQ(1u, log.count(Line("  thread(7) line(499)\n")));
    EXPECT_EQ(1u, log.count(MsgLine("thread 3 line 250")));
}

TEST(EnvironmentTest, ReadsDecimalNumbers) {
    uint64_t value = 77;
    unsetenv("ZEL_TEST_NUMBER");
    EXPECT_EQ(2, zel::util::get_environment_variable_u64("ZEL_TEST_NUMBER", &value));
    setenv("ZEL_TEST_NUMBER", "0", 1);
    EXPECT_EQ(1, zel::util::get_environment_variable_u64("ZEL_TEST_NUMBER", &value));
    setenv("ZEL_TEST_NUMBER", "abc", 1);
    EXPECT_EQ(1, zel::util::get_environment_variable_u64("ZEL_TEST_NUMBER", &value));
    EXPECT_EQ(77u, value);
    setenv("ZEL_TEST_NUMBER", "12abc", 1);
    EXPECT_EQ(0, zel::util::get_environment_variable_u64("ZEL_TEST_NUMBER", &value));
    EXPECT_EQ(12u, value);
    setenv("ZEL_TEST_NUMBER", "0x10", 1);  // decimal only: reads the leading 0
    EXPECT_EQ(1, zel::util::get_environment_variable_u64("ZEL_TEST_NUMBER", &value));
    unsetenv("ZEL_TEST_NUMBER");
}

}  // namespace
