#include "lib/tqstdio.h"

#include <cerrno>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "lib/alloc.h"

namespace {

// A read-only stream over a copy of `bytes`, NUL bytes included.
struct memory_stream {
    std::string bytes;
    FILE *file;
    explicit memory_stream(const std::string &content)
        : bytes(content), file(content.empty() ? fopen("/dev/null", "r")
                                               : fmemopen(bytes.data(), bytes.size(), "r")) {}
    ~memory_stream() { fclose(file); }
};

struct line_buffer {
    char *data = nullptr;
    size_t size = 0;
    ~line_buffer() { dyp_free(data); }
    int read(FILE *stream, int skip_empty = 1) {
        return _tq_getline(&data, &size, stream, skip_empty);
    }
};

// Every line _tq_getline returns for `bytes`, until it reports the end.
std::vector<std::string> read_all(const std::string &bytes, int skip_empty) {
    memory_stream stream(bytes);
    line_buffer line;
    std::vector<std::string> lines;
    int length;
    while ((length = line.read(stream.file, skip_empty)) >= 0) {
        EXPECT_EQ(std::string(line.data).size(), static_cast<size_t>(length));
        lines.emplace_back(line.data, static_cast<size_t>(length));
    }
    EXPECT_EQ(length, -ENOENT);
    return lines;
}

// The same split done independently: LF, CR and NUL end lines.
std::vector<std::string> split_lines(const std::string &bytes, bool skip_empty) {
    std::vector<std::string> lines;
    std::string current;
    for (char c : bytes) {
        if (c != '\n' && c != '\r' && c != '\0') {
            current += c;
            continue;
        }
        if (!current.empty() || !skip_empty)
            lines.push_back(current);
        current.clear();
    }
    if (!current.empty())
        lines.push_back(current);
    return lines;
}

// Number of lines of a file with `content`, through tq_get_nlines.
int count_lines(const std::string &content) {
    char path[] = "/tmp/dyptest-stdio-XXXXXX";
    int fd = mkstemp(path);
    (void)!write(fd, content.data(), content.size());
    close(fd);
    int lines = tq_get_nlines(path);
    unlink(path);
    return lines;
}

using lines = std::vector<std::string>;

} // namespace

TEST(TqGetline, BufferStartsAt16AndDoublesFromThe15thCharacter) {
    const size_t cases[][2] = {{0, 16}, {14, 16}, {15, 32}, {30, 32}, {31, 64}, {63, 128}};
    for (const auto &c : cases) {
        memory_stream stream(std::string(c[0], 'x') + "\n");
        line_buffer line;
        EXPECT_EQ(line.read(stream.file, 0), static_cast<int>(c[0]));
        EXPECT_EQ(line.size, c[1]) << "line of " << c[0];
    }
}

TEST(TqGetline, LineEndsAndEmptyLines) {
    EXPECT_EQ(read_all("a=1\r\n\r\nb=2\r\n", 1), (lines{"a=1", "b=2"}));
    EXPECT_EQ(read_all("a\r\nb\n\n", 0), (lines{"a", "", "b", ""}));
    EXPECT_EQ(read_all(std::string("a\0b\rc", 5), 1), (lines{"a", "b", "c"}));
    EXPECT_EQ(read_all("first\nlast", 1), (lines{"first", "last"}));
    EXPECT_EQ(read_all("", 1), lines{});
}

TEST(TqGetline, RefusesNullArgumentsAndKeepsACallersBlockOfSizeZero) {
    memory_stream stream("new\n");
    line_buffer line;
    EXPECT_EQ(_tq_getline(nullptr, &line.size, stream.file, 1), -EINVAL);
    EXPECT_EQ(_tq_getline(&line.data, nullptr, stream.file, 1), -EINVAL);
    EXPECT_EQ(line.read(nullptr), -EINVAL);
    char callers[4] = "abc";
    line.data = callers;
    ASSERT_EQ(line.read(stream.file), 3);
    EXPECT_NE(line.data, callers);
    EXPECT_STREQ(callers, "abc");
}

TEST(TqGetline, ReadErrorEndsTheLineAndIsCleared) {
    // Reading a stream opened for writing only fails with an error.
    FILE *write_only = fopen("/dev/null", "w");
    line_buffer line;
    EXPECT_EQ(line.read(write_only), -ENOENT);
    EXPECT_EQ(ferror(write_only), 0);
    fclose(write_only);
}

TEST(TqGetline, MemoryRunningOutLeavesTheOldBlockWithTheCaller) {
    memory_stream stream(std::string(20, 'q') + "\n");
    line_buffer line;
    dyp_alloc_fail_after(1);
    EXPECT_EQ(line.read(stream.file), -ENOMEM);
    EXPECT_EQ(line.data, nullptr);
    dyp_alloc_fail_after(2);
    EXPECT_EQ(line.read(stream.file), -ENOMEM);
    dyp_alloc_fail_after(0);
    ASSERT_NE(line.data, nullptr);
    EXPECT_EQ(line.size, 16u);
    EXPECT_EQ(std::string(line.data, 15), std::string(15, 'q'));
}

// Untrusted bytes: the lines come back exactly as an independent split sees
// them, and the sanitizer build proves that no access leaves the buffer.
TEST(TqGetline, HostileInputSplitsLikeAnIndependentReader) {
    std::mt19937 random(20261121);
    for (int round = 0; round < 50; ++round) {
        std::string bytes(random() % 3000, '\0');
        for (char &c : bytes)
            c = static_cast<char>(random() % 8 == 0 ? "\n\r"[random() % 3] : random() % 256);
        EXPECT_EQ(read_all(bytes, 1), split_lines(bytes, true)) << round;
        EXPECT_EQ(read_all(bytes, 0), split_lines(bytes, false)) << round;
    }
    std::string long_line(1 << 20, 'L');
    EXPECT_EQ(read_all(long_line + "\r" + long_line, 1), (lines{long_line, long_line}));
    EXPECT_EQ(read_all(std::string(1000, '\r'), 1), lines{});
}

TEST(TqGetNlines, CountsEveryLineEnd) {
    EXPECT_EQ(count_lines("a\nb\nc\n"), 3);
    EXPECT_EQ(count_lines("a\r\nb\r\nc\r\n"), 6);
    EXPECT_EQ(count_lines("a\n\nlast"), 3);
    EXPECT_EQ(count_lines(""), 0);
    EXPECT_EQ(tq_get_nlines("/nonexistent/dyptest"), -ENOENT);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(count_lines("a\n"), -ENOMEM);
    dyp_alloc_fail_after(0);
}

TEST(TqFgotoline, SkipsLinesFromTheCurrentPosition) {
    memory_stream stream("1\n\n3\n4\n5\n");
    EXPECT_EQ(tq_fgotoline(stream.file, 1), 0);
    EXPECT_EQ(ftell(stream.file), 0);
    ASSERT_EQ(tq_fgotoline(stream.file, 3), 0);
    ASSERT_EQ(tq_fgotoline(stream.file, 2), 0);
    line_buffer line;
    ASSERT_EQ(line.read(stream.file), 1);
    EXPECT_STREQ(line.data, "4");
    EXPECT_EQ(tq_fgotoline(stream.file, 0), -EINVAL);
    EXPECT_EQ(tq_fgotoline(stream.file, 3), -ENOENT);
}
