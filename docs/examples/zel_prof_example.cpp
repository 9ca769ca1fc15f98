// zel-prof: two runs of the same model, the second with a slower CPU stage, written as raw-data
// files for `zel-prof report` and `zel-prof diff`.
//   zel_prof_example BASE.bin NEW.bin
#include <chrono>
#include <cstdio>
#include <thread>

#include "util/zel_utils_profiler.h"

using namespace zel::util;

// One run: per iteration, API around ENGINE, CPU_UD and NPU_UD_0x1; CPU_UD takes `cpu_us`.
static bool WriteRun(const char* path, int cpu_us) {
    ZelProfiler profiler(7, 1000, "example", false);
    const auto stage = [&](ProfileLabel label, ProfilerKeyType postfix, uint64_t iter, int us) {
        profiler.add_record_start(label, postfix, iter);
        std::this_thread::sleep_for(std::chrono::microseconds(us));
        profiler.add_record_end(label, postfix, iter);
    };
    for (uint64_t i = 0; i < 100; ++i) {
        profiler.add_record_start(API, 0, i);
        stage(ENGINE, 0, i, 200);
        stage(CPU_UD, 0, i, cpu_us);
        stage(NPU_UD, 1, i, 300);
        profiler.add_record_end(API, 0, i);
    }
    if (profiler.finalize() != 0 || !profiler.finalized) return false;
    // The raw data is exactly what a device exports to /data/vendor/zel/profile_rawdata_<key>.bin.
    FILE* file = fopen(path, "wb");
    if (file == nullptr) return false;
    const bool written =
            fwrite(profiler.rawdata, 1, profiler.rawdata_size, file) == profiler.rawdata_size;
    return fclose(file) == 0 && written;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s BASE.bin NEW.bin\n", argv[0]);
        return 2;
    }
    if (!WriteRun(argv[1], 400) || !WriteRun(argv[2], 800)) {
        fprintf(stderr, "cannot write the profiles\n");
        return 1;
    }
    printf("wrote %s and %s: 100 iterations of 8 records each\n", argv[1], argv[2]);
    return 0;
}
