// The zel-prof tool as a user runs it: the demo across real processes, and the report of the
// raw-data file it leaves behind.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <regex>
#include <string>

namespace {

struct ToolRun {
    int status;
    std::string out;
};

// Runs zel-prof with `args`; standard error joins the output when `with_errors`.
ToolRun ZelProf(const std::string& args, bool with_errors = false) {
    const std::string command =
            std::string(ZEL_PROF_COMMAND) + " " + args + (with_errors ? " 2>&1" : " 2>/dev/null");
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return {-1, ""};
    std::string out;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), pipe)) > 0)
        out.append(chunk, got);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

// The summary block: from its column heading to its closing rule.
std::string Summary(const std::string& out) {
    const size_t begin = out.find("<avg>");
    const size_t end = out.find("* ====", begin);
    if (begin == std::string::npos || end == std::string::npos) return "";
    return out.substr(begin, end - begin);
}

TEST(ZelProfTest, DemoReportsTheMergedProfileAndTheReportReadsItBack) {
    const ToolRun demo = ZelProf("demo --iterations 30 --ops 2 --model 31");
    ASSERT_EQ(0, demo.status) << demo.out;
    EXPECT_NE(std::string::npos, demo.out.find("== merged profile (service process) =="));
    EXPECT_NE(std::string::npos,
              demo.out.find("Result: modelId(0x000000000000001f)  unit(us) iter(      30)"));
    // Client, service and device stages nested in one tree, in both reports.
    for (const char* stage :
         {" TOTAL\n", " _API\n", " __CLIENT\n", " ___SERVICE\n", " _____CPU_UD\n",
          " ______DD_0x1\n", " _______DD_ROOT_0x2\n", " ________FW_0x2\n", " _________HW_0x2\n"}) {
        EXPECT_NE(demo.out.find(stage), demo.out.rfind(stage)) << stage;
    }

    std::smatch written;
    ASSERT_TRUE(std::regex_search(
            demo.out, written,
            std::regex("Raw data written to (\\S+) \\((\\d+) iterations x (\\d+) records\\)")))
            << demo.out;
    EXPECT_EQ("30", written[2].str());
    EXPECT_EQ("28", written[3].str());  // 4 client, 12 service and 2 x 6 device records

    // Counts derived from the records, and given: the same profile as the demo printed.
    const ToolRun derived = ZelProf("report " + written[1].str());
    ASSERT_EQ(0, derived.status) << derived.out;
    EXPECT_NE(std::string::npos, derived.out.find("30 iterations x 28 records"));
    EXPECT_EQ(Summary(demo.out), Summary(derived.out));
    const ToolRun given =
            ZelProf("report " + written[1].str() + " --iterations 30 --labels 28 --key 9");
    ASSERT_EQ(0, given.status) << given.out;
    EXPECT_NE(std::string::npos, given.out.find("Result: modelId(0x0000000000000009)"));
    EXPECT_EQ(Summary(demo.out), Summary(given.out));
    remove(written[1].str().c_str());
}

TEST(ZelProfTest, DemoWithoutTheServiceLetsEachSideReport) {
    const ToolRun demo = ZelProf("demo -n 10 --ops 1 --mode 0x9");
    ASSERT_EQ(0, demo.status) << demo.out;
    for (const char* text :
         {"== client process report ==", " __CLIENT\n", " ___HW_0x1\n", "No raw data written"}) {
        EXPECT_NE(std::string::npos, demo.out.find(text)) << text;
    }
    EXPECT_EQ(std::string::npos, demo.out.find("SERVICE\n"));
}

TEST(ZelProfTest, ReportRefusesWhatIsNoProfile) {
    const std::string path = testing::TempDir() + "zel_prof_short.bin";
    FILE* file = fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, file);
    const uint64_t record[5] = {0, 25, 0, 0, 10};  // one START API, never closed
    fwrite(record, sizeof(record), 1, file);
    fclose(file);
    const struct {
        std::string args, error;
    } kCases[] = {{"/nonexistent/profile_rawdata_1.bin", "No such file or directory"},
                  {path, "the first label never recurs"},
                  {path + " --iterations 2 --labels 1", "do not fit 1 records"}};
    for (const auto& c : kCases) {
        const ToolRun run = ZelProf("report " + c.args, true);
        EXPECT_NE(0, run.status) << c.args;
        EXPECT_NE(std::string::npos, run.out.find(c.error)) << c.args << "\n" << run.out;
    }
    remove(path.c_str());
}

}  // namespace
