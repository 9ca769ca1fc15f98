// SoC identification from "ro.hardware", set once per process: each name in a child of its own.
#include <android-base/properties.h>
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "util/zel_utils.h"

namespace {

using zel::util::SocInfo;
using zel_test::Line;

std::string Figures(const SocInfo& soc) {
    return soc.soc_name + "," + std::to_string(soc.first_figure) + "," +
           std::to_string(soc.second_figure);
}

// Figures, "<" with the hardware name appended, and log lines of a SocInfo with this "ro.hardware".
std::string Identify(const char* hardware) {
    return zel_test::RunInChild([hardware] {
        if (hardware != nullptr) android::base::SetProperty("ro.hardware", hardware);
        zel_test::LogCapture log;
        SocInfo soc;
        std::string out = Figures(soc) + " <";
        soc.get_hw_name(out);
        for (const std::string& message : log.messages())
            out += " | " + message;
        return out;
    });
}

TEST(SocInfoTest, IdentifiesSupportedChipsAndTrimsNames) {
    EXPECT_EQ("4460,3,4 <ab4460 | " + Line("* Set SOC name as 4460\n"), Identify("ab4460"));
    EXPECT_EQ("4420,2,1 <xy4420rev | " + Line("* Set SOC name as 4420\n"), Identify("xy4420rev"));
    EXPECT_EQ("linux,1,1 <linux | " + Line("* Set SOC name as linux\n"), Identify("linux"));
    const std::string failed = " | " + Line("* Fail to initialize SOC info.\n");
    EXPECT_EQ(",0,0 <ab9999 | " + Line("  Fail to find 9999 in pre-defined SOC list.\n") + failed,
              Identify("ab9999"));
    const std::string no_number =
            " | " + Line("  Fail to get device model number from hw property\n") + failed;
    EXPECT_EQ(",0,0 <4420" + no_number, Identify("4420"));
    EXPECT_EQ(",0,0 <" + no_number, Identify(nullptr));

    // In this process "ro.hardware" is not set. Trimming keeps the last run of digits; a number
    // missing from the table leaves the data as they were.
    zel_test::LogCapture quiet;
    SocInfo soc;
    std::string names[] = {"ab4420x", "a1b22", "4420", "abc", "", "marlowcar9"}, trimmed;
    for (std::string& name : names)
        trimmed += std::to_string(soc.get_trim_number(name)) + ":" + name + " ";
    EXPECT_EQ("0:4420 0:22 1:4420 1:abc 1: 0:marlowcar9 ", trimmed);
    std::string known = "4430", unknown = "9999";
    EXPECT_EQ(0, soc.set_soc_data(known));
    EXPECT_EQ(1, soc.set_soc_data(unknown));
    EXPECT_EQ("4430,2,1", Figures(soc));
}

}  // namespace
