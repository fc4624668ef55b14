#include "lib/tqstdio.h"

#include <fstream>
#include <gtest/gtest.h>

#include "lib/alloc.h"
#include "support/time_limit.h"

// The lines of `content` (NUL bytes included) each followed by '|', read
// through one line buffer whose final size goes to `size`; the end must be -ENOENT.
static std::string lines_of(std::string content, int skip_empty, size_t *size = nullptr) {
    FILE *file = fmemopen(content.data(), content.size(), "r");
    char *data = nullptr;
    size_t capacity = 0;
    std::string found;
    int length;
    while ((length = _tq_getline(&data, &capacity, file, skip_empty)) >= 0)
        found.append(data, static_cast<size_t>(length)) += '|';
    EXPECT_EQ(length, -ENOENT);
    fclose(file);
    dyp_free(data);
    if (size != nullptr)
        *size = capacity;
    return found;
}

TEST(TqGetline, LineEndsEmptyLinesAndTheUnterminatedLastLine) {
    EXPECT_EQ(lines_of("a=1\r\n\r\nb=2\r\n", 1), "a=1|b=2|");
    EXPECT_EQ(lines_of("a\r\nb\n\n", 0), "a||b||");
    EXPECT_EQ(lines_of(std::string("a\0b\rc", 5), 1), "a|b|c|");
    EXPECT_EQ(lines_of("first\nlast", 1), "first|last|");
}

TEST(TqGetline, BufferStartsAt16AndDoublesFromThe15thCharacter) {
    for (auto [length, size] : {std::pair<size_t, size_t>{0, 16}, {14, 16}, {15, 32}, {63, 128}}) {
        size_t got = 0;
        EXPECT_EQ(lines_of(std::string(length, 'x') + "\n", 0, &got),
                  std::string(length, 'x') + "|");
        EXPECT_EQ(got, size) << "line of " << length;
    }
}

TEST(TqGetNlines, CountsEveryLineEndAndAnUnterminatedLastLine) {
    const std::string path = "/tmp/dyptest-stdio-" + std::to_string(getpid());
    std::ofstream(path) << "a\r\nb\n\nlast";
    EXPECT_EQ(tq_get_nlines(path.c_str()), 5);
    unlink(path.c_str());
    EXPECT_EQ(run_with_time_limit([] { return tq_get_nlines("/dev/zero"); }), -EFBIG);
}
