// SoC identification from "ro.hardware". Read-only properties are set once per process, so each
// hardware name is tried in a child of its own.
#include "util/zel_utils.h"

#include <android-base/properties.h>
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/log_capture.h"

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
        return out;
    });
}

TEST(SocInfo, IdentifiesSupportedChips) {
    EXPECT_EQ("4460,3,4 | " + Line("* Set SOC name as 4460\n"), Identify("ab4460"));
    EXPECT_EQ("4420,2,1 | " + Line("* Set SOC name as 4420\n"), Identify("xy4420rev"));
    EXPECT_EQ("linux,1,1 | " + Line("* Set SOC name as linux\n"), Identify("linux"));
    const std::string failed = " | " + Line("* Fail to initialize SOC info.\n");
    EXPECT_EQ(",0,0 | " + Line("  Fail to find 9999 in pre-defined SOC list.\n") + failed,
              Identify("ab9999"));
    const std::string no_number =
            ",0,0 | " + Line("  Fail to get device model number from hw property\n") + failed;
    EXPECT_EQ(no_number, Identify("4420"));
    EXPECT_EQ(no_number, Identify(nullptr));
}

TEST(SocInfo, TrimKeepsTheLastRunOfDigits) {
    const std::string result = zel_test::RunInChild([] {
        android::base::SetProperty("ro.hardware", "ab4410");
        SocInfo soc;
        std::string out;
        for (const char* name : {"ab4420x", "a1b22", "4420", "abc", "", "marlowcar9"}) {
            std::string trimmed = name;
            out += std::to_string(soc.get_trim_number(trimmed)) + ":" + trimmed + " ";
        }
        std::string hw;
        soc.get_hw_name(hw);
        soc.get_hw_name(hw);  // appends, does not replace
        std::string unknown = "9999", known = "4430";
        out += hw + " " + std::to_string(soc.set_soc_data(unknown)) + soc.soc_name + " ";
        out += std::to_string(soc.set_soc_data(known)) + soc.soc_name;
        return out + std::to_string(soc.first_figure) + std::to_string(soc.second_figure);
    });
    EXPECT_EQ("0:4420 0:22 1:4420 1:abc 1: 0:marlowcar9 ab4410ab4410 14410 0443021", result);
}

}  // namespace
