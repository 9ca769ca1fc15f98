// Soak, bounded by counts: eight threads record while another logs at every zone; every record,
// line and descriptor is accounted for (CI adds TSan).
#include <gtest/gtest.h>

#include <thread>

#include "support/log_capture.h"
#include "support/proc_stats.h"
#include "util/zel_utils_profiler_wrapper.h"

namespace {

using namespace zel::util;
using W = ZelProfilerWrapper;

TEST(SoakTest, RecordingAndLoggingTogether) {
    const int fds = zel_test::CountOpenFds();
    zel_test::LogCapture log;
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0xFF);
    W::initialize(PROFILE_ON, 0);
    for (ProfilerKeyType model = 1; model <= 8; ++model)
        W::create_profiler(model);  // all before any thread: the registry takes no lock
    std::vector<std::thread> threads;
    for (ProfilerKeyType model = 1; model <= 8; ++model)
        threads.emplace_back([model] {
            for (ProfilerKeyType i = 0; i < 400; ++i) {
                for (ProfileLabel label : {SERVICE, ENGINE, NPU_UD})
                    W::profile_from(model, label, model, i);
                for (ProfileLabel label : {NPU_UD, ENGINE, SERVICE})
                    W::profile_until(model, label, model, i);
            }
        });
    threads.emplace_back([] {
        for (int round = 0; round < 2000; ++round)
            for (uint64_t zone = 0; zone < 8; ++zone) {  // every zone with a table entry
                ZEL_LOG(zone, zel::debug::PRINT_TRACE, "  soak line %d\n", 7);
                ZEL_MSG(zone) << "soak line " << 7 << std::endl;
            }
    });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(2000u * 8 * 2, log.count(zel_test::MsgLine("soak line 7")));  // both styles
    for (ProfilerKeyType model = 1; model <= 8; ++model) {
        EXPECT_EQ(400u, W::get_profiler_iteration(model));
        EXPECT_EQ(6u, W::get_profiler_num_label(model));
        W::remove_profiler(model);
    }
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

}  // namespace
