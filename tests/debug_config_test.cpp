// How the print mask is configured on first use. Each case runs in a fresh child process, since
// a process configures the mask only once; this executable never touches the singleton itself.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "debug/zel_debug.h"
#include "support/child_process.h"

namespace {

using zel::debug::DbgPrintManager;

// The mask and dump flag a process ends up with for this environment and property.
std::string ConfigFor(const char* level, const char* property) {
    return zel_test::RunInChild([=] {
        level != nullptr ? setenv("VRT_LOG_LEVEL", level, 1) : unsetenv("VRT_LOG_LEVEL");
        if (property != nullptr)
            android::base::SetProperty("vendor.property.for.talorn.nn", property);
        DbgPrintManager* manager = DbgPrintManager::GetInstance();
        char text[64];
        snprintf(text, sizeof(text), "0x%llx dump=%d",
                 static_cast<unsigned long long>(manager->print_mask), manager->dump_available);
        return std::string(text);
    });
}

TEST(DebugConfigTest, LevelFromEnvironmentElsePropertyAsMask) {
    EXPECT_EQ("0x3 dump=0", ConfigFor(nullptr, nullptr));
    EXPECT_EQ("0x1 dump=0", ConfigFor("1", "0xff"));
    EXPECT_EQ("0x3 dump=0", ConfigFor("2", nullptr));
    EXPECT_EQ("0x7 dump=0", ConfigFor("3", nullptr));
    EXPECT_EQ("0xf dump=0", ConfigFor("4", nullptr));
    EXPECT_EQ("0xff dump=0", ConfigFor("5", nullptr));
    // A level outside the table keeps the default and still ignores the property.
    EXPECT_EQ("0x3 dump=0", ConfigFor("9", "0xff"));
    EXPECT_EQ("0x3 dump=0", ConfigFor("12abc", "0xff"));
    // The level is truncated to 32 bits before the lookup: 2^32 + 4 is level 4.
    EXPECT_EQ("0xf dump=0", ConfigFor("4294967300", nullptr));

    // "0" and text that is not a number count as no level: the property is the mask, bit for bit.
    EXPECT_EQ("0xff dump=0", ConfigFor("0", "0xff"));
    EXPECT_EQ("0xff dump=0", ConfigFor("abc", "0xff"));
    EXPECT_EQ("0xff dump=0", ConfigFor(nullptr, "255"));
    EXPECT_EQ("0x0 dump=0", ConfigFor(nullptr, "0"));
    EXPECT_EQ("0x3 dump=0", ConfigFor(nullptr, "-1"));
    EXPECT_EQ("0x3 dump=0", ConfigFor(nullptr, "0x1f junk"));
    EXPECT_EQ("0x7fff00000000000f dump=0", ConfigFor(nullptr, "0x7fff00000000000f"));
}

// Bit 20 asks for the dump directory; the flag says whether it is there.
TEST(DebugConfigTest, DumpZoneCreatesTheDumpDirectory) {
    for (const char* dir : {"/data", "/data/vendor", "/data/vendor/zel"})
        if (mkdir(dir, 0775) != 0 && errno != EEXIST) GTEST_SKIP() << "cannot create " << dir;
    rmdir("/data/vendor/zel/dump/");  // only succeeds when empty; either way the flag follows

    EXPECT_EQ("0x100007 dump=1", ConfigFor(nullptr, "0x100007"));
    struct stat st;
    ASSERT_EQ(0, stat("/data/vendor/zel/dump/", &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ("0x100007 dump=1", ConfigFor(nullptr, "0x100007"));  // already there

    // Turning the zone on later takes effect only at set_dump_available().
    EXPECT_EQ("0 1 0", zel_test::RunInChild([] {
                  unsetenv("VRT_LOG_LEVEL");
                  DbgPrintManager* manager = DbgPrintManager::GetInstance();
                  std::string seen = std::to_string(manager->dump_available);
                  zel::debug::zel_set_debug_zone(zel::debug::ZONE_DUMP);
                  zel::debug::set_dump_available();
                  seen += " " + std::to_string(manager->dump_available);
                  zel::debug::zel_clr_debug_zone(zel::debug::ZONE_DUMP);
                  manager->set_dump_available();
                  return seen + " " + std::to_string(manager->dump_available);
              }));
}

}  // namespace
