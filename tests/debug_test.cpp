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
    void SetUp() override { Set(0x3); }
    void TearDown() override { Set(saved_); }
    static void Set(uint64_t mask) { DbgPrintManager::GetInstance()->set_mask(mask); }
    static uint64_t Mask() { return DbgPrintManager::GetInstance()->get_print_mask(); }

  private:
    const uint64_t saved_ = Mask();
};

TEST_F(DebugTest, ZoneOperationsAndTheMaskTestWorkIn32Bits) {
    EXPECT_EQ(0, zel_set_debug_zone(static_cast<DbgPartition>(21)));
    EXPECT_EQ(3, zel_set_debug_zone(static_cast<DbgPartition>(22)));
    EXPECT_EQ(3, zel_clr_debug_zone(static_cast<DbgPartition>(22)));
    EXPECT_EQ(0x200003u, Mask());
    // The complement is taken in 32 bits, so clearing any zone drops bits 32..63 as well.
    Set(0xFFFF00000000000FUL);
    EXPECT_EQ(0, zel_clr_debug_zone(ZONE_ERR));
    EXPECT_EQ(0xEu, Mask());

    Set(0);
    EXPECT_TRUE(check_print_mask(static_cast<DbgPartition>(63), PRINT_ALWAYS));
    EXPECT_FALSE(check_print_mask(ZONE_ERR, PRINT_IF_ON));
    Set(0x3);
    EXPECT_TRUE(check_print_mask(ZONE_WAR, PRINT_TRACE));
    EXPECT_FALSE(check_print_mask(ZONE_INF, PRINT_TRACE));
    // Zone numbers wrap at 32 (zone 33 tests bit 1), and bit 32 is never tested.
    EXPECT_TRUE(check_print_mask(static_cast<DbgPartition>(33), PRINT_IF_ON));
    Set(1ULL << 32);
    EXPECT_FALSE(check_print_mask(static_cast<DbgPartition>(32), PRINT_IF_ON));
}

// Every zone with a table entry prints at its priority although the mask holds only ERR and WAR:
// the function leaves the mask to its callers.
TEST_F(DebugTest, PrintLogWritesOneLinePerCallWithPrefixAndTag) {
    LogCapture log;
    EXPECT_EQ(4, zel_print_log(nullptr, static_cast<DbgPartition>(8), "f", 1, "  x\n"));
    EXPECT_EQ(4, zel_print_log(nullptr, ZONE_DUMP, "f", 1, "  x\n"));
    EXPECT_TRUE(log.lines().empty());

    const std::pair<int, std::string> zones[] = {
            {ANDROID_LOG_ERROR, "ERR"}, {ANDROID_LOG_WARN, "WAR"},  {ANDROID_LOG_INFO, "INF"},
            {ANDROID_LOG_DEBUG, "DBG"}, {ANDROID_LOG_DEBUG, "TST"}, {ANDROID_LOG_DEBUG, "MEM"},
            {ANDROID_LOG_DEBUG, "USR"}, {ANDROID_LOG_DEBUG, "DBGr"}};
    const auto& table = DbgPrintManager::GetInstance()->get_debug_zone_info();
    for (uint64_t zone = 0; zone < 8; ++zone) {
        const auto partition = static_cast<DbgPartition>(zone);
        EXPECT_EQ(zones[zone].second, table.at(partition).label);
        EXPECT_EQ(0, zel_print_log(nullptr, partition, "f", 1,
                                   "  Get filename(%s), size(%u), offset(%u)\n", "a.bin", 3u, 0u));
    }
    EXPECT_EQ(0, zel_print_log("OTHER_TAG", ZONE_ERR, "f", 1, "* code %d\n", -7));
    EXPECT_EQ(0, zel_print_log(nullptr, ZONE_DBGR, "f", 1, "%s: %s", "a", "b"));
    // The format is cut behind the prefix at 1023 characters and still used with every argument.
    EXPECT_EQ(0, zel_print_log(nullptr, ZONE_ERR, "f", 1,
                               (std::string(1012, 'f') + "%s|%s").c_str(), "A", "lost"));

    const auto lines = log.lines();
    ASSERT_EQ(11u, lines.size());
    for (size_t zone = 0; zone < 8; ++zone) {
        EXPECT_EQ(zones[zone].first, lines[zone].priority) << zone;
        EXPECT_EQ("ZEL_FRAMEWORK", lines[zone].tag) << zone;
        EXPECT_EQ("2.1.17:   Get filename(a.bin), size(3), offset(0)\n", lines[zone].message);
    }
    EXPECT_EQ("OTHER_TAG", lines[8].tag);
    EXPECT_EQ(Line("* code -7\n"), lines[8].message);
    EXPECT_EQ("2.1.17: a: b", lines[9].message);
    EXPECT_EQ("2.1.17: " + std::string(1012, 'f') + "A|", lines[10].message);
}

// A filtered message evaluates none of its arguments. A stream message prints the text gathered so
// far at each std::endl and keeps it.
TEST_F(DebugTest, MacrosAndStreamMessages) {
    LogCapture log;
    int evaluations = 0;
    const auto Evaluate = [&evaluations] { return ++evaluations; };
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  value(%d)\n", Evaluate());
    ZEL_MSG(ZONE_MEM) << "value " << Evaluate() << std::endl;
    ZelMsgHandler("fn", 8, ZONE_INF) << "not shown" << std::endl;
    EXPECT_EQ(0, evaluations);
    EXPECT_TRUE(log.lines().empty());

    ZEL_LOG(ZONE_DBG, PRINT_ALWAYS, "  value(%d)\n", Evaluate());
    ZEL_LOG(ZONE_WAR, PRINT_IF_ON, "  value(%d)\n", Evaluate());
    zel_set_debug_zone(ZONE_MEM);
    ZEL_MSG(ZONE_MEM) << "value " << Evaluate() << std::endl;
    EXPECT_EQ(3, evaluations);
    {
        ZelMsgHandler msg("fn", 7, ZONE_WAR);
        msg << "Handle is created: " << 12 << std::endl;
        msg << ", more " << 3u << std::endl;
        EXPECT_STREQ("Handle is created: 12, more 3", msg.c_str());
    }  // and prints nothing more when it goes
    EXPECT_EQ((std::vector<std::string>{Line("  value(1)\n"), Line("  value(2)\n"),
                                        MsgLine("value 3"), MsgLine("Handle is created: 12"),
                                        MsgLine("Handle is created: 12, more 3")}),
              log.messages());
    EXPECT_EQ(ANDROID_LOG_WARN, log.lines()[3].priority);
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
    // Text that reads as 0 leaves the value alone; "0x10" reads the leading 0 (decimal only).
    for (const char* text : {"0", "abc", "0x10"}) {
        setenv("ZEL_TEST_NUMBER", text, 1);
        EXPECT_EQ(1, zel::util::get_environment_variable_u64("ZEL_TEST_NUMBER", &value)) << text;
    }
    EXPECT_EQ(77u, value);
    setenv("ZEL_TEST_NUMBER", "12abc", 1);
    EXPECT_EQ(0, zel::util::get_environment_variable_u64("ZEL_TEST_NUMBER", &value));
    EXPECT_EQ(12u, value);
    unsetenv("ZEL_TEST_NUMBER");
}

}  // namespace
