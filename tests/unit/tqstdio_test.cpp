#include "lib/tqstdio.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "lib/alloc.h"

namespace {

// A read-only stream over a copy of `content` (NUL bytes included) and the
// caller's line buffer, which the reader grows.
struct line_reader {
    std::string bytes;
    FILE *file;
    char *data = nullptr;
    size_t size = 0;
    explicit line_reader(const std::string &content)
        : bytes(content), file(fmemopen(bytes.data(), bytes.size(), "r")) {}
    ~line_reader() {
        fclose(file);
        dyp_free(data);
    }
    int read(int skip_empty = 1) { return _tq_getline(&data, &size, file, skip_empty); }
    // Every line up to the end, each followed by '|'; the end must be -ENOENT.
    std::string all(int skip_empty) {
        std::string found;
        int length;
        while ((length = read(skip_empty)) >= 0)
            found.append(data, static_cast<size_t>(length)) += '|';
        EXPECT_EQ(length, -ENOENT);
        return found;
    }
};

} // namespace

TEST(TqGetline, LineEndsEmptyLinesAndTheUnterminatedLastLine) {
    EXPECT_EQ(line_reader("a=1\r\n\r\nb=2\r\n").all(1), "a=1|b=2|");
    EXPECT_EQ(line_reader("a\r\nb\n\n").all(0), "a||b||");
    EXPECT_EQ(line_reader(std::string("a\0b\rc", 5)).all(1), "a|b|c|");
    EXPECT_EQ(line_reader("first\nlast").all(1), "first|last|");
}

TEST(TqGetline, BufferStartsAt16AndDoublesFromThe15thCharacterKeptOnFailure) {
    const size_t cases[][2] = {{0, 16}, {14, 16}, {15, 32}, {31, 64}, {63, 128}};
    for (const auto &c : cases) {
        line_reader reader(std::string(c[0], 'x') + "\n");
        EXPECT_EQ(reader.read(0), static_cast<int>(c[0]));
        EXPECT_EQ(reader.size, c[1]) << "line of " << c[0];
    }
    line_reader reader(std::string(20, 'q') + "\n");
    EXPECT_EQ(_tq_getline(&reader.data, &reader.size, nullptr, 1), -EINVAL);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(reader.read(), -ENOMEM);
    EXPECT_EQ(reader.data, nullptr);
    dyp_alloc_fail_after(2);
    EXPECT_EQ(reader.read(), -ENOMEM) << "growing to 32 fails";
    dyp_alloc_fail_after(0);
    ASSERT_EQ(reader.size, 16u);
    EXPECT_EQ(std::string(reader.data, 15), std::string(15, 'q'));
}

TEST(TqGetNlines, CountsEveryLineEndAndAnUnterminatedLastLine) {
    char path[] = "/tmp/dyptest-stdio-XXXXXX";
    close(mkstemp(path));
    std::ofstream(path) << "a\r\nb\n\nlast";
    EXPECT_EQ(tq_get_nlines(path), 5);
    unlink(path);
}
