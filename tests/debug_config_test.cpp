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
// then the flag after set_dump_available() with the dump zone turned on, then off.
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

// A level in the table wins over the property, one outside it keeps the default (levels are cut to
// 32 bits). "0", no number or no level: the property is the mask if whole and non-negative.
TEST(DebugConfigTest, LevelFromEnvironmentElsePropertyAsMask) {
    const char* cases[][3] = {
            {"-", "-", "0x3"},     {"1", "0xff", "0x1"},       {"3", "-", "0x7"},
            {"4", "-", "0xf"},     {"5", "-", "0xff"},         {"9", "0xff", "0x3"},
            {"0", "0xff", "0xff"}, {"4294967300", "-", "0xf"}, {"abc", "255", "0xff"},
            {"-", "0", "0x0"},     {"-", "-1", "0x3"},         {"-", "0x1f junk", "0x3"}};
    for (const auto& [level, property, mask] : cases)
        EXPECT_EQ(std::string(mask) + " 0", ConfigFor(level, property)) << level << property;
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
