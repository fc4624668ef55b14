#include "lib/tqstdio.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "lib/fd.h"
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

// A configuration file's contents, read by a stdio stream.
struct config_copy {
    char *data;
    size_t size;
    size_t position;
};

ssize_t read_copy(void *cookie, char *buffer, size_t size) {
    auto *copy = static_cast<config_copy *>(cookie);
    size_t count = std::min(size, copy->size - copy->position);
    std::memcpy(buffer, copy->data + copy->position, count);
    copy->position += count;
    return static_cast<ssize_t>(count);
}

int close_copy(void *cookie) {
    auto *copy = static_cast<config_copy *>(cookie);
    dyp_free(copy->data);
    dyp_free(copy);
    return 0;
}

// Reads at most the size that `fd` has now, and only from a regular file
// within the bound; the block is the caller's also on failure.
int read_bounded(int fd, char **data, size_t *size) {
    struct stat status {};
    if (fstat(fd, &status) < 0)
        return neg_errno();
    if (!S_ISREG(status.st_mode) || status.st_size < 0 ||
        static_cast<uint64_t>(status.st_size) > TQ_CONFIG_MAX_SIZE)
        return -EFBIG;
    auto capacity = static_cast<size_t>(status.st_size);
    *data = static_cast<char *>(dyp_malloc(capacity + 1));
    if (*data == nullptr)
        return -ENOMEM;
    while (*size < capacity) {
        ssize_t got = read(fd, *data + *size, capacity - *size);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return neg_errno();
        if (got == 0)
            break; // the file shrank meanwhile
        *size += static_cast<size_t>(got);
    }
    (*data)[*size] = '\0';
    return 0;
}
} // namespace

int tq_read_config(const char *path, char **data_out, size_t *size_out) {
    if (path == nullptr || data_out == nullptr || size_out == nullptr)
        return -EINVAL;
    // Without O_NONBLOCK, opening a FIFO would wait for a writer.
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid())
        return neg_errno();
    char *data = nullptr;
    size_t size = 0;
    int result = read_bounded(fd.get(), &data, &size);
    if (result < 0) {
        dyp_free(data);
        return result;
    }
    *data_out = data;
    *size_out = size;
    return 0;
}

int tq_open_config(const char *path, FILE **stream_out) {
    if (path == nullptr || stream_out == nullptr)
        return -EINVAL;
    auto *copy = static_cast<config_copy *>(dyp_calloc(1, sizeof(config_copy)));
    if (copy == nullptr)
        return -ENOMEM;
    int result = tq_read_config(path, &copy->data, &copy->size);
    if (result < 0) {
        dyp_free(copy);
        return result;
    }
    FILE *stream = fopencookie(copy, "r", {read_copy, nullptr, nullptr, close_copy});
    if (stream == nullptr) {
        (void)close_copy(copy);
        return -ENOMEM;
    }
    *stream_out = stream;
    return 0;
}

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
    FILE *stream = nullptr;
    int opened = tq_open_config(path, &stream);
    tq_stream file(stream);
    if (opened < 0)
        return opened;
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
