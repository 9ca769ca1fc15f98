// How the print mask is configured on first use, each case in a fresh child process: a process
// configures the mask only once, and this executable never touches the singleton itself.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "debug/zel_debug.h"
#include "support/child_process.h"

namespace {

using namespace zel::debug;

// "<mask> <dump flag>" of a process with this level and property ("-": not set); with `toggle`,
// then the flag after set_dump_available() with the dump zone turned on, and again with it turned
// off.
std::string ConfigFor(const char* level, const char* property, bool toggle = false) {
    return zel_test::RunInChild([=] {
        level[0] != '-' ? setenv("VRT_LOG_LEVEL", level, 1) : unsetenv("VRT_LOG_LEVEL");
        if (property[0] != '-')
            android::base::SetProperty("vendor.property.for.talorn.nn", property);
        DbgPrintManager* manager = DbgPrintManager::GetInstance();
        char text[64];
        snprintf(text, sizeof(text), "0x%llx %d", (unsigned long long)manager->print_mask,
                 manager->dump_available);
        for (int zone_on = 1; toggle && zone_on >= 0; --zone_on) {
            zone_on ? zel_set_debug_zone(ZONE_DUMP) : zel_clr_debug_zone(ZONE_DUMP);
            zone_on ? set_dump_available() : manager->set_dump_available();
            strcat(text, manager->dump_available ? "1" : "0");
        }
        return std::string(text);
    });
}

TEST(DebugConfigTest, LevelFromEnvironmentElsePropertyAsMask) {
    // A level in the table wins over the property; one outside it keeps the default; the level is
    // truncated to 32 bits (2^32 + 4 is 4). "0", no number or no variable: the property is the
    // mask, bit for bit, when it is a whole non-negative number.
    EXPECT_EQ("0x3 0", ConfigFor("-", "-"));
    EXPECT_EQ("0x1 0", ConfigFor("1", "0xff"));
    EXPECT_EQ("0x7 0", ConfigFor("3", "-"));
    EXPECT_EQ("0xf 0", ConfigFor("4", "-"));
    EXPECT_EQ("0xff 0", ConfigFor("5", "-"));
    EXPECT_EQ("0x3 0", ConfigFor("9", "0xff"));
    EXPECT_EQ("0xf 0", ConfigFor("4294967300", "-"));
    EXPECT_EQ("0xff 0", ConfigFor("0", "0xff"));
    EXPECT_EQ("0xff 0", ConfigFor("abc", "255"));
    EXPECT_EQ("0x0 0", ConfigFor("-", "0"));
    EXPECT_EQ("0x3 0", ConfigFor("-", "-1"));
    EXPECT_EQ("0x3 0", ConfigFor("-", "0x1f junk"));
    EXPECT_EQ("0x7fff00000000000f 0", ConfigFor("-", "0x7fff00000000000f"));
}

// Bit 20 asks for the dump directory; turned on later, it takes effect at set_dump_available().
TEST(DebugConfigTest, DumpZoneCreatesTheDumpDirectory) {
    for (const char* dir : {"/data", "/data/vendor", "/data/vendor/zel"})
        if (mkdir(dir, 0775) != 0 && errno != EEXIST) GTEST_SKIP() << "cannot create " << dir;
    rmdir("/data/vendor/zel/dump/");  // only succeeds when empty; either way the flag follows
    EXPECT_EQ("0x100007 1", ConfigFor("-", "0x100007"));
    struct stat st;
    EXPECT_TRUE(stat("/data/vendor/zel/dump/", &st) == 0 && S_ISDIR(st.st_mode));
    EXPECT_EQ("0x3 010", ConfigFor("-", "-", true));  // the directory is already there
}

}  // namespace
