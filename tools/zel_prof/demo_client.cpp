// The demo's client process: records the API and CLIENT stages around each request to the
// service, then hands its packed profile over as a shared buffer.
#include <cstdio>

#include "util/zel_utils_profiler_wrapper.h"
#include "zel_prof/demo.h"
#include "zel_prof/demo_protocol.h"
#include "zel_prof/stdout_logger.h"

namespace zel_prof {
namespace demo {

using zel::util::ZelProfilerWrapper;

namespace {

void ShowProgress(uint64_t done, uint64_t total) {
    const uint64_t step = total >= 20 ? total / 20 : 1;
    if (done != total && done % step != 0) return;
    fprintf(stderr, "\r  running inference %llu/%llu", static_cast<unsigned long long>(done),
            static_cast<unsigned long long>(total));
    if (done == total) fputc('\n', stderr);
    fflush(stderr);
}

}  // namespace

int RunClient(int service_sock, const DemoOptions& options) {
    const uint64_t model = options.model_id;
    ZelProfilerWrapper::initialize(options.mode, options.iterations);
    ZelProfilerWrapper::create_profiler_client(model);

    for (uint64_t i = 0; i < options.iterations; ++i) {
        ZelProfilerWrapper::profile_from(model, zel::util::API, 0, i);
        ZelProfilerWrapper::profile_from(model, zel::util::CLIENT, 0, i);
        Message request{};
        request.kind = kRunIteration;
        request.iteration = i;
        Message reply{};
        if (!Send(service_sock, request) || !Receive(service_sock, &reply) ||
            reply.kind != kIterationDone) {
            fprintf(stderr, "client: the service went away at inference %llu\n",
                    static_cast<unsigned long long>(i));
            return 1;
        }
        ZelProfilerWrapper::profile_until(model, zel::util::CLIENT, 0, i);
        ZelProfilerWrapper::profile_until(model, zel::util::API, 0, i);
        ShowProgress(i + 1, options.iterations);
    }

    // The buffer must stay alive until the service has mapped its own copy of the descriptor.
    zel::memory::Buffer::sptr profile = ZelProfilerWrapper::get_client_profiler_mem(model);
    Message handover{};
    handover.kind = profile != nullptr ? kClientProfile : kNoClientProfile;
    handover.size = profile != nullptr ? profile->size : 0;
    Message taken{};
    if (!Send(service_sock, handover, profile != nullptr ? profile->fd : -1) ||
        !Receive(service_sock, &taken) || taken.kind != kProfileTaken) {
        fprintf(stderr, "client: the service did not take the profile\n");
        return 1;
    }
    profile.reset();

    // Only when the service takes no part does the client print its own report.
    if (ZelProfilerWrapper::printFlagClient_) {
        printf("\n== client process report ==\n");
        ReportScope report;
        ZelProfilerWrapper::remove_profiler(model);
    } else {
        ZelProfilerWrapper::remove_profiler(model);
    }
    fflush(stdout);
    return 0;
}

}  // namespace demo
}  // namespace zel_prof
