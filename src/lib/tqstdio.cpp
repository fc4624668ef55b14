#include "lib/tqstdio.h"

#include <cerrno>
#include <climits>

#include "lib/nerrno.h"

namespace {
constexpr size_t initial_line_size = 16;
// Lengths are returned as int, so a line may not reach INT_MAX bytes.
constexpr size_t max_line_size = static_cast<size_t>(INT_MAX) / 2 + 1;

bool ends_line(int c) {
    return c == '\n' || c == '\r' || c == '\0';
}

// Doubles the buffer; on failure the old block stays with the caller.
int grow_line(char **line, size_t *size) {
    if (*size >= max_line_size)
        return -ENOMEM;
    void *bigger = dyp_realloc(*line, *size * 2);
    if (bigger == nullptr)
        return -ENOMEM;
    *line = static_cast<char *>(bigger);
    *size *= 2;
    return 0;
}
} // namespace

int _tq_getline(char **line, size_t *size, FILE *stream, int skip_empty) {
    if (line == nullptr || size == nullptr || stream == nullptr)
        return -EINVAL;
    if (*line == nullptr || *size == 0) {
        // A block the caller paired with size 0 is not ours to free.
        void *block = dyp_malloc(initial_line_size);
        if (block == nullptr)
            return -ENOMEM;
        *line = static_cast<char *>(block);
        *size = initial_line_size;
    }
    size_t n = 0;
    for (;;) {
        int c = getc(stream);
        if (c == EOF) {
            // A read error loses the line even when part of it arrived: a
            // truncated configuration value is worse than none.
            bool failed = ferror(stream) != 0;
            clearerr(stream);
            if (failed || n == 0)
                return -ENOENT;
            break;
        }
        if (ends_line(c)) {
            if (skip_empty && n == 0)
                continue;
            break;
        }
        (*line)[n] = static_cast<char>(c);
        // Keep room for the next character and the terminating NUL.
        if (n++ + 2 >= *size) {
            int grown = grow_line(line, size);
            if (grown < 0)
                return grown;
        }
    }
    (*line)[n] = '\0';
    return static_cast<int>(n);
}

int tq_getline(char **line, size_t *size, FILE *stream) {
    return _tq_getline(line, size, stream, 1);
}

int tq_get_nlines(const char *path) {
    if (path == nullptr)
        return -EINVAL;
    tq_stream file(fopen(path, "re"));
    if (file.get() == nullptr)
        return neg_errno();
    tq_line_buffer line;
    int count = 0;
    int result;
    while ((result = line.read(file.get(), 0)) >= 0)
        ++count;
    return result == -ENOENT ? count : result;
}

int tq_fgotoline(FILE *stream, int line_number) {
    if (line_number < 1)
        return -EINVAL;
    if (line_number == 1)
        return 0;
    tq_line_buffer line;
    for (int skipped = 0; skipped < line_number - 1; ++skipped) {
        int result = line.read(stream, 0);
        if (result < 0)
            return result;
    }
    return 0;
}
