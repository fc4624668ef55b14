#include "lib/tqstdio.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "lib/alloc.h"

namespace {

using lines = std::vector<std::string>;

// A read-only stream over a copy of `bytes` (NUL bytes included) with the
// caller's line buffer that the reader grows.
struct line_reader {
    std::string bytes;
    FILE *file;
    char *data = nullptr;
    size_t size = 0;
    explicit line_reader(const std::string &content)
        : bytes(content), file(content.empty() ? fopen("/dev/null", "r")
                                               : fmemopen(bytes.data(), bytes.size(), "r")) {}
    ~line_reader() {
        fclose(file);
        dyp_free(data);
    }
    int read(int skip_empty = 1) { return _tq_getline(&data, &size, file, skip_empty); }
};

// Every line _tq_getline returns for `bytes`, until it reports the end.
lines read_all(const std::string &bytes, int skip_empty) {
    line_reader reader(bytes);
    lines found;
    int length;
    while ((length = reader.read(skip_empty)) >= 0)
        found.emplace_back(reader.data, static_cast<size_t>(length));
    EXPECT_EQ(length, -ENOENT);
    return found;
}

// The same split done independently: LF, CR and NUL end lines.
lines split_lines(const std::string &bytes, bool skip_empty) {
    lines found(1);
    for (char c : bytes) {
        if (c != '\n' && c != '\r' && c != '\0')
            found.back() += c;
        else if (!found.back().empty() || !skip_empty)
            found.emplace_back();
    }
    if (found.back().empty())
        found.pop_back(); // an unterminated last line counts only with text
    return found;
}

} // namespace

TEST(TqGetline, BufferStartsAt16AndDoublesFromThe15thCharacter) {
    const size_t cases[][2] = {{0, 16}, {14, 16}, {15, 32}, {31, 64}, {63, 128}};
    for (const auto &c : cases) {
        line_reader reader(std::string(c[0], 'x') + "\n");
        EXPECT_EQ(reader.read(0), static_cast<int>(c[0]));
        EXPECT_EQ(reader.size, c[1]) << "line of " << c[0];
    }
}

TEST(TqGetline, LineEndsAndEmptyLines) {
    EXPECT_EQ(read_all("a=1\r\n\r\nb=2\r\n", 1), (lines{"a=1", "b=2"}));
    EXPECT_EQ(read_all("a\r\nb\n\n", 0), (lines{"a", "", "b", ""}));
    EXPECT_EQ(read_all(std::string("a\0b\rc", 5), 1), (lines{"a", "b", "c"}));
    EXPECT_EQ(read_all("first\nlast", 1), (lines{"first", "last"}));
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
}

TEST(TqGetline, FailuresLeaveTheBlockWithTheCaller) {
    line_reader reader(std::string(20, 'q') + "\n");
    EXPECT_EQ(_tq_getline(nullptr, &reader.size, reader.file, 1), -EINVAL);
    EXPECT_EQ(_tq_getline(&reader.data, &reader.size, nullptr, 1), -EINVAL);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(reader.read(), -ENOMEM);
    EXPECT_EQ(reader.data, nullptr);
    dyp_alloc_fail_after(2);
    EXPECT_EQ(reader.read(), -ENOMEM) << "growing to 32 fails";
    dyp_alloc_fail_after(0);
    ASSERT_EQ(reader.size, 16u);
    EXPECT_EQ(std::string(reader.data, 15), std::string(15, 'q'));
    // A read error ends the line with -ENOENT and is cleared.
    FILE *write_only = fopen("/dev/null", "w");
    EXPECT_EQ(_tq_getline(&reader.data, &reader.size, write_only, 1), -ENOENT);
    EXPECT_EQ(ferror(write_only), 0);
    fclose(write_only);
}

TEST(TqGetNlines, CountsEveryLineEndAndAnUnterminatedLastLine) {
    char path[] = "/tmp/dyptest-stdio-XXXXXX";
    close(mkstemp(path));
    std::ofstream(path) << "a\r\nb\n\nlast";
    EXPECT_EQ(tq_get_nlines(path), 5);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(tq_get_nlines(path), -ENOMEM);
    dyp_alloc_fail_after(0);
    unlink(path);
    EXPECT_EQ(tq_get_nlines(path), -ENOENT);
}

TEST(TqFgotoline, SkipsLinesFromTheCurrentPosition) {
    line_reader reader("1\n\n3\n4\n5\n");
    EXPECT_EQ(tq_fgotoline(reader.file, 1), 0);
    EXPECT_EQ(ftell(reader.file), 0);
    ASSERT_EQ(tq_fgotoline(reader.file, 3), 0);
    ASSERT_EQ(tq_fgotoline(reader.file, 2), 0);
    ASSERT_EQ(reader.read(), 1);
    EXPECT_STREQ(reader.data, "4");
    EXPECT_EQ(tq_fgotoline(reader.file, 0), -EINVAL);
    EXPECT_EQ(tq_fgotoline(reader.file, 3), -ENOENT);
}
