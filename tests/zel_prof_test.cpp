// The zel-prof tool as a user runs it: the demo across real processes, the reports of the
// raw-data file it leaves behind, and the comparison of two profiles.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <string>
#include <vector>

namespace {

using json = nlohmann::json;

struct ToolRun {
    int status;
    std::string out;
};

// Runs zel-prof with `args`; standard error joins the output when `with_errors`. A run that
// outlasts its bound is killed with every process it started (status 124 or 137).
ToolRun ZelProf(const std::string& args, bool with_errors = false) {
    const std::string command = "timeout -k 10 300 " + std::string(ZEL_PROF_COMMAND) + " " + args +
                                (with_errors ? " 2>&1" : " 2>/dev/null");
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return {-1, ""};
    std::string out;
    char chunk[4096];
    for (size_t got; (got = fread(chunk, 1, sizeof(chunk), pipe)) > 0;)
        out.append(chunk, got);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

// The summary block: from its column heading to its closing rule.
std::string Summary(const std::string& out) {
    const size_t begin = std::min(out.find("<avg>"), out.size());
    return out.substr(begin, out.find("* ====", begin) - begin);
}

TEST(ZelProfTest, DemoReportsTheMergedProfileAndTheReportsReadItBack) {
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
    EXPECT_EQ(std::string::npos, demo.out.find("Note: could not write")) << demo.out;

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

    // The CSV carries the text summary's figures: "label,avg,median,90%" of each row of both.
    const ToolRun csv = ZelProf("report --format csv " + written[1].str());
    EXPECT_EQ(0u, csv.out.find("path,iterations,avg,median,90%,min,max,time_avg,"));
    std::string from_text, from_csv;
    const std::string summary = Summary(derived.out);
    const std::regex text_row("\\* +([0-9.]+) +([0-9]+) +([0-9]+) +_*(\\S+)\\n");
    for (std::sregex_iterator m(summary.begin(), summary.end(), text_row), end; m != end; ++m)
        from_text += (*m)[4].str() + "," + (*m)[1].str() + "," + (*m)[2].str() + "," +
                     (*m)[3].str() + " ";
    const std::regex csv_row("\n(?:[^,/\\n]*/)*([^,/]+),30,([^,]+,[^,]+,[^,]+),");
    for (std::sregex_iterator m(csv.out.begin(), csv.out.end(), csv_row), end; m != end; ++m)
        from_csv += (*m)[1].str() + "," + (*m)[2].str() + " ";
    EXPECT_EQ(15, std::count(from_text.begin(), from_text.end(), ' ')) << derived.out;
    EXPECT_EQ(from_text, from_csv) << csv.out;

    // So does the JSON. The device stages came through the driver's buffers: at least as long as
    // the driver ran the hardware (30 + 20 x op us), and every self time is the stage's time less
    // its children's.
    const json report = json::parse(ZelProf("report -f json " + written[1].str()).out);
    EXPECT_EQ("us", report["unit"]);
    const json& stages = report["stages"];
    std::map<std::string, double> children;
    for (const json& stage : stages) {
        const std::string path = stage["path"];
        if (stage["depth"] > 0)
            children[path.substr(0, path.rfind('/'))] += stage["time"]["avg"].get<double>();
    }
    for (const json& stage : stages) {
        const std::string path = stage["path"];
        if (stage["depth"] > 0)
            EXPECT_NEAR(stage["time"]["avg"].get<double>() - children[path],
                        stage["self"]["avg"].get<double>(), 1e-6)
                    << path;
    }
    const std::string hw =
            "TOTAL/API/CLIENT/SERVICE/ENGINE/NPU_UD/DD_0x2/DD_ROOT_0x2/FW_0x2/HW_0x2";
    for (const json& stage : stages) {
        EXPECT_TRUE(stage["path"] != hw || stage["time"]["min"] >= 70) << stage;
        EXPECT_TRUE(stage["self"].contains("90%")) << stage;
    }

    // Its timeline: one event a stage and iteration, on the process of the file name's key.
    const std::string trace = testing::TempDir() + "zel_prof_trace.json";
    ASSERT_EQ(0, ZelProf("trace " + written[1].str() + " -o " + trace).status);
    std::ifstream file(trace);
    const json events = json::parse(file)["traceEvents"];
    EXPECT_EQ(30 * (stages.size() - 1),  // the root has no event of its own
              std::count_if(events.begin(), events.end(),
                            [](const json& e) { return e["ph"] == "X" && e["pid"] == 31; }));
    remove(written[1].str().c_str());
    remove(trace.c_str());
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

// Writes the 64-bit `words` to `name` in the test's temporary folder; its path.
std::string WriteWords(const std::string& name, const std::vector<uint64_t>& words) {
    const std::string path = testing::TempDir() + name;
    std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(words.data()), words.size() * 8);
    return path;
}

TEST(ZelProfTest, ReportRefusesWhatIsNoProfile) {
    const std::string path = WriteWords("zel_prof_short.bin", {0, 25, 0, 0, 10});  // START API
    for (const auto& [args, error] : std::vector<std::pair<std::string, std::string>>{
                 {"/nonexistent/profile_rawdata_1.bin", "No such file or directory"},
                 {path, "the first label never recurs"},
                 {path + " --iterations 2 --labels 1", "do not fit 1 records"}}) {
        for (const std::string command : {"report ", "html -o /dev/null "}) {
            const ToolRun run = ZelProf(command + args, true);
            EXPECT_NE(0, run.status) << command << args;
            EXPECT_NE(std::string::npos, run.out.find(error)) << args << "\n" << run.out;
        }
    }
    remove(path.c_str());
}

// Writes a raw-data file of 200 iterations: API around ENGINE, CPU_UD and NPU_UD_0x1
// (label 25 around 22, 18, 13), whose times spread around 300, 500 and 400 us, CPU_UD's scaled
// by `cpu_scale`. `outer` replaces API's label.
std::string WriteProfile(const std::string& name, unsigned seed, double cpu_scale, int outer = 25) {
    std::mt19937_64 rng(seed);
    std::lognormal_distribution<double> spread(0.0, 0.08);
    std::vector<uint64_t> words;
    uint64_t now = 1000;
    auto record = [&](uint64_t type, int label, uint64_t postfix, uint64_t iter) {
        words.insert(words.end(), {type, static_cast<uint64_t>(label), postfix, iter, now});
    };
    for (uint64_t i = 0; i < 200; ++i) {
        record(0, outer, 0, i);
        now += 5;
        for (const auto& stage : {std::make_pair(22, 300.0), std::make_pair(18, 500.0 * cpu_scale),
                                  std::make_pair(13, 400.0)}) {
            record(0, stage.first, stage.first == 13, i);
            now += static_cast<uint64_t>(stage.second * spread(rng));
            record(1, stage.first, stage.first == 13, i);
        }
        now += 5;
        record(1, outer, 0, i);
    }
    return WriteWords(name, words);
}

// The one line of `out` that starts with `stage` after leading blanks.
std::string Row(const std::string& out, const std::string& section, const std::string& stage) {
    std::smatch row;
    const std::string rest = out.substr(out.find(section + "\n"));
    std::regex_search(rest, row, std::regex("\n  " + stage + " [^\n]*"));
    return row.str();
}

TEST(ZelProfTest, DiffFlagsTheShiftedStageAndWhatHoldsIt) {
    const std::string base = WriteProfile("zel_prof_base.bin", 11, 1.0);
    const std::string same = WriteProfile("zel_prof_same.bin", 12, 1.0);
    const std::string slower = WriteProfile("zel_prof_slower.bin", 13, 1.1);
    const ToolRun diff = ZelProf("diff " + base + " " + slower + " --fail-above 5", true);
    EXPECT_EQ(1, diff.status) << diff.out;
    // CPU_UD's time and self time, and the time of API and the total that hold it, moved by
    // about 10 %; ENGINE and NPU_UD did not.
    for (const char* shifted : {"TOTAL ", "_API ", "__CPU_UD "})
        EXPECT_NE(std::string::npos, Row(diff.out, "time", shifted).find("%  p=0.000")) << shifted;
    EXPECT_NE(std::string::npos, Row(diff.out, "self time", "__CPU_UD ").find("%  p=0.000"));
    EXPECT_NE(std::string::npos, diff.out.find("TOTAL/API/CPU_UD regressed by +"));
    for (const char* section : {"time", "self time"}) {
        for (const char* quiet : {"__ENGINE ", "__NPU_UD_0x1 "})
            EXPECT_NE(std::string::npos, Row(diff.out, section, quiet).find(" ~  p=")) << quiet;
    }
    EXPECT_EQ(0, ZelProf("diff " + base + " " + slower + " --fail-above 20").status);
    EXPECT_EQ(0, ZelProf("diff " + base + " " + same + " --fail-above 5").status);

    const ToolRun json = ZelProf("diff -f json " + base + " " + slower);
    EXPECT_NE(std::string::npos, json.out.find("\"path\": \"TOTAL/API/CPU_UD\""));
    const ToolRun csv = ZelProf("diff --format csv " + base + " " + slower);
    EXPECT_EQ(0u, csv.out.find("path,status,time_base_median,time_base_90%,"));

    // Other stages on the new side: listed, and nothing in common at all is an error.
    const std::string client = WriteProfile("zel_prof_client.bin", 14, 1.0, 24);
    const ToolRun apart = ZelProf("diff " + base + " " + client, true);
    EXPECT_EQ(2, apart.status);
    EXPECT_NE(std::string::npos, apart.out.find("the profiles have no stage in common"))
            << apart.out;
    const std::string empty = WriteWords("zel_prof_empty.bin", {});
    const ToolRun nothing = ZelProf("diff " + empty + " " + base, true);
    EXPECT_EQ(2, nothing.status);
    EXPECT_NE(std::string::npos, nothing.out.find("holds no complete record")) << nothing.out;
    for (const std::string& path : {base, same, slower, client, empty})
        remove(path.c_str());
}

}  // namespace
