// Loading files into memory, split reads over several handles, cursors, export and dumps.
#include "util/zel_utils.h"

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "support/log_capture.h"
#include "support/proc_stats.h"

namespace {

using namespace zel::util;
using zel_test::Line;
using Lines = std::vector<std::string>;

std::string Pattern(size_t size) {  // bytes that change with every 4-byte word
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<char>((i >> 2) * 131 + (i & 3));
    return data;
}

class FileUtilsTest : public ::testing::Test {
  protected:
    FileUtilsTest() { SetMask(0x3); }
    ~FileUtilsTest() override { system(("rm -rf " + dir_).c_str()); }
    static void SetMask(uint64_t m) { zel::debug::DbgPrintManager::GetInstance()->set_mask(m); }
    std::string Write(const std::string& name, const std::string& data) {
        std::ofstream(dir_ + "/" + name, std::ios::binary) << data;
        return dir_ + "/" + name;
    }
    char tmpl_[32] = "/tmp/zel_file_utils_XXXXXX";
    const std::string dir_ = mkdtemp(tmpl_);
    zel_test::LogCapture log;
};

TEST_F(FileUtilsTest, ImportAndExportResultsAndLines) {
    const std::string empty = Write("empty", ""), path = Write("eight", "01234567");
    const char* name = path.c_str();
    const int fds = zel_test::CountOpenFds();
    uint32_t size = 0;
    char* result = nullptr;
    EXPECT_EQ(3, import_file_to_mem(empty.c_str(), &result, nullptr, 0, 0));
    EXPECT_EQ(nullptr, import_file_to_mem(empty.c_str(), &size, 0, 0));
    EXPECT_EQ(2u, log.count(Line("  File Loading Error\n")));
    EXPECT_EQ(2u, log.count(Line("  File open error: " + empty + "\n")));

    // Ranges wrap in 32 bits; the image block (length + 1, signed) cannot be had from 2^31 on.
    const std::string W = zel_test::MsgLine(
            "*Result is nullptr, please use import_file_to_mem with smart pointer");
    for (const auto& [length, offset, code, loaded_size, bytes, lines] :
         std::vector<std::tuple<uint32_t, uint32_t, ZelReturn, uint32_t, std::string, Lines>>{
                 {0, 4, 1, 0, "", {Line("  Offset should be zero if size is full(default)\n")}},
                 {10, 0, 1, 0, "", {Line("  Size(10), Offset(0) is bigger than file size(8)\n")}},
                 {1, ~0u, 2, 1, "", {W, Line("  File Read Error\n")}},
                 {1u << 31, 1u << 31, 3, 1u << 31, "", {W, Line("  output addr is null\n")}},
                 {~0u, 1, 3, ~0u, "", {W, Line("* Size(4294967295) does not fit a file image\n")}},
                 {3, 5, 0, 3, "567", {W}},
                 {0, 0, 0, 8, "01234567", {W}}}) {
        SCOPED_TRACE(length);
        log.clear();
        uint32_t loaded = 0;
        result = nullptr;
        EXPECT_EQ(code, import_file_to_mem(name, &result, &loaded, length, offset));
        EXPECT_EQ(loaded_size, loaded);
        if (!bytes.empty()) EXPECT_EQ(bytes, std::string(result, loaded));
        EXPECT_EQ(lines, log.messages());
        free(result);
    }
    char block[9] = "abcdefgh";  // the caller's block is used as it is, without a warning
    result = block;
    log.clear();
    ASSERT_EQ(0, import_file_to_mem(name, &result, nullptr, 3, 5));
    EXPECT_STREQ("567defgh", result);
    EXPECT_EQ("12", std::string(import_file_to_mem(name, &size, 2, 1).get(), 2));
    EXPECT_EQ(8u, size);  // the whole file's
    EXPECT_EQ(nullptr, import_file_to_mem(name, &size, ~0u, 1));

    EXPECT_EQ(3, export_mem_to_file((dir_ + "/none").c_str(), "01234567", 0));
    EXPECT_NE(0, access((dir_ + "/none").c_str(), F_OK));
    EXPECT_EQ(3, export_mem_to_file(name, nullptr, 8));
    EXPECT_EQ(3, export_mem_to_file((dir_ + "/none/x").c_str(), "0", 1));
    EXPECT_EQ(3, export_mem_to_file("/dev/full", Pattern(1 << 16).data(), 1 << 16));  // unbuffered
    EXPECT_EQ(0, export_mem_to_file(name, "76543210", 8));
    EXPECT_EQ("76543210", std::string(import_file_to_mem(name, &size, 0, 0).get(), 8));

    EXPECT_EQ(3, get_file_size(nullptr, &size));
    EXPECT_EQ(3, export_mem_to_file(nullptr, "0", 1));
    EXPECT_EQ(3, get_file_size(name, nullptr));
    EXPECT_EQ(3, import_file_to_mem(name, nullptr, nullptr, 0, 0));
    EXPECT_EQ(0, memory_compare(nullptr, nullptr, 0) +
                         memory_compare("01234567", std::string("01234567").c_str(), 8));
    EXPECT_EQ(2, memory_compare("ab", "ac", 2) + memory_compare(name, nullptr, 1));
    char compared[80];
    snprintf(compared, 80, "* memory_compare(), null address: a(%p), b(%p)\n", name, nullptr);
    EXPECT_EQ((Lines{Line("* Size(4294967295) does not fit a file image\n"),
                     Line("  Size is incorrect(0)!\n"), Line("  Null address!\n"),
                     Line("  File Open Failed(" + dir_ + "/none/x)!!\n"),
                     Line("  FileWrite Failed!!(0)\n"), Line("* File name is nullptr\n"),
                     Line("  Null Filename!\n"), Line("  2nd parameter is nullptr\n"),
                     Line("  2nd parameter is nullptr\n"), Line(compared)}),
              log.messages());
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

TEST_F(FileUtilsTest, CursorAndMissingFile) {
    FileBufferReader reader(Write("eight", "01234567")), missing(dir_ + "/missing");
    char out[9] = {};
    // s: set_cursor, m: move_cursor (wrapping), c: copy_buffer_with_cursor to `out` at the cursor
    const std::tuple<char, uint32_t, int, uint32_t> steps[] = {
            {'s', 8, 0, 8}, {'s', 9, 3, 8}, {'s', 0, 0, 0}, {'c', 5, 0, 5},
            {'c', 3, 0, 8}, {'c', 1, 3, 8}, {'s', 4, 0, 4}, {'m', 0xFFFFFFFEu, 0, 2},
            {'m', 6, 0, 8}, {'m', 1, 3, 8}};
    for (const auto& [op, arg, code, cursor] : steps) {
        SCOPED_TRACE(std::string(1, op) + std::to_string(arg));
        EXPECT_EQ(code,
                  op == 's'   ? reader.set_cursor(arg)
                  : op == 'm' ? reader.move_cursor(arg)
                              : reader.copy_buffer_with_cursor(out + reader.get_cursor() % 8, arg));
        EXPECT_EQ(cursor, reader.get_cursor());
    }
    EXPECT_STREQ("01234567", out);
    EXPECT_FALSE(missing.is_valid());
    EXPECT_EQ(0u, missing.handle_count + missing.size);
    EXPECT_EQ(2, missing.copy_buffer(out, 0, 0));
    EXPECT_EQ((Lines{Line("  File open error\n"), Line("  parameter(9) is too big\n"),
                     Line("  move(1), current(8) > size(8)\n"), Line("  parameter(1) is too big\n"),
                     Line("  File Open Error\n")}),
              log.messages());
    android::base::unique_fd pipe_in, pipe_out;  // a file with no end to seek to
    ASSERT_TRUE(android::base::Pipe(&pipe_in, &pipe_out));
    EXPECT_EQ(0u, FileBufferReader("/proc/self/fd/" + std::to_string(pipe_in.get())).size);
    // A failed read keeps the cursor; the file, over a stdio block, shrinks before its first read.
    FileBufferReader shrinking(Write("shrinking", Pattern(10000)));
    char big[4000];
    ASSERT_EQ(0, shrinking.set_cursor(2) + truncate(shrinking.file_name.c_str(), 100));
    EXPECT_EQ(3, shrinking.copy_buffer_with_cursor(big, 4000));
    EXPECT_EQ(2u, shrinking.get_cursor());
}

// Split reads: exact to the byte in eight pieces inside their window, failed by any short piece.
TEST_F(FileUtilsTest, SplitReads) {
    const uint32_t size = 0x100003;
    const std::string data = Pattern(size + 5), path = Write("split", data);
    const size_t mapped = 2 * size;
    auto* base = static_cast<char*>(
            mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, base);
    memset(base, 0x5A, mapped);
    char* window = base + 777;
    FileBufferReader reader(path);
    SetMask(0x7);
    ASSERT_EQ(0, reader.copy_buffer(window, size, 5));
    EXPECT_TRUE(std::string(777, 0x5A) + data.substr(5) + std::string(mapped - 777 - size, 0x5A) ==
                std::string(base, mapped));
    Lines pieces = log.messages(), expected;
    std::sort(pieces.begin(), pieces.end());
    for (int i = 0; i < 8; ++i)
        expected.push_back(zel_test::MsgLine("Thread:" + std::to_string(i) + " reading size " +
                                             (i < 7 ? "131072" : "131075")));
    EXPECT_EQ(expected, pieces);
    ASSERT_EQ(0, mprotect(base, mapped, PROT_READ));
    EXPECT_EQ(2, reader.copy_buffer(window, size, 0));
    munmap(base, mapped);
    std::fclose(reader.handles[3]);  // worker 3 reads a file too short for its piece
    reader.handles[3] = std::fopen(Write("short", Pattern(1 << 18)).c_str(), "rb");
    std::string out(size, '\0');
    SetMask(0x3);
    log.clear();
    EXPECT_EQ(2, reader.copy_buffer(&out[0], size, 0));
    EXPECT_EQ(Lines{Line("  File Read Error\n")}, log.messages());
    FileBufferReader fresh(path);
    ASSERT_EQ(0, truncate(path.c_str(), 3 << 18));  // between open and read
    EXPECT_EQ(2, fresh.copy_buffer(&out[0], 0, 0));
}

TEST_F(FileUtilsTest, DumpCopiesTheModelIntoTheDumpDirectory) {
    system("mkdir -p /data/vendor/zel/dump");
    if (access("/data/vendor/zel/dump", W_OK) != 0) GTEST_SKIP() << "cannot write the dump dir";
    const std::string data = Pattern(3 << 19);
    const time_t before = time(nullptr);
    ASSERT_EQ(0, FileBufferReader(Write("model", data)).dump_model_file());
    int found = 0;
    for (time_t t = before; t <= time(nullptr); ++t) {
        const std::string dump = "/data/vendor/zel/dump/DUMP_NNC_" + std::to_string(t) + ".nnc";
        std::ifstream in(dump, std::ios::binary);
        found += std::string(std::istreambuf_iterator<char>(in), {}) == data;
        unlink(dump.c_str());
    }
    EXPECT_EQ(1, found);
}

}  // namespace
