#include "lib/tqstdio.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "lib/alloc.h"

namespace {

using lines = std::vector<std::string>;

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

} // namespace

TEST(TqGetline, LineEndsEmptyLinesAndTheUnterminatedLastLine) {
    EXPECT_EQ(read_all("a=1\r\n\r\nb=2\r\n", 1), (lines{"a=1", "b=2"}));
    EXPECT_EQ(read_all("a\r\nb\n\n", 0), (lines{"a", "", "b", ""}));
    EXPECT_EQ(read_all(std::string("a\0b\rc", 5), 1), (lines{"a", "b", "c"}));
    EXPECT_EQ(read_all("first\nlast", 1), (lines{"first", "last"}));
}

TEST(TqGetline, BufferStartsAt16AndDoublesFromThe15thCharacterKeptOnFailure) {
    const size_t cases[][2] = {{0, 16}, {14, 16}, {15, 32}, {31, 64}, {63, 128}};
    for (const auto &c : cases) {
        line_reader reader(std::string(c[0], 'x') + "\n");
        EXPECT_EQ(reader.read(0), static_cast<int>(c[0]));
        EXPECT_EQ(reader.size, c[1]) << "line of " << c[0];
    }
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

TEST(TqLines, CountingSeesEveryLineEndAndSkippingStartsAtTheCurrentLine) {
    char path[] = "/tmp/dyptest-stdio-XXXXXX";
    close(mkstemp(path));
    std::ofstream(path) << "a\r\nb\n\nlast";
    EXPECT_EQ(tq_get_nlines(path), 5);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(tq_get_nlines(path), -ENOMEM);
    dyp_alloc_fail_after(0);
    unlink(path);
    EXPECT_EQ(tq_get_nlines(path), -ENOENT);
    line_reader reader("1\n\n3\n4\n");
    EXPECT_EQ(tq_fgotoline(reader.file, 0), -EINVAL);
    ASSERT_EQ(tq_fgotoline(reader.file, 3), 0);
    ASSERT_EQ(tq_fgotoline(reader.file, 2), 0) << "from the current position";
    ASSERT_EQ(reader.read(), 1);
    EXPECT_STREQ(reader.data, "4");
    EXPECT_EQ(tq_fgotoline(reader.file, 2), -ENOENT);
}
