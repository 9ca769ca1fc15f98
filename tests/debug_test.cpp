// Mask operations and log emission on the configured singleton (many threads at once: soak test).
#include "debug/zel_debug.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace {

using namespace zel::debug;
using zel::util::get_environment_variable_u64;
using zel_test::Line;
using zel_test::MsgLine;
using Lines = std::vector<std::string>;
const auto Zone = [](int zone) { return static_cast<DbgPartition>(zone); };

class DebugTest : public ::testing::Test {  // each test starts from mask 3
  protected:
    void SetUp() override { Set(0x3); }
    static void Set(uint64_t mask) { DbgPrintManager::GetInstance()->set_mask(mask); }
    zel_test::LogCapture log;
};

TEST_F(DebugTest, ZoneOperationsAndTheMaskTestWorkIn32Bits) {
    EXPECT_EQ(0, zel_set_debug_zone(Zone(21)));
    EXPECT_EQ(6, zel_set_debug_zone(Zone(22)) + zel_clr_debug_zone(Zone(22)));
    EXPECT_EQ(0x200003u, DbgPrintManager::GetInstance()->get_print_mask());
    Set(0xFFFF00000020000FUL);  // the complement is taken in 32 bits: bits 32..63 go as well
    EXPECT_EQ(0, zel_clr_debug_zone(Zone(21)) + zel_clr_debug_zone(ZONE_ERR));
    EXPECT_EQ(0xEu, DbgPrintManager::GetInstance()->get_print_mask());
    // Zone numbers wrap at 32 (zone 33 tests bit 1), and bit 32 is never tested.
    EXPECT_TRUE(check_print_mask(Zone(63), PRINT_ALWAYS));
    EXPECT_TRUE(check_print_mask(Zone(33), PRINT_IF_ON));
    EXPECT_TRUE(check_print_mask(ZONE_WAR, PRINT_TRACE));
    EXPECT_FALSE(check_print_mask(ZONE_ERR, PRINT_IF_ON));
    Set(1ULL << 32);
    EXPECT_FALSE(check_print_mask(Zone(32), PRINT_IF_ON));
}

// Every zone with a table entry prints at its priority, whatever the mask: that is the callers'.
TEST_F(DebugTest, PrintLogWritesOneLinePerCallWithPrefixAndTag) {
    EXPECT_EQ(8, zel_print_log(nullptr, Zone(8), "f", 1, "  x\n") +
                         zel_print_log(nullptr, ZONE_DUMP, "f", 1, "  x\n"));
    const char* labels[] = {"ERR", "WAR", "INF", "DBG", "TST", "MEM", "USR", "DBGr"};
    for (int zone = 0; zone < 8; ++zone) {
        EXPECT_EQ(labels[zone],
                  DbgPrintManager::GetInstance()->get_debug_zone_info()[Zone(zone)].label);
        EXPECT_EQ(0, zel_print_log(nullptr, Zone(zone), "f", 1, "  Get %s(%u)\n", "a.bin", 3u));
        const zel_test::LogLine line = log.lines().back();
        EXPECT_EQ(zone < 3 ? ANDROID_LOG_ERROR - zone : ANDROID_LOG_DEBUG, line.priority);
        EXPECT_EQ("ZEL_FRAMEWORK " + Line("  Get a.bin(3)\n"), line.tag + " " + line.message);
    }
    EXPECT_EQ(0, zel_print_log("OTHER_TAG", ZONE_ERR, "f", 1, "%s: %s", "a", "b"));
    // The format is cut behind the prefix at 1023 characters and still used with every argument.
    EXPECT_EQ(0, zel_print_log(nullptr, ZONE_ERR, "f", 1,
                               (std::string(1012, 'f') + "%s|%s").c_str(), "A", "lost"));
    const auto lines = log.lines();
    ASSERT_EQ(10u, lines.size());
    EXPECT_EQ("OTHER_TAG " + Line("a: b"), lines[8].tag + " " + lines[8].message);
    EXPECT_EQ(Line(std::string(1012, 'f') + "A|"), lines[9].message);
}

// A filtered message evaluates none of its arguments (the values printed count the evaluations). A
// stream message prints the text gathered so far at each std::endl and keeps it.
TEST_F(DebugTest, MacrosAndStreamMessages) {
    int evaluations = 0;
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  value(%d)\n", ++evaluations);
    ZEL_MSG(ZONE_MEM) << "value " << ++evaluations << std::endl;
    ZelMsgHandler("fn", 8, ZONE_INF) << "not shown" << std::endl;
    ZEL_LOG(ZONE_DBG, PRINT_ALWAYS, "  value(%d)\n", ++evaluations);
    ZEL_LOG(ZONE_WAR, PRINT_IF_ON, "  value(%d)\n", ++evaluations);
    zel_set_debug_zone(ZONE_MEM);
    ZEL_MSG(ZONE_MEM) << "value " << ++evaluations << std::endl;
    {
        ZelMsgHandler msg("fn", 7, ZONE_WAR);
        msg << "Handle is created: " << 12 << std::endl;
        msg << ", more " << 3u << std::endl;
        EXPECT_STREQ("Handle is created: 12, more 3", msg.c_str());
    }  // and prints nothing more when it goes
    EXPECT_EQ((Lines{Line("  value(1)\n"), Line("  value(2)\n"), MsgLine("value 3"),
                     MsgLine("Handle is created: 12"), MsgLine("Handle is created: 12, more 3")}),
              log.messages());
    EXPECT_EQ(ANDROID_LOG_WARN, log.lines()[3].priority);
}

// Text that reads as 0 leaves the value alone; "0x10" reads its leading 0 (decimal only).
TEST_F(DebugTest, EnvironmentNumbersAreDecimal) {
    uint64_t value = 77;
    unsetenv("ZEL_TEST_NUMBER");
    EXPECT_EQ(2, get_environment_variable_u64("ZEL_TEST_NUMBER", &value));
    for (const char* text : {"12abc", "0", "abc", "0x10"}) {
        setenv("ZEL_TEST_NUMBER", text, 1);
        EXPECT_EQ(text[0] == '1' ? 0 : 1, get_environment_variable_u64("ZEL_TEST_NUMBER", &value));
        EXPECT_EQ(1, get_environment_variable_u64("ZEL_TEST_NUMBER", nullptr));
    }
    EXPECT_EQ(12u, value);
    EXPECT_EQ(1, get_environment_variable_u64(nullptr, &value));
    EXPECT_EQ((Lines{Line("* No place for the value of ZEL_TEST_NUMBER\n"),
                     Line("* Environment variable name is nullptr\n")}),
              log.messages());
}

}  // namespace
