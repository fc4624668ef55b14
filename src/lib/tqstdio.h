// Line reading over stdio streams for the configuration files.
#pragma once

#include <cstddef>
#include <cstdio>

#include "lib/alloc.h"

// Reads one line into the caller's heap buffer `*line` of `*size` bytes,
// allocating 16 bytes on first use and doubling it as the line grows; the
// buffer stays allocated for the caller to free with dyp_free. A line ends
// at LF, CR or NUL; the terminator is consumed, not stored, and the line is
// NUL-terminated. With `skip_empty` set, empty lines are passed over (so a
// CR LF pair ends one line). Returns the line's length, -ENOENT at end of
// file with nothing read or on a read error, -ENOMEM, or -EINVAL for a null
// argument.
int _tq_getline(char **line, size_t *size, FILE *stream, int skip_empty);

// _tq_getline skipping empty lines.
int tq_getline(char **line, size_t *size, FILE *stream);

// Number of lines in the file at `path`: every LF, CR or NUL ends one, so CR
// LF counts twice and an unterminated last line counts once. Negative errno
// when the file cannot be opened, -EFBIG when it is refused as by
// tq_open_config, -ENOMEM when memory runs out.
int tq_get_nlines(const char *path);

// Moves `stream` forward to the start of line `line_number`, counted from
// the current position (line 1 is the current line). -EINVAL below 1,
// -ENOENT when the stream ends first.
int tq_fgotoline(FILE *stream, int line_number);

// The most a configuration read consumes. A configuration file is a
// regular file of at most this many bytes, so that a path naming a FIFO, a
// device or an endlessly growing file cannot hold the reader.
constexpr size_t TQ_CONFIG_MAX_SIZE = 65536;

// Reads the configuration file at `path` into a new heap block in one
// bounded read (a file that grows meanwhile is read up to the size it had
// when opened). 0 with the block in `*data_out` (to be freed with
// dyp_free) and its length in `*size_out`, a NUL after the last byte; the negative errno of the
// open or the read; -EFBIG for anything but a regular file of at most TQ_CONFIG_MAX_SIZE bytes;
// -ENOMEM.
int tq_read_config(const char *path, char **data_out, size_t *size_out);

// tq_read_config's copy as a read-only stream. 0 with the stream in
// `*stream_out`, to be closed with fclose; otherwise tq_read_config's
// failures.
int tq_open_config(const char *path, FILE **stream_out);

// Owns a line buffer used with _tq_getline and frees it at scope end.
struct tq_line_buffer {
    char *data = nullptr;
    size_t size = 0;

    tq_line_buffer() = default;
    ~tq_line_buffer() { dyp_free(data); }
    tq_line_buffer(const tq_line_buffer &) = delete;
    tq_line_buffer &operator=(const tq_line_buffer &) = delete;

    int read(FILE *stream, int skip_empty = 1) {
        return _tq_getline(&data, &size, stream, skip_empty);
    }
};

// Owns a stdio stream and closes it at scope end.
class tq_stream {
  public:
    explicit tq_stream(FILE *file) : file_(file) {}
    // A close error is not reported: streams written through this owner are
    // flushed and checked before.
    ~tq_stream() {
        if (file_ != nullptr)
            (void)fclose(file_);
    }
    tq_stream(const tq_stream &) = delete;
    tq_stream &operator=(const tq_stream &) = delete;

    FILE *get() const { return file_; }

  private:
    FILE *file_;
};
