// SoC identification from "ro.hardware". Read-only properties are set once per process, so each
// hardware name is tried in a child of its own.
#include "util/zel_utils.h"

#include <android-base/properties.h>
#include <gtest/gtest.h>

#include <string>

#include "support/child_process.h"
#include "support/log_capture.h"

namespace {

using zel::util::SocInfo;
using zel_test::Line;
using zel_test::LogCapture;

// Identifies the chip with "ro.hardware" set to `hardware` (unset when null) and describes the
// outcome: "<name>,<first>,<second>" then the log lines.
std::string Identify(const char* hardware) {
    return zel_test::RunInChild([hardware] {
        if (hardware != nullptr) android::base::SetProperty("ro.hardware", hardware);
        LogCapture log;
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
    EXPECT_EQ("marlowcar9,1,1 | " + Line("* Set SOC name as marlowcar9\n"), Identify("marlowcar9"));
}

TEST(SocInfo, UnknownHardwareLeavesItEmpty) {
    EXPECT_EQ(",0,0 | " + Line("  Fail to find 9999 in pre-defined SOC list.\n") + " | " +
                      Line("* Fail to initialize SOC info.\n"),
              Identify("ab9999"));
    EXPECT_EQ(",0,0 | " + Line("  Fail to get device model number from hw property\n") + " | " +
                      Line("* Fail to initialize SOC info.\n"),
              Identify("4420"));
    EXPECT_EQ(",0,0 | " + Line("  Fail to get device model number from hw property\n") + " | " +
                      Line("* Fail to initialize SOC info.\n"),
              Identify(nullptr));
}

TEST(SocInfo, TrimKeepsTheLastRunOfDigits) {
    const std::string result = zel_test::RunInChild([] {
        android::base::SetProperty("ro.hardware", "ab4410");
        SocInfo soc;
        std::string out;
        for (const char* name :
             {"ab4420", "ab4420x", "a1b22", "4420", "4420x", "abc", "", "marlowcar9", "linux"}) {
            std::string trimmed = name;
            out += std::to_string(soc.get_trim_number(trimmed)) + ":" + trimmed + " ";
        }
        std::string hw;
        soc.get_hw_name(hw);
        soc.get_hw_name(hw);  // appends, does not replace
        std::string unknown = "9999", known = "4430";
        out += hw + " " + std::to_string(soc.set_soc_data(unknown)) + soc.soc_name + " ";
        out += std::to_string(soc.set_soc_data(known)) + soc.soc_name;
        out += std::to_string(soc.first_figure) + std::to_string(soc.second_figure);
        return out;
    });
    EXPECT_EQ(
            "0:4420 0:4420 0:22 1:4420 1:4420x 1:abc 1: 0:marlowcar9 0:linux ab4410ab4410 14410 "
            "0443021",
            result);
}

TEST(SocInfo, TableHoldsTheSupportedChips) {
    const std::map<std::string, std::pair<uint32_t, uint32_t>> expected = {
            {"4410", {1, 0}}, {"4420", {2, 1}}, {"4430", {2, 1}},       {"4440", {1, 0}},
            {"4450", {2, 1}}, {"4460", {3, 4}}, {"marlowcar9", {1, 1}}, {"linux", {1, 1}}};
    std::map<std::string, std::pair<uint32_t, uint32_t>> table;
    for (const auto& row : SocInfo().soc_table)
        table[row.first] = {row.second.first_figure, row.second.second_figure};
    EXPECT_EQ(expected, table);
}

}  // namespace
