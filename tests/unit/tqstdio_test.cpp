#include "lib/tqstdio.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "lib/alloc.h"

namespace {

// A read-only stream over a copy of `bytes` (NUL bytes included).
class memory_stream {
  public:
    explicit memory_stream(const std::string &bytes) : bytes_(bytes) {
        // fmemopen refuses a zero-sized buffer, so nothing is read from /dev/null.
        file_ =
            bytes_.empty() ? fopen("/dev/null", "r") : fmemopen(bytes_.data(), bytes_.size(), "r");
    }
    ~memory_stream() {
        if (file_ != nullptr)
            fclose(file_);
    }
    FILE *get() const { return file_; }

  private:
    std::string bytes_;
    FILE *file_ = nullptr;
};

// Every line _tq_getline returns for `bytes`, until it reports the end.
std::vector<std::string> read_all(const std::string &bytes, int skip_empty) {
    memory_stream stream(bytes);
    char *line = nullptr;
    size_t size = 0;
    std::vector<std::string> lines;
    int length;
    while ((length = _tq_getline(&line, &size, stream.get(), skip_empty)) >= 0) {
        EXPECT_EQ(std::string(line).size(), static_cast<size_t>(length));
        lines.emplace_back(line, static_cast<size_t>(length));
    }
    EXPECT_EQ(length, -ENOENT);
    dyp_free(line);
    return lines;
}

// The same split done independently: LF, CR and NUL end lines.
std::vector<std::string> split_lines(const std::string &bytes, bool skip_empty) {
    std::vector<std::string> lines;
    std::string current;
    for (char c : bytes) {
        if (c == '\n' || c == '\r' || c == '\0') {
            if (!current.empty() || !skip_empty)
                lines.push_back(current);
            current.clear();
        } else {
            current += c;
        }
    }
    if (!current.empty())
        lines.push_back(current);
    return lines;
}

// A file in a private directory, removed with it.
class temp_file {
  public:
    explicit temp_file(const std::string &content) {
        char dir[] = "/tmp/dyptest-stdio-XXXXXX";
        dir_ = mkdtemp(dir);
        path_ = dir_ + "/file";
        FILE *out = fopen(path_.c_str(), "w");
        fwrite(content.data(), 1, content.size(), out);
        fclose(out);
    }
    ~temp_file() {
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    const char *path() const { return path_.c_str(); }

  private:
    std::string dir_;
    std::string path_;
};

struct line_buffer {
    char *data = nullptr;
    size_t size = 0;
    ~line_buffer() { dyp_free(data); }
};

} // namespace

TEST(TqGetline, RefusesNullArguments) {
    memory_stream stream("a\n");
    line_buffer line;
    EXPECT_EQ(_tq_getline(nullptr, &line.size, stream.get(), 1), -EINVAL);
    EXPECT_EQ(_tq_getline(&line.data, nullptr, stream.get(), 1), -EINVAL);
    EXPECT_EQ(_tq_getline(&line.data, &line.size, nullptr, 1), -EINVAL);
    EXPECT_EQ(line.data, nullptr);
}

TEST(TqGetline, BufferStartsAt16AndDoublesFromThe15thCharacter) {
    struct {
        size_t length;
        size_t size;
    } const cases[] = {{0, 16}, {14, 16}, {15, 32}, {30, 32}, {31, 64}, {62, 64}, {63, 128}};
    for (const auto &c : cases) {
        std::string text(c.length, 'x');
        memory_stream stream(text + "\n");
        line_buffer line;
        int length = _tq_getline(&line.data, &line.size, stream.get(), 0);
        EXPECT_EQ(length, static_cast<int>(c.length)) << c.length;
        EXPECT_EQ(line.size, c.size) << c.length;
        EXPECT_EQ(std::string(line.data), text);
    }
}

TEST(TqGetline, KeepsTheCallersBlockWhenItsSizeIsZero) {
    char callers[4] = "abc";
    line_buffer line;
    line.data = callers;
    memory_stream stream("new\n");
    ASSERT_EQ(tq_getline(&line.data, &line.size, stream.get()), 3);
    EXPECT_NE(line.data, callers);
    EXPECT_EQ(line.size, 16u);
    EXPECT_STREQ(callers, "abc");
}

TEST(TqGetline, ReusesAGrownBufferForShorterLines) {
    memory_stream stream(std::string(40, 'y') + "\nz\n");
    line_buffer line;
    ASSERT_EQ(tq_getline(&line.data, &line.size, stream.get()), 40);
    char *grown = line.data;
    ASSERT_EQ(tq_getline(&line.data, &line.size, stream.get()), 1);
    EXPECT_EQ(line.data, grown);
    EXPECT_EQ(line.size, 64u);
    EXPECT_STREQ(line.data, "z");
}

TEST(TqGetline, SkipsEmptyLinesSoCrLfGivesEachLineOnce) {
    EXPECT_EQ(read_all("a=1\r\n\r\nb=2\r\n", 1), (std::vector<std::string>{"a=1", "b=2"}));
    EXPECT_EQ(read_all("\n\n\r\r", 1), std::vector<std::string>{});
}

TEST(TqGetline, KeepsEmptyLinesWhenAskedSoCrLfEndsTwoLines) {
    EXPECT_EQ(read_all("a\r\nb\n\n", 0), (std::vector<std::string>{"a", "", "b", ""}));
}

TEST(TqGetline, NulAndCarriageReturnEndLines) {
    EXPECT_EQ(read_all(std::string("a\0b\rc", 5), 1), (std::vector<std::string>{"a", "b", "c"}));
}

TEST(TqGetline, ReturnsAnUnterminatedLastLineThenTheEnd) {
    memory_stream stream("first\nlast");
    line_buffer line;
    EXPECT_EQ(tq_getline(&line.data, &line.size, stream.get()), 5);
    EXPECT_EQ(tq_getline(&line.data, &line.size, stream.get()), 4);
    EXPECT_STREQ(line.data, "last");
    EXPECT_EQ(tq_getline(&line.data, &line.size, stream.get()), -ENOENT);
    EXPECT_EQ(tq_getline(&line.data, &line.size, stream.get()), -ENOENT);
}

TEST(TqGetline, EmptyStreamEndsAtOnce) {
    memory_stream stream("");
    line_buffer line;
    EXPECT_EQ(tq_getline(&line.data, &line.size, stream.get()), -ENOENT);
}

TEST(TqGetline, ReadErrorEndsTheLineAndIsCleared) {
    char path[] = "/tmp/dyptest-stdio-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    // A stream opened for writing only fails every read with an error.
    FILE *write_only = fopen(path, "w");
    ASSERT_NE(write_only, nullptr);
    line_buffer line;
    EXPECT_EQ(tq_getline(&line.data, &line.size, write_only), -ENOENT);
    EXPECT_EQ(ferror(write_only), 0);
    fclose(write_only);
    unlink(path);
}

TEST(TqGetlineMemory, FirstAllocationFailing) {
    memory_stream stream("abc\n");
    line_buffer line;
    dyp_alloc_fail_after(1);
    EXPECT_EQ(tq_getline(&line.data, &line.size, stream.get()), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(line.data, nullptr);
    EXPECT_EQ(line.size, 0u);
}

TEST(TqGetlineMemory, GrowthFailingLeavesTheOldBlockWithTheCaller) {
    memory_stream stream(std::string(20, 'q') + "\n");
    line_buffer line;
    dyp_alloc_fail_after(2);
    EXPECT_EQ(tq_getline(&line.data, &line.size, stream.get()), -ENOMEM);
    dyp_alloc_fail_after(0);
    ASSERT_NE(line.data, nullptr);
    EXPECT_EQ(line.size, 16u);
    EXPECT_EQ(std::string(line.data, 15), std::string(15, 'q'));
}

// Untrusted bytes: the lines come back exactly as an independent split
// sees them, and the sanitizer build proves no access leaves the buffer.
TEST(TqGetlineHostileInput, RandomBytesSplitLikeAnIndependentReader) {
    std::mt19937 random(20261121);
    for (int round = 0; round < 50; ++round) {
        std::string bytes(random() % 3000, '\0');
        for (char &c : bytes)
            c = static_cast<char>(random() % 8 == 0 ? "\n\r\0"[random() % 3] : random() % 256);
        EXPECT_EQ(read_all(bytes, 1), split_lines(bytes, true)) << round;
        EXPECT_EQ(read_all(bytes, 0), split_lines(bytes, false)) << round;
    }
}

TEST(TqGetlineHostileInput, VeryLongLineAndCarriageReturnsOnly) {
    std::string long_line(1 << 20, 'L');
    EXPECT_EQ(read_all(long_line + "\r" + long_line, 1),
              (std::vector<std::string>{long_line, long_line}));
    EXPECT_EQ(read_all(std::string(1000, '\r'), 1), std::vector<std::string>{});
    EXPECT_EQ(read_all(std::string(3, '\0'), 0), (std::vector<std::string>{"", "", ""}));
}

TEST(TqGetNlines, CountsEveryLineEnd) {
    EXPECT_EQ(tq_get_nlines(temp_file("a\nb\nc\n").path()), 3);
    EXPECT_EQ(tq_get_nlines(temp_file("a\r\nb\r\nc\r\n").path()), 6);
    EXPECT_EQ(tq_get_nlines(temp_file("a\n\nlast").path()), 3);
    EXPECT_EQ(tq_get_nlines(temp_file("").path()), 0);
}

TEST(TqGetNlines, MissingFileGivesItsErrno) {
    EXPECT_EQ(tq_get_nlines("/nonexistent/dyptest/file"), -ENOENT);
    EXPECT_EQ(tq_get_nlines(nullptr), -EINVAL);
}

TEST(TqGetNlines, MemoryRunningOut) {
    temp_file file("a\n");
    dyp_alloc_fail_after(1);
    EXPECT_EQ(tq_get_nlines(file.path()), -ENOMEM);
    dyp_alloc_fail_after(0);
}

TEST(TqFgotoline, ThirdLineSkipsTwoLinesCountingEmptyOnes) {
    memory_stream stream("one\n\nthree\nfour\n");
    ASSERT_EQ(tq_fgotoline(stream.get(), 3), 0);
    line_buffer line;
    ASSERT_EQ(tq_getline(&line.data, &line.size, stream.get()), 5);
    EXPECT_STREQ(line.data, "three");
}

TEST(TqFgotoline, CountsFromTheCurrentPosition) {
    memory_stream stream("1\n2\n3\n4\n");
    ASSERT_EQ(tq_fgotoline(stream.get(), 2), 0);
    ASSERT_EQ(tq_fgotoline(stream.get(), 2), 0);
    line_buffer line;
    ASSERT_EQ(tq_getline(&line.data, &line.size, stream.get()), 1);
    EXPECT_STREQ(line.data, "3");
}

TEST(TqFgotoline, FirstLineReadsNothingAndBadNumbersAreRefused) {
    memory_stream stream("x\n");
    EXPECT_EQ(tq_fgotoline(stream.get(), 1), 0);
    EXPECT_EQ(ftell(stream.get()), 0);
    EXPECT_EQ(tq_fgotoline(stream.get(), 0), -EINVAL);
    EXPECT_EQ(tq_fgotoline(stream.get(), -3), -EINVAL);
}

TEST(TqFgotoline, StreamEndingFirst) {
    memory_stream stream("a\nb\n");
    EXPECT_EQ(tq_fgotoline(stream.get(), 4), -ENOENT);
}
