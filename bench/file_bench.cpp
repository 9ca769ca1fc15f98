// Loading a model-sized file that is already in the page cache: the library's loader against the
// plain ways of reading it on one thread. And rank selection against std::nth_element.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/ratio_reporter.h"
#include "util/zel_utils.h"
#include "util/zel_utils_algo.h"

namespace {

constexpr uint32_t kFileSize = 256u << 20;

// The file is written once per run, synced, and read back once so that every measured load is
// served from clean page-cache pages; it is removed when the program exits.
class CachedFile {
  public:
    static const std::string& path() {
        static const CachedFile file;
        return file.path_;
    }

  private:
    CachedFile() {
        char name[] = "/tmp/zel_file_bench_XXXXXX";
        const int fd = mkstemp(name);
        path_ = name;
        std::vector<char> block(1 << 20);
        for (size_t i = 0; i < block.size(); ++i)
            block[i] = static_cast<char>(i * 7 + 3);
        for (uint32_t done = 0; done < kFileSize; done += block.size())
            if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size()))
                abort();
        // Written back before any load is timed: the flusher would otherwise compete with
        // whichever benchmark runs first.
        if (fsync(fd) != 0) abort();
        for (uint32_t done = 0; done < kFileSize; done += block.size())
            if (pread(fd, block.data(), block.size(), done) <= 0) abort();
        close(fd);
    }
    ~CachedFile() { unlink(path_.c_str()); }
    std::string path_;
};

// Each load gets a new image, as a model load does: the page faults of the fresh block are part
// of the cost.
void BM_ImportFileToMem(benchmark::State& state) {
    const std::string& path = CachedFile::path();
    for (auto _ : state) {
        uint32_t size = 0;
        std::unique_ptr<char[]> image = zel::util::import_file_to_mem(path.c_str(), &size, 0, 0);
        if (!image || size != kFileSize) state.SkipWithError("load failed");
        benchmark::DoNotOptimize(image.get());
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kFileSize});
}
BENCHMARK(BM_ImportFileToMem)->UseRealTime()->Unit(benchmark::kMillisecond);

// The plain way: one descriptor, read() until the whole file is in.
bool ReadLoop(const std::string& path, char* out) {
    const int fd = open(path.c_str(), O_RDONLY);
    uint32_t done = 0;
    while (done < kFileSize) {
        const ssize_t n = read(fd, out + done, kFileSize - done);
        if (n <= 0) break;
        done += n;
    }
    close(fd);
    return done == kFileSize;
}

void BM_SingleReadLoop(benchmark::State& state) {
    const std::string& path = CachedFile::path();
    for (auto _ : state) {
        std::unique_ptr<char[]> image(new char[kFileSize + 1]);
        if (!ReadLoop(path, image.get())) state.SkipWithError("read failed");
        benchmark::DoNotOptimize(image.get());
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kFileSize});
}
BENCHMARK(BM_SingleReadLoop)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_MmapMemcpy(benchmark::State& state) {
    const std::string& path = CachedFile::path();
    for (auto _ : state) {
        std::unique_ptr<char[]> image(new char[kFileSize + 1]);
        const int fd = open(path.c_str(), O_RDONLY);
        void* mapped = mmap(nullptr, kFileSize, PROT_READ, MAP_PRIVATE, fd, 0);
        if (mapped == MAP_FAILED) {
            state.SkipWithError("mmap failed");
            close(fd);
            break;
        }
        memcpy(image.get(), mapped, kFileSize);
        munmap(mapped, kFileSize);
        close(fd);
        benchmark::DoNotOptimize(image.get());
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kFileSize});
}
BENCHMARK(BM_MmapMemcpy)->UseRealTime()->Unit(benchmark::kMillisecond);

// The same two loads into one block reused for every load: the copy alone, without the page
// faults of a fresh block.
void BM_ImportIntoReusedBlock(benchmark::State& state) {
    const std::string& path = CachedFile::path();
    std::unique_ptr<char[]> block(new char[kFileSize + 1]);
    memset(block.get(), 0, kFileSize);
    for (auto _ : state) {
        char* image = block.get();
        if (zel::util::import_file_to_mem(path.c_str(), &image, nullptr, 0, 0) != 0)
            state.SkipWithError("load failed");
        benchmark::DoNotOptimize(image);
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kFileSize});
}
BENCHMARK(BM_ImportIntoReusedBlock)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_SingleReadLoopIntoReusedBlock(benchmark::State& state) {
    const std::string& path = CachedFile::path();
    std::unique_ptr<char[]> block(new char[kFileSize + 1]);
    memset(block.get(), 0, kFileSize);
    for (auto _ : state) {
        if (!ReadLoop(path, block.get())) state.SkipWithError("read failed");
        benchmark::DoNotOptimize(block.get());
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kFileSize});
}
BENCHMARK(BM_SingleReadLoopIntoReusedBlock)->UseRealTime()->Unit(benchmark::kMillisecond);

// Seven consecutive ranks around the 90% position of a million measurements, as the profiler's
// multi-record report asks for them.
const std::vector<uint64_t>& Series() {
    static const std::vector<uint64_t> values = [] {
        std::mt19937_64 rng(42);
        std::vector<uint64_t> v(1000000);
        for (auto& x : v)
            x = rng() % 100000;  // plenty of equal values
        return v;
    }();
    return values;
}
const std::vector<int> kRanks = {899997, 899998, 899999, 900000, 900001, 900002, 900003};

void BM_KthSelection(benchmark::State& state) {
    std::vector<uint64_t> values = Series();
    for (auto _ : state) {
        std::vector<int> indices;
        if (zel::util::algo::find_kth_biggest_indices_in_vector(values, kRanks, indices) != 0)
            state.SkipWithError("selection failed");
        benchmark::DoNotOptimize(indices.data());
    }
}
BENCHMARK(BM_KthSelection)->Unit(benchmark::kMillisecond);

// What any selection that answers with indices starts from: (value, index) pairs.
std::vector<std::pair<uint64_t, int>> IndexedPairs(const std::vector<uint64_t>& values) {
    std::vector<std::pair<uint64_t, int>> pairs(values.size());
    for (size_t i = 0; i < values.size(); ++i)
        pairs[i] = {values[i], static_cast<int>(i)};
    return pairs;
}

// The same answers with std::nth_element: a copy of (value, index) pairs, then each rank selected
// in what is left after the previous one.
void BM_NthElement(benchmark::State& state) {
    const std::vector<uint64_t>& values = Series();
    for (auto _ : state) {
        std::vector<std::pair<uint64_t, int>> pairs = IndexedPairs(values);
        std::vector<int> indices;
        auto from = pairs.begin();
        for (int rank : kRanks) {
            std::nth_element(from, pairs.begin() + rank, pairs.end());
            indices.push_back(pairs[rank].second);
            from = pairs.begin() + rank + 1;
        }
        benchmark::DoNotOptimize(indices.data());
    }
}
BENCHMARK(BM_NthElement)->Unit(benchmark::kMillisecond);

// The floor for any selection that answers with indices: a copy of (value, index) pairs and one
// std::nth_element for a single rank.
void BM_NthElementOneRank(benchmark::State& state) {
    const std::vector<uint64_t>& values = Series();
    for (auto _ : state) {
        std::vector<std::pair<uint64_t, int>> pairs = IndexedPairs(values);
        std::nth_element(pairs.begin(), pairs.begin() + kRanks[3], pairs.end());
        benchmark::DoNotOptimize(pairs[kRanks[3]].second);
    }
}
BENCHMARK(BM_NthElementOneRank)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return zel_bench::RunWithRatios(
            argc, argv,
            {{"import_file_to_mem / one read() loop (time)", "BM_ImportFileToMem/real_time",
              "BM_SingleReadLoop/real_time", 1.0 / 1.5},
             {"import_file_to_mem / mmap+memcpy (time)", "BM_ImportFileToMem/real_time",
              "BM_MmapMemcpy/real_time", 1.0},
             {"same, into a reused block / one read() loop (time)",
              "BM_ImportIntoReusedBlock/real_time", "BM_SingleReadLoopIntoReusedBlock/real_time",
              0},
             {"k-th selection, 7 ranks / std::nth_element for one rank (time)", "BM_KthSelection",
              "BM_NthElementOneRank", 3.0},
             {"k-th selection, 7 ranks / std::nth_element for each rank (time)", "BM_KthSelection",
              "BM_NthElement", 0}},
            // A 256 MiB load takes a tenth of a second on a noisy machine: repeat every benchmark,
            // in shuffled order, and compare medians.
            {"--benchmark_repetitions=9", "--benchmark_enable_random_interleaving=true"});
}
