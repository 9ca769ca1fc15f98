// Loading files into memory, split reads over several handles, cursors, export and dumps.
#include "util/zel_utils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <set>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/proc_stats.h"

namespace {

using namespace zel::util;
using zel::debug::DbgPrintManager;
using zel_test::Line;
using zel_test::LogCapture;
using zel_test::MsgLine;
using Lines = std::vector<std::string>;

// Bytes that change with every 4-byte word, so a piece read at the wrong offset shows.
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
        files_.push_back(dir_ + "/" + name);
        std::ofstream(files_.back(), std::ios::binary).write(data.data(), data.size());
        return files_.back();
    }

    std::string dir_;
    std::vector<std::string> files_;
    uint64_t saved_mask_ = 0;
};

TEST_F(FileUtilsTest, ImportRangesWrapIn32Bits) {
    const std::string empty = Write("empty", "");
    const std::string path = Write("eight", "01234567");
    const char* name = path.c_str();
    const int fds = zel_test::CountOpenFds();
    LogCapture log;
    uint32_t size = 0;
    char* result = nullptr;

    EXPECT_EQ(3, get_file_size(empty.c_str(), &size));
    EXPECT_EQ(3, import_file_to_mem(empty.c_str(), &result, nullptr, 0, 0));
    EXPECT_EQ(nullptr, import_file_to_mem(empty.c_str(), &size, 0, 0));
    EXPECT_EQ(3u, log.count(Line("  File Loading Error\n")));
    EXPECT_EQ(2u, log.count(Line("  File open error: " + empty + "\n")));

    log.clear();
    EXPECT_EQ(1, import_file_to_mem(name, &result, nullptr, 0, 4));
    EXPECT_EQ(1, import_file_to_mem(name, &result, nullptr, 10, 0));
    EXPECT_EQ(nullptr, import_file_to_mem(name, &size, 10, 0));
    EXPECT_EQ((Lines{Line("  Offset should be zero if size is full(default)\n"),
                     Line("  Size(10), Offset(0) is bigger than file size(8)\n"),
                     Line("  Size(10), Offset(0) is bigger than file size(8)\n")}),
              log.messages());

    // 0xFFFFFFFF + 1 wraps to 0 and passes the range test; the read past the end fails.
    EXPECT_EQ(2, import_file_to_mem(name, &result, nullptr, 1, 0xFFFFFFFFu));
    ASSERT_NE(nullptr, result);
    free(result);
    result = nullptr;
    // From 2^31 the image block (length + 1, signed) cannot be allocated and the read refuses the
    // null block; at 0xFFFFFFFF it is empty, and the read into it is refused.
    log.clear();
    uint32_t loaded = 0;
    EXPECT_EQ(3, import_file_to_mem(name, &result, &loaded, 0x80000000u, 0x80000000u));
    EXPECT_EQ(0x80000000u, loaded);
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(3, import_file_to_mem(name, &result, &loaded, 0xFFFFFFFFu, 1));
    EXPECT_EQ(0xFFFFFFFFu, loaded);
    free(result);
    EXPECT_EQ(nullptr, import_file_to_mem(name, &size, 0xFFFFFFFFu, 1));
    const std::string warning =
            MsgLine("*Result is nullptr, please use import_file_to_mem with smart pointer");
    EXPECT_EQ((Lines{warning, Line("  output addr is null\n"), warning,
                     Line("* Size(4294967295) does not fit a file image\n"),
                     Line("* Size(4294967295) does not fit a file image\n")}),
              log.messages());

    // Null addresses and names are refused, not followed.
    log.clear();
    uint64_t value = 5;
    ASSERT_EQ(0, setenv("ZEL_FILE_UTILS_TEST", "12", 1));
    EXPECT_EQ(1, get_environment_variable_u64(nullptr, &value));
    EXPECT_EQ(1, get_environment_variable_u64("ZEL_FILE_UTILS_TEST", nullptr));
    EXPECT_EQ(0, get_environment_variable_u64("ZEL_FILE_UTILS_TEST", &value));
    EXPECT_EQ(12u, value);
    EXPECT_EQ(0, memory_compare(nullptr, nullptr, 0));
    const char* a = "a";
    char a_text[64];
    snprintf(a_text, sizeof(a_text), "* memory_compare(), null address: a(%p), b(%p)\n",
             static_cast<const void*>(a), nullptr);
    EXPECT_EQ(1, memory_compare(a, nullptr, 1));
    EXPECT_EQ((Lines{Line("* Environment variable name is nullptr\n"),
                     Line("* No place for the value of ZEL_FILE_UTILS_TEST\n"), Line(a_text)}),
              log.messages());
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

TEST_F(FileUtilsTest, ExportThenImportWholeFilesAndSlices) {
    const std::string path = dir_ + "/eight";
    const char* name = path.c_str();
    files_.push_back(path);
    const std::string big = Pattern(1 << 16);  // beyond a stdio buffer: the write itself fails
    LogCapture log;
    EXPECT_EQ(3, export_mem_to_file(name, "01234567", 0));
    EXPECT_NE(0, access(name, F_OK));
    EXPECT_EQ(3, export_mem_to_file("/dev/full", big.data(), big.size()));
    ASSERT_EQ(0, export_mem_to_file(name, "01234567", 8));

    char* result = nullptr;
    uint32_t loaded = 0;
    ASSERT_EQ(0, import_file_to_mem(name, &result, &loaded, 0, 0));
    EXPECT_EQ("01234567", std::string(result, loaded));
    // The caller's block is used as it is: no warning, no new block.
    char* block = result;
    ASSERT_EQ(0, import_file_to_mem(name, &result, &loaded, 3, 5));
    EXPECT_EQ(block, result);
    EXPECT_EQ("56734567", std::string(result, 8));
    free(result);
    EXPECT_EQ((Lines{Line("  Size is incorrect(0)!\n"), Line("  FileWrite Failed!!(0)\n"),
                     MsgLine("*Result is nullptr, please use import_file_to_mem with smart "
                             "pointer")}),
              log.messages());

    // The owning overload reports the whole file's size, not the slice's.
    uint32_t file_size = 0;
    std::unique_ptr<char[]> image = import_file_to_mem(name, &file_size, 2, 1);
    EXPECT_EQ(8u, file_size);
    EXPECT_EQ("12", std::string(image.get(), 2));
}

TEST_F(FileUtilsTest, Cursor) {
    FileBufferReader reader(Write("eight", "01234567"));
    LogCapture log;
    char out[9] = {};
    EXPECT_EQ(0, reader.set_cursor(8));
    EXPECT_EQ(3, reader.set_cursor(9));
    EXPECT_EQ(0, reader.set_cursor(0));
    EXPECT_EQ(0, reader.copy_buffer_with_cursor(out, 5));
    EXPECT_EQ(0, reader.copy_buffer_with_cursor(out + 5, 3));
    EXPECT_EQ(3, reader.copy_buffer_with_cursor(out, 1));
    EXPECT_EQ(8u, reader.get_cursor());
    EXPECT_STREQ("01234567", out);
    EXPECT_EQ(
            (Lines{Line("  parameter(9) is too big\n"), Line("  move(1), current(8) > size(8)\n")}),
            log.messages());
    // The new position wraps in 32 bits: 4 + 0xFFFFFFFE is 2.
    EXPECT_EQ(0, reader.set_cursor(4));
    EXPECT_EQ(0, reader.move_cursor(0xFFFFFFFEu));
    EXPECT_EQ(2u, reader.get_cursor());

    // A failed read leaves the cursor where it was. The file is larger than one stdio block, so
    // its start is not buffered yet when it shrinks.
    FileBufferReader shrinking(Write("shrinking", Pattern(10000)));
    std::string big(4000, '\0');
    ASSERT_EQ(0, shrinking.set_cursor(2));
    ASSERT_EQ(0, truncate(shrinking.file_name.c_str(), 100));
    EXPECT_EQ(3, shrinking.copy_buffer_with_cursor(&big[0], 4000));
    EXPECT_EQ(2u, shrinking.get_cursor());
}

TEST_F(FileUtilsTest, MissingFileGivesAnInvalidReader) {
    LogCapture log;
    FileBufferReader reader(dir_ + "/missing");
    EXPECT_FALSE(reader.is_valid());
    EXPECT_EQ(0u, reader.handle_count);
    EXPECT_EQ(0u, reader.size);
    char out[4];
    EXPECT_EQ(2, reader.copy_buffer(out, 0, 0));
    EXPECT_EQ((Lines{Line("  File open error\n"), Line("  File Open Error\n")}), log.messages());
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
        std::multiset<std::string> pieces, expected;
        for (const std::string& message : log.messages())
            if (message.find("Thread:") != std::string::npos) pieces.insert(message);
        for (int i = 0; size >= 0x100000u && i < 8; ++i)
            expected.insert(MsgLine("Thread:" + std::to_string(i) + " reading size " +
                                    (i == 7 && size == 0x100003u ? "131075" : "131072")));
        EXPECT_EQ(expected, pieces) << size;
    }
    DbgPrintManager::GetInstance()->set_mask(0x3);
    const std::string data = Pattern(64 << 20);
    uint32_t size = 0;
    std::unique_ptr<char[]> image = import_file_to_mem(Write("big", data).c_str(), &size, 0, 0);
    ASSERT_EQ(data.size(), size);
    EXPECT_EQ(0, memory_compare(data.data(), image.get(), size));
}

// The loader faults each piece's pages in before reading: that must work on a shared mapping,
// touch nothing outside the window even where a page is shared with a neighbour, and leave an
// unwritable destination to fail the read as it would have.
TEST_F(FileUtilsTest, SplitReadsIntoMappingsStayInTheirWindow) {
    const uint32_t size = 0x100003;
    const std::string data = Pattern(size);
    const std::string path = Write("window", data);
    const size_t mapped = 2 * size;
    const int fd = memfd_create("window", MFD_CLOEXEC);
    ASSERT_EQ(0, ftruncate(fd, static_cast<off_t>(mapped)));
    char* base =
            static_cast<char*>(mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ASSERT_NE(MAP_FAILED, base);
    memset(base, 0x5A, mapped);
    char* window = base + 777;
    ASSERT_EQ(0, import_file_to_mem(path.c_str(), &window, nullptr, 0, 0));
    EXPECT_EQ(0, memory_compare(window, data.data(), size));
    EXPECT_EQ(std::string(777, 0x5A), std::string(base, 777));
    EXPECT_EQ(std::string(mapped - 777 - size, 0x5A),
              std::string(window + size, mapped - 777 - size));

    ASSERT_EQ(0, mprotect(base, mapped, PROT_READ));
    LogCapture log;
    EXPECT_EQ(2, import_file_to_mem(path.c_str(), &window, nullptr, 0, 0));
    EXPECT_EQ(Lines{Line("  File Read Error\n")}, log.messages());
    munmap(base, mapped);
    close(fd);
}

TEST_F(FileUtilsTest, AnyShortPieceFailsTheWholeRead) {
    const std::string path = Write("two_mib", Pattern(2 << 20));
    std::string out(2 << 20, '\0');
    // Only worker 3's handle is on a file too short for its piece.
    FileBufferReader reader(path);
    std::fclose(reader.handles[3]);
    reader.handles[3] = std::fopen(Write("short", Pattern(1 << 19)).c_str(), "rb");
    LogCapture log;
    EXPECT_EQ(2, reader.copy_buffer(&out[0], 0, 0));
    EXPECT_EQ(Lines{Line("  File Read Error\n")}, log.messages());

    // The file truncated between open and read.
    EXPECT_EQ("2", zel_test::RunInChild([&] {
                  FileBufferReader fresh(path);
                  if (truncate(path.c_str(), 3 << 18) != 0) return std::string("truncate failed");
                  return std::to_string(fresh.copy_buffer(&out[0], 0, 0));
              }));
}

TEST_F(FileUtilsTest, FewerHandlesStillReadEverything) {
    const std::string data = Pattern(0x100003);
    const std::string path = Write("limited", data);
    for (int spare : {1, 3}) {
        EXPECT_EQ(std::to_string(spare) + " 0 same", zel_test::RunInChild([&] {
                      // Read once with descriptors to spare: a sanitizer's first check of a
                      // type probes memory through a pipe, which needs a free descriptor.
                      {
                          FileBufferReader warm(path);
                          std::string scratch(data.size(), '\0');
                          warm.copy_buffer(&scratch[0], 0, 0);
                      }
                      // The limit bounds descriptor numbers: leave `spare` free ones below it.
                      rlim_t top = 0;
                      for (int free_slots = 0; free_slots < spare; ++top)
                          free_slots += fcntl(static_cast<int>(top), F_GETFD) == -1;
                      const rlimit limit = {top, top};
                      if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return std::string("no limit");
                      FileBufferReader reader(path);
                      std::string out(data.size(), '\0');
                      const ZelReturn read = reader.copy_buffer(&out[0], 0, 0);
                      return std::to_string(reader.handle_count) + " " + std::to_string(read) +
                             (out == data ? " same" : " different");
                  }));
    }
}

TEST_F(FileUtilsTest, DumpCopiesTheModelIntoTheDumpDirectory) {
    for (const char* dir : {"/data", "/data/vendor", "/data/vendor/zel", "/data/vendor/zel/dump"})
        mkdir(dir, 0774);
    if (access("/data/vendor/zel/dump", W_OK) != 0)
        GTEST_SKIP() << "cannot create or write /data/vendor/zel/dump/";
    const std::string data = Pattern(3 << 19);
    FileBufferReader reader(Write("model", data));
    const time_t before = time(nullptr);
    ASSERT_EQ(0, reader.dump_model_file());
    int found = 0;
    for (time_t t = before; t <= time(nullptr); ++t) {
        const std::string dump = "/data/vendor/zel/dump/DUMP_NNC_" + std::to_string(t) + ".nnc";
        std::ifstream in(dump, std::ios::binary);
        if (!in) continue;
        ++found;
        EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(in), {}) == data);
        unlink(dump.c_str());
    }
    EXPECT_EQ(1, found);
}

}  // namespace
