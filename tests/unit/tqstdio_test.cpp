#include "lib/tqstdio.h"

#include <cerrno>
#include <cstdio>
#include <fstream>

#include <gtest/gtest.h>
#include <unistd.h>

#include "lib/alloc.h"
#include "support/time_limit.h"

namespace {

// A stream over a copy of `content` (NUL bytes included) and the caller's line buffer.
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

TEST(TqGetline, BufferStartsAt16AndDoublesFromThe15thCharacter) {
    const size_t cases[][2] = {{0, 16}, {14, 16}, {15, 32}, {31, 64}, {63, 128}};
    for (const auto &c : cases) {
        line_reader reader(std::string(c[0], 'x') + "\n");
        EXPECT_EQ(reader.read(0), static_cast<int>(c[0]));
        EXPECT_EQ(reader.size, c[1]) << "line of " << c[0];
    }
}

TEST(TqGetNlines, CountsEveryLineEndAndAnUnterminatedLastLine) {
    const std::string path = "/tmp/dyptest-stdio-" + std::to_string(getpid());
    std::ofstream(path) << "a\r\nb\n\nlast";
    EXPECT_EQ(tq_get_nlines(path.c_str()), 5);
    unlink(path.c_str());
    EXPECT_EQ(run_with_time_limit([] { return tq_get_nlines("/dev/zero"); }), -EFBIG);
}
