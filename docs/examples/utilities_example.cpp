// Utilities: files into memory and back, cursor reads, k-th selection, threads, descriptors, SoC.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "debug/zel_debug.h"
#include "util/zel_utils.h"
#include "util/zel_utils_algo.h"

namespace util = zel::util;

// Stops the program with status 1 when a result is not the one the page promises.
static void Require(bool ok, const char* what) {
    if (ok) return;
    fprintf(stderr, "unexpected: %s\n", what);
    exit(1);
}

int main() {
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0x3);  // errors and warnings
    std::string dir = (std::filesystem::temp_directory_path() / "zel_utilities_XXXXXX").string();
    Require(mkdtemp(dir.data()) != nullptr, "temporary directory");
    const std::string path = dir + "/model.bin";

    // Memory to a file, and its size.
    std::vector<char> model(3 << 20);  // 3 MiB: read back on several threads
    for (size_t i = 0; i < model.size(); ++i)
        model[i] = static_cast<char>(i * 7);
    Require(util::export_mem_to_file(path.c_str(), model.data(), model.size()) == 0, "export");
    uint32_t size = 0;
    Require(util::get_file_size(path.c_str(), &size) == 0 && size == model.size(), "size");

    // The whole file (size 0) into a new array that the caller owns.
    uint32_t file_size = 0;
    std::unique_ptr<char[]> whole = util::import_file_to_mem(path.c_str(), &file_size);
    Require(whole && util::memory_compare(whole.get(), model.data(), size) == 0, "whole file");

    // 16 bytes at offset 1024 into the caller's memory; a range past the end gives 1.
    char header[16];
    char* out = header;
    uint32_t loaded = 0;
    Require(util::import_file_to_mem(path.c_str(), &out, &loaded, 16, 1024) == 0 && loaded == 16,
            "slice");
    Require(util::import_file_to_mem(path.c_str(), &out, &loaded, 16, size - 8) == 1, "range");

    // Reads at a cursor; the cursor may reach the end but not pass it.
    util::FileBufferReader reader(path);
    Require(reader.is_valid() && reader.size == size, "reader");
    char tail[256];
    Require(reader.set_cursor(size - sizeof(tail)) == 0, "cursor set");
    Require(reader.copy_buffer_with_cursor(tail, sizeof(tail)) == 0, "read at the cursor");
    Require(reader.get_cursor() == size, "cursor at the end");
    Require(reader.copy_buffer_with_cursor(tail, 1) == 3, "nothing left");

    // Median and 90th percentile of ten stage times: ranks 5 and 9, counted from the smallest.
    std::vector<uint64_t> times = {120, 95, 310, 101, 99, 130, 97, 100, 105, 98};
    std::vector<int> found;
    Require(util::algo::find_kth_biggest_indices_in_vector(times, {5, 9}, found) == 0, "ranks");
    Require(found == std::vector<int>({3, 2}), "101 is the median, 310 the 90th percentile");

    // The calling thread's CPUs (bit n = CPU n), set back unchanged.
    unsigned long cpus = 0;
    Require(util::sys_util_get_sched_affinity(&cpus) == 0 && cpus != 0, "affinity read");
    Require(util::sys_util_set_sched_affinity(cpus) == 0, "affinity set");
    printf("thread %d of process %d runs on CPUs 0x%lx\n", util::get_tid(), util::get_pid(), cpus);

    // Descriptor checks. validate_buffer is inverted: false means the buffer is good.
    const int fd = open(path.c_str(), O_RDWR);
    Require(!util::validate_buffer(fd, 4096), "mappable");
    Require(util::is_valid_ion_buffer(fd, 4096, model.data(), 0), "first bytes match");
    Require(util::get_size_from_fd(fd) == size, "size from the descriptor");
    close(fd);

    // The chip, from "ro.hardware" (stays empty, with a logged reason, where it is not known).
    util::SocInfo soc;
    printf("SoC: %s (%u, %u)\n", soc.soc_name.empty() ? "unknown" : soc.soc_name.c_str(),
           soc.first_figure, soc.second_figure);

    std::filesystem::remove_all(dir);
    return 0;
}
