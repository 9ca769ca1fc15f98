// SoC identification from "ro.hardware", set once per process: each name in a child of its own.
#include <android-base/properties.h>
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "util/zel_utils.h"

namespace {

using zel::util::SocInfo;
using zel_test::Line;

// "<name>,<first>,<second>" and the log lines of identifying with "ro.hardware" = `hardware`.
std::string Identify(const char* hardware) {
    return zel_test::RunInChild([hardware] {
        if (hardware != nullptr) android::base::SetProperty("ro.hardware", hardware);
        zel_test::LogCapture log;
        SocInfo soc;
        std::string out = soc.soc_name + "," + std::to_string(soc.first_figure) + "," +
                          std::to_string(soc.second_figure);
        for (const std::string& message : log.messages())
            out += " | " + message;
        // Trimming keeps the last run of digits; the hardware name is appended, not replaced.
        for (const char* name : {"ab4420x", "a1b22", "4420", "abc", "", "marlowcar9"}) {
            std::string trimmed = name;
            out += " " + std::to_string(soc.get_trim_number(trimmed)) + ":" + trimmed;
        }
        std::string hw = "<";
        soc.get_hw_name(hw);
        std::string unknown = "9999", known = "4430";
        out += " " + hw + std::to_string(soc.set_soc_data(unknown)) + soc.soc_name;
        out += std::to_string(soc.set_soc_data(known)) + soc.soc_name;
        return out + std::to_string(soc.first_figure) + std::to_string(soc.second_figure);
    });
}

TEST(SocInfoTest, IdentifiesSupportedChipsAndTrimsNames) {
    const std::string tail = " 0:4420 0:22 1:4420 1:abc 1: 0:marlowcar9 <";
    EXPECT_EQ("4460,3,4 | " + Line("* Set SOC name as 4460\n") + tail + "ab446014460" + "0443021",
              Identify("ab4460"));
    EXPECT_EQ(
            "4420,2,1 | " + Line("* Set SOC name as 4420\n") + tail + "xy4420rev14420" + "0443021",
            Identify("xy4420rev"));
    EXPECT_EQ("linux,1,1 | " + Line("* Set SOC name as linux\n") + tail + "linux1linux0443021",
              Identify("linux"));
    const std::string failed = " | " + Line("* Fail to initialize SOC info.\n");
    EXPECT_EQ(",0,0 | " + Line("  Fail to find 9999 in pre-defined SOC list.\n") + failed + tail +
                      "ab999910443021",
              Identify("ab9999"));
    const std::string no_number = ",0,0 | " +
                                  Line("  Fail to get device model number from hw property\n") +
                                  failed + tail;
    EXPECT_EQ(no_number + "442010443021", Identify("4420"));
    EXPECT_EQ(no_number + "10443021", Identify(nullptr));
}

}  // namespace
