// Loading files into memory, split reads over several handles, cursors, export and dumps.
#include "util/zel_utils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/proc_stats.h"

namespace {

using namespace zel::util;
using zel::debug::DbgPrintManager;
using zel_test::Line;
using zel_test::LogCapture;
using zel_test::MsgLine;

// Bytes that differ from one 4-byte word to the next, so a piece read at the wrong offset shows.
std::string Pattern(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<char>((i >> 2) * 131 + (i & 3));
    return data;
}

class FileUtilsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_mask_ = DbgPrintManager::GetInstance()->get_print_mask();
        DbgPrintManager::GetInstance()->set_mask(0x3);
        char tmpl[] = "/tmp/zel_file_utils_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
    }
    void TearDown() override {
        DbgPrintManager::GetInstance()->set_mask(saved_mask_);
        for (const std::string& path : files_)
            unlink(path.c_str());
        rmdir(dir_.c_str());
    }
    std::string Write(const std::string& name, const std::string& data) {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary).write(data.data(), data.size());
        files_.push_back(path);
        return path;
    }

    std::string dir_;
    std::vector<std::string> files_;
    uint64_t saved_mask_ = 0;
};

TEST_F(FileUtilsTest, RangeChecksWrapIn32Bits) {
    const std::string path = Write("eight", "01234567");
    const std::string empty = Write("empty", "");
    const char* name = path.c_str();
    LogCapture log;
    uint32_t size = 0;
    char* result = nullptr;

    EXPECT_EQ(3, get_file_size(empty.c_str(), &size));
    EXPECT_TRUE(log.contains(Line("  File Loading Error\n")));
    EXPECT_EQ(3, import_file_to_mem(empty.c_str(), &result, nullptr, 0, 0));
    EXPECT_TRUE(log.contains(Line("  File open error: " + empty + "\n")));
    EXPECT_EQ(nullptr, import_file_to_mem(empty.c_str(), &size, 0, 0));
    EXPECT_EQ(3, get_file_size(name, nullptr));
    EXPECT_EQ(3, import_file_to_mem(name, nullptr, nullptr, 0, 0));
    EXPECT_EQ(2u, log.count(Line("  2nd parameter is nullptr\n")));

    log.clear();
    EXPECT_EQ(1, import_file_to_mem(name, &result, nullptr, 0, 4));
    EXPECT_EQ(1, import_file_to_mem(name, &result, nullptr, 10, 0));
    EXPECT_EQ(nullptr, import_file_to_mem(name, &size, 10, 0));
    EXPECT_EQ(
            (std::vector<std::string>{Line("  Offset should be zero if size is full(default)\n"),
                                      Line("  Size(10), Offset(0) is bigger than file size(8)\n"),
                                      Line("  Size(10), Offset(0) is bigger than file size(8)\n")}),
            log.messages());
    EXPECT_EQ(nullptr, result);

    // 0xFFFFFFFF + 1 wraps to 0 and passes; the read past the end then fails.
    log.clear();
    EXPECT_EQ(2, import_file_to_mem(name, &result, nullptr, 1, 0xFFFFFFFFu));
    EXPECT_TRUE(log.contains(Line("  File Read Error\n")));
    ASSERT_NE(nullptr, result);
    free(result);
    result = nullptr;

    // A wrapped length that no block can hold is refused before anything is allocated.
    EXPECT_EQ(1, import_file_to_mem(name, &result, nullptr, 0xFFFFFFFFu, 1));
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(nullptr, import_file_to_mem(name, &size, 0xFFFFFFFFu, 1));
    EXPECT_TRUE(log.contains(Line("* Size(4294967295) does not fit a file image\n")));
}

TEST_F(FileUtilsTest, ImportsWholeFilesAndSlices) {
    const std::string path = Write("eight", "01234567");
    const char* name = path.c_str();
    const int fds = zel_test::CountOpenFds();
    LogCapture log;

    char* result = nullptr;
    uint32_t loaded = 0;
    ASSERT_EQ(0, import_file_to_mem(name, &result, &loaded, 0, 0));
    EXPECT_EQ(8u, loaded);
    EXPECT_EQ("01234567", std::string(result, 8));
    EXPECT_EQ((std::vector<std::string>{MsgLine(
                      "*Result is nullptr, please use import_file_to_mem with smart pointer")}),
              log.messages());

    // The caller's block is used as it is: no warning, no allocation.
    log.clear();
    char* block = result;
    ASSERT_EQ(0, import_file_to_mem(name, &result, &loaded, 3, 5));
    EXPECT_EQ(block, result);
    EXPECT_EQ(3u, loaded);
    EXPECT_EQ("56734567", std::string(result, 8));
    EXPECT_TRUE(log.messages().empty());
    free(result);

    // The owning overload reports the whole file's size, not the slice's.
    uint32_t file_size = 0;
    std::unique_ptr<char[]> image = import_file_to_mem(name, &file_size, 2, 1);
    ASSERT_NE(nullptr, image);
    EXPECT_EQ(8u, file_size);
    EXPECT_EQ("12", std::string(image.get(), 2));
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

TEST_F(FileUtilsTest, ExportWritesOneBlockOrNothing) {
    const std::string path = dir_ + "/exported";
    files_.push_back(path);
    const std::string data = Pattern(5000);
    LogCapture log;

    EXPECT_EQ(3, export_mem_to_file(path.c_str(), data.data(), 0));
    EXPECT_NE(0, access(path.c_str(), F_OK));
    EXPECT_EQ(3, export_mem_to_file(nullptr, data.data(), 4));
    EXPECT_EQ(3, export_mem_to_file(path.c_str(), nullptr, 4));
    EXPECT_EQ(3, export_mem_to_file((dir_ + "/no/such").c_str(), data.data(), 4));
    // Larger than the stream's buffer, so the write itself meets the full device.
    const std::string big = Pattern(1 << 16);
    EXPECT_EQ(3, export_mem_to_file("/dev/full", big.data(), big.size()));
    EXPECT_EQ((std::vector<std::string>{Line("  Size is incorrect(0)!\n"),
                                        Line("  Null Filename!\n"), Line("  Null address!\n"),
                                        Line("  File Open Failed(" + dir_ + "/no/such)!!\n"),
                                        Line("  FileWrite Failed!!(0)\n")}),
              log.messages());

    ASSERT_EQ(0, export_mem_to_file(path.c_str(), data.data(), data.size()));
    uint32_t size = 0;
    std::unique_ptr<char[]> back = import_file_to_mem(path.c_str(), &size, 0, 0);
    EXPECT_EQ(data, std::string(back.get(), size));
    EXPECT_EQ(0, memory_compare(data.data(), back.get(), size));
    back[size - 1] ^= 1;
    EXPECT_EQ(1, memory_compare(data.data(), back.get(), size));
}

TEST_F(FileUtilsTest, CursorAndBaseValidation) {
    FileBufferReader reader(Write("eight", "01234567"));
    ASSERT_TRUE(reader.is_valid());
    EXPECT_EQ(8u, reader.size);
    EXPECT_EQ(8u, reader.handle_count);
    LogCapture log;
    char out[16] = {};

    EXPECT_EQ(3, reader.copy_buffer(out, 4, 5));
    EXPECT_EQ(3, reader.copy_buffer(nullptr, 4, 0));
    EXPECT_EQ(3, reader.copy_buffer(out, 0, 1));
    EXPECT_EQ(0, reader.set_cursor(8));
    EXPECT_EQ(3, reader.set_cursor(9));
    EXPECT_EQ(8u, reader.get_cursor());
    EXPECT_EQ(0, reader.set_cursor(0));
    EXPECT_EQ(0, reader.copy_buffer_with_cursor(out, 5));
    EXPECT_EQ(0, reader.copy_buffer_with_cursor(out + 5, 3));
    EXPECT_EQ(8u, reader.get_cursor());
    EXPECT_EQ(3, reader.copy_buffer_with_cursor(out, 1));
    EXPECT_EQ("01234567", std::string(out));
    EXPECT_EQ((std::vector<std::string>{Line("  size(4) + offset(5) is bigger than original(8)\n"),
                                        Line("  output addr is null\n"),
                                        Line("  Offset(1) should be zero if size = 0\n"),
                                        Line("  parameter(9) is too big\n"),
                                        Line("  move(1), current(8) > size(8)\n")}),
              log.messages());

    // The new position wraps in 32 bits: 4 + 0xFFFFFFFE is 2.
    EXPECT_EQ(0, reader.set_cursor(4));
    EXPECT_EQ(0, reader.move_cursor(0xFFFFFFFEu));
    EXPECT_EQ(2u, reader.get_cursor());
    EXPECT_EQ(3, reader.move_cursor(7));

    // A failed read leaves the cursor where it was. The file is larger than one stdio block so
    // that its start is not already buffered when it shrinks.
    FileBufferReader shrinking(Write("shrinking", Pattern(10000)));
    std::string big_out(4000, '\0');
    ASSERT_EQ(0, shrinking.set_cursor(2));
    ASSERT_EQ(0, truncate(shrinking.file_name.c_str(), 100));
    EXPECT_EQ(3, shrinking.copy_buffer_with_cursor(&big_out[0], 4000));
    EXPECT_EQ(2u, shrinking.get_cursor());
}

TEST_F(FileUtilsTest, MissingFileGivesAnInvalidReader) {
    const int fds = zel_test::CountOpenFds();
    LogCapture log;
    {
        FileBufferReader reader(dir_ + "/missing");
        EXPECT_FALSE(reader.is_valid());
        EXPECT_EQ(0u, reader.handle_count);
        EXPECT_EQ(0u, reader.size);
        char out[4];
        EXPECT_EQ(2, reader.copy_buffer(out, 0, 0));
    }
    EXPECT_EQ((std::vector<std::string>{Line("  File open error\n"), Line("  File Open Error\n")}),
              log.messages());
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

TEST_F(FileUtilsTest, SplitReadsAreExactToTheByte) {
    DbgPrintManager::GetInstance()->set_mask(0x7);
    for (uint32_t size : {0xFFFFFu, 0x100000u, 0x100003u}) {
        const std::string data = Pattern(size + 5);
        LogCapture log;
        FileBufferReader reader(Write("split" + std::to_string(size), data));
        std::string out(size, '\0');
        ASSERT_EQ(0, reader.copy_buffer(&out[0], size, 5));
        EXPECT_TRUE(out == data.substr(5)) << size;
        std::multiset<std::string> pieces;
        for (const std::string& message : log.messages())
            if (message.find("Thread:") != std::string::npos) pieces.insert(message);
        if (size < 0x100000u) {
            EXPECT_TRUE(pieces.empty());
            continue;
        }
        std::multiset<std::string> expected;
        for (int i = 0; i < 7; ++i)
            expected.insert(MsgLine("Thread:" + std::to_string(i) + " reading size 131072"));
        expected.insert(MsgLine("Thread:7 reading size " +
                                std::to_string(size == 0x100000u ? 131072 : 131075)));
        EXPECT_EQ(expected, pieces);
    }

    // A larger image with a known pattern, through the public loader.
    const std::string data = Pattern(64 << 20);
    const std::string path = Write("big", data);
    DbgPrintManager::GetInstance()->set_mask(0x3);
    uint32_t size = 0;
    std::unique_ptr<char[]> image = import_file_to_mem(path.c_str(), &size, 0, 0);
    ASSERT_EQ(data.size(), size);
    EXPECT_EQ(0, memory_compare(data.data(), image.get(), size));
}

TEST_F(FileUtilsTest, AnyShortPieceFailsTheWholeRead) {
    const std::string path = Write("two_mib", Pattern(2 << 20));
    std::string out(2 << 20, '\0');

    // A handle whose file is shorter than its piece: only worker 3 reads short.
    const std::string shorter = Write("short", Pattern(1 << 19));
    FileBufferReader reader(path);
    std::fclose(reader.handles[3]);
    reader.handles[3] = std::fopen(shorter.c_str(), "rb");
    LogCapture log;
    EXPECT_EQ(2, reader.copy_buffer(&out[0], 0, 0));
    EXPECT_TRUE(log.contains(Line("  File Read Error\n")));
    EXPECT_EQ(2, reader.thread_copy_buffer(0, 16, reader.handles[0], -1, &out[0]));
    EXPECT_FALSE(reader.read_status);
    std::fclose(reader.handles[3]);
    reader.handles[3] = std::fopen(path.c_str(), "rb");
    EXPECT_EQ(0, reader.copy_buffer(&out[0], 0, 0));  // the status is reset for every read

    // The file truncated between open and read.
    const std::string result = zel_test::RunInChild([&] {
        FileBufferReader fresh(path);
        if (truncate(path.c_str(), 3 << 18) != 0) return std::string("truncate failed");
        return std::to_string(fresh.copy_buffer(&out[0], 0, 0));
    });
    EXPECT_EQ("2", result);
}

TEST_F(FileUtilsTest, FewerHandlesStillReadEverything) {
    const std::string data = Pattern(0x100003);
    const std::string path = Write("limited", data);
    for (int spare : {1, 3}) {
        const std::string result = zel_test::RunInChild([&] {
            // The limit bounds descriptor numbers: leave exactly `spare` free numbers below it.
            rlim_t top = 0;
            for (int free_slots = 0; free_slots < spare; ++top)
                if (fcntl(static_cast<int>(top), F_GETFD) == -1) ++free_slots;
            const rlimit limit = {top, top};
            if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return std::string("setrlimit failed");
            FileBufferReader reader(path);
            std::string out(data.size(), '\0');
            const ZelReturn read = reader.copy_buffer(&out[0], 0, 0);
            return std::to_string(reader.handle_count) + " " + std::to_string(read) + " " +
                   (out == data ? "same" : "different");
        });
        EXPECT_EQ(std::to_string(spare) + " 0 same", result);
    }
}

TEST_F(FileUtilsTest, DumpCopiesTheModelIntoTheDumpDirectory) {
    const std::string dump_dir = "/data/vendor/zel/dump";
    for (const char* dir : {"/data", "/data/vendor", "/data/vendor/zel", "/data/vendor/zel/dump"})
        mkdir(dir, 0774);
    if (access(dump_dir.c_str(), W_OK) != 0)
        GTEST_SKIP() << "cannot create or write " << dump_dir << ": " << strerror(errno);
    const std::string data = Pattern(3 << 19);
    FileBufferReader reader(Write("model", data));
    const time_t before = time(nullptr);
    ASSERT_EQ(0, reader.dump_model_file());
    const time_t after = time(nullptr);
    int found = 0;
    for (time_t t = before; t <= after; ++t) {
        const std::string dump = dump_dir + "/DUMP_NNC_" + std::to_string(t) + ".nnc";
        std::ifstream in(dump, std::ios::binary);
        if (!in) continue;
        ++found;
        EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(in), {}) == data);
        unlink(dump.c_str());
    }
    EXPECT_EQ(1, found);
}

}  // namespace
