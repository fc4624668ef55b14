#include "lib/cfgctrl.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

#include "lib/alloc.h"
#include "lib/fd.h"
#include "lib/log.h"
#include "lib/nerrno.h"
#include "lib/tqstdio.h"

namespace {
constexpr char temp_template[] = "conf.tmp.XXXXXX";

// A NUL-terminated heap copy of `length` bytes of `text`, or null.
char *copy_text(const char *text, size_t length) {
    auto *copy = static_cast<char *>(dyp_malloc(length + 1));
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// A piece of a configuration line.
struct text_line {
    const char *start;
    size_t length;
};

// The key of the pair line starting at `line`: the text before its '=' at
// `equals` without surrounding blanks and tabs.
text_line pair_key(const char *line, const char *equals) {
    const char *start = line;
    while (is_blank(*start))
        ++start;
    const char *end = equals;
    while (end > start && is_blank(end[-1]))
        --end;
    return {start, static_cast<size_t>(end - start)};
}

// The name inside a section header line ("[name]..."), cut at the first
// ']' in place; null when the line is no header.
char *section_name(char *line) {
    if (line[0] != '[')
        return nullptr;
    char *close = std::strchr(line, ']');
    if (close == nullptr)
        return nullptr;
    *close = '\0';
    return line + 1;
}

// What the readers report for a configuration file that could not be
// read: -EIO when it cannot be opened or read; -EFBIG and -ENOMEM as they
// come.
int read_failure(int result) {
    return result == -EFBIG || result == -ENOMEM ? result : -EIO;
}

// Opens a configuration file for reading within the reader's bound.
int open_for_reading(const char *path, FILE **stream) {
    int result = tq_open_config(path, stream);
    return result < 0 ? read_failure(result) : 0;
}

// Hands every line of `stream` to `visit`, which returns a positive value
// to go on, 0 to stop or a negative errno value to fail. Returns 0 at the
// end of the file or when stopped, otherwise the failure.
template <typename F> int for_each_line(FILE *stream, F &&visit) {
    tq_line_buffer line;
    for (;;) {
        int length = line.read(stream);
        if (length == -ENOENT)
            return 0;
        if (length < 0)
            return length;
        int visited = visit(line.data);
        if (visited <= 0)
            return visited;
    }
}

// Reads the pairs that follow the current position up to the next header
// or the end of the file and hands each to `take`, which owns it from then
// on and returns a positive value to go on, 0 to stop or a negative errno
// value to fail. Lines that are not pairs are skipped. Returns 0 at the end
// of the section or when stopped.
template <typename F> int read_section_pairs(FILE *stream, F &&take) {
    return for_each_line(stream, [&take](char *line) {
        if (section_name(line) != nullptr)
            return 0;
        tq_cfg_pair *pair = nullptr;
        int split = tq_cfg_split_line(line, &pair);
        if (split == -EINVAL)
            return 1;
        if (split < 0)
            return split;
        return take(pair);
    });
}

// Fills `container` from the file at `path` with `fill` and hands it to
// `*out`; when the file cannot be opened or `fill` fails, the container is
// released with `release` so that no partial result escapes.
template <typename C, typename F>
int fill_from_file(const char *path, C *container, C **out, F &&fill, void (*release)(C *)) {
    FILE *stream = nullptr;
    int result = open_for_reading(path, &stream);
    tq_stream file(stream);
    if (result == 0)
        result = fill(stream);
    if (result < 0) {
        release(container);
        return result;
    }
    *out = container;
    return 0;
}
} // namespace

void tq_cfg_free_pair(tq_cfg_pair *pair) {
    if (pair == nullptr)
        return;
    dyp_free(pair->key);
    dyp_free(pair->value);
    dyp_free(pair);
}

int tq_cfg_split_line(const char *text, tq_cfg_pair **pair_out) {
    if (text == nullptr || pair_out == nullptr)
        return -EINVAL;
    const char *equals = std::strchr(text, '=');
    if (equals == nullptr || equals == text)
        return -EINVAL;
    auto *pair = static_cast<tq_cfg_pair *>(dyp_calloc(1, sizeof(tq_cfg_pair)));
    if (pair == nullptr)
        return -ENOMEM;
    text_line key = pair_key(text, equals);
    const char *value = equals + 1;
    pair->key = copy_text(key.start, key.length);
    pair->value = copy_text(value, std::strcspn(value, "\r\n"));
    if (pair->key == nullptr || pair->value == nullptr) {
        tq_cfg_free_pair(pair);
        return -ENOMEM;
    }
    *pair_out = pair;
    return 0;
}

int tq_cfg_seek_section(FILE *stream, const char *section) {
    if (stream == nullptr)
        return -EINVAL;
    if (section == nullptr || section[0] == '\0')
        return 0;
    tq_line_buffer line;
    for (;;) {
        int length = line.read(stream);
        if (length < 0)
            return length;
        const char *name = section_name(line.data);
        if (name != nullptr && std::strcmp(name, section) == 0)
            return 0;
    }
}

namespace {
bool ends_line(char c) {
    return c == '\n' || c == '\r' || c == '\0';
}

// The next non-empty line from `*cursor` on, split as tq_getline splits a
// stream; false at `end`.
bool next_line(const char **cursor, const char *end, text_line *line) {
    const char *start = *cursor;
    while (start < end && ends_line(*start))
        ++start;
    const char *stop = start;
    while (stop < end && !ends_line(*stop))
        ++stop;
    *cursor = stop;
    *line = {start, static_cast<size_t>(stop - start)};
    return stop != start;
}

// Whether `length` bytes at `text`, which hold no NUL, are exactly `name`.
bool same_text(const char *text, size_t length, const char *name) {
    return std::strncmp(text, name, length) == 0 && name[length] == '\0';
}

// Whether `line` is a section header: then its name is in `*name`.
bool header_name(const text_line &line, text_line *name) {
    if (line.start[0] != '[')
        return false;
    const auto *close = static_cast<const char *>(std::memchr(line.start, ']', line.length));
    if (close == nullptr)
        return false;
    *name = {line.start + 1, static_cast<size_t>(close - line.start - 1)};
    return true;
}

// Whether `line` is a pair whose key, split and trimmed as by
// tq_cfg_split_line, is `key`: then its value is in `*value`.
bool pair_value(const text_line &line, const char *key, text_line *value) {
    const auto *equals = static_cast<const char *>(std::memchr(line.start, '=', line.length));
    if (equals == nullptr || equals == line.start)
        return false;
    text_line line_key = pair_key(line.start, equals);
    if (!same_text(line_key.start, line_key.length, key))
        return false;
    *value = {equals + 1, static_cast<size_t>(line.start + line.length - equals - 1)};
    return true;
}

} // namespace

char *tq_cfg_find_in_text(char *text, size_t size, const char *section, const char *key) {
    const char *cursor = text;
    bool in_section = section == nullptr || section[0] == '\0';
    text_line line{}, found{};
    while (next_line(&cursor, text + size, &line)) {
        bool header = header_name(line, &found);
        if (!in_section) {
            in_section = header && same_text(found.start, found.length, section);
            continue;
        }
        if (header)
            break;
        if (pair_value(line, key, &found)) {
            // The value ends where its line does: at a line end, which a NUL
            // also is to the scan, or at the NUL after the text.
            char *value = text + (found.start - text);
            value[found.length] = '\0';
            return value;
        }
    }
    return nullptr;
}

char *tq_cfg_copy_string(const char *value) {
    return copy_text(value, std::strlen(value));
}

// Works on the file's copy directly, without a stream, by the same rules
// as the stream readers.
int tq_cfg_get_ini_string(const char *path, const char *section, const char *key,
                          char **value_out) {
    if (path == nullptr || key == nullptr || value_out == nullptr)
        return -EINVAL;
    char *text = nullptr;
    size_t size = 0;
    int result = tq_read_config(path, &text, &size);
    if (result < 0)
        return read_failure(result);
    const char *value = tq_cfg_find_in_text(text, size, section, key);
    result = -ENOENT;
    if (value != nullptr) {
        *value_out = tq_cfg_copy_string(value);
        result = *value_out == nullptr ? -ENOMEM : 0;
    }
    dyp_free(text);
    return result;
}

void tq_cfg_release_string(char *value) {
    dyp_free(value);
}

int tq_cfg_get_section(const char *path, const char *section, tqmap<tq_cfg_pair> **map_out) {
    if (path == nullptr || map_out == nullptr)
        return -EINVAL;
    tqmap<tq_cfg_pair> *map = tqmap_create<tq_cfg_pair>(std::strcmp);
    if (map == nullptr)
        return -ENOMEM;
    auto read_pairs = [map, section](FILE *stream) {
        int found = tq_cfg_seek_section(stream, section);
        if (found < 0)
            return found;
        return read_section_pairs(stream, [map](tq_cfg_pair *pair) {
            if (tqlist_append(map->list, pair) != nullptr)
                return 1;
            tq_cfg_free_pair(pair);
            return -ENOMEM;
        });
    };
    return fill_from_file(path, map, map_out, read_pairs, tq_cfg_release_section);
}

void tq_cfg_release_section(tqmap<tq_cfg_pair> *map) {
    if (map == nullptr)
        return;
    tqlist_for_each(map->list, [](tq_cfg_pair *pair) {
        tq_cfg_free_pair(pair);
        return true;
    });
    tqmap_dispose(map);
}

namespace {
// Appends the name of every section header of `stream` to `names`.
int collect_section_names(FILE *stream, tqlist<char> *names) {
    return for_each_line(stream, [names](char *line) {
        const char *name = section_name(line);
        if (name == nullptr)
            return 1;
        char *copy = copy_text(name, std::strlen(name));
        if (copy == nullptr)
            return -ENOMEM;
        if (tqlist_append(names, copy) == nullptr) {
            dyp_free(copy);
            return -ENOMEM;
        }
        return 1;
    });
}
} // namespace

int tq_cfg_get_section_list(const char *path, tqlist<char> **list_out) {
    if (path == nullptr || list_out == nullptr)
        return -EINVAL;
    tqlist<char> *names = tqlist_create<char>();
    if (names == nullptr)
        return -ENOMEM;
    auto read_names = [names](FILE *stream) { return collect_section_names(stream, names); };
    return fill_from_file(path, names, list_out, read_names, tq_cfg_release_section_list);
}

void tq_cfg_release_section_list(tqlist<char> *list) {
    if (list == nullptr)
        return;
    tqlist_for_each(list, [](char *name) {
        dyp_free(name);
        return true;
    });
    tqlist_dispose(list);
}

namespace {
// Writes `line` to `out`, or "key=value" of the entry whose key equals the
// line's text before the first '=' exactly as written (not trimmed, so
// "a = 1" never matches the key "a").
int rewrite_line(FILE *out, char *line, tqmap<tq_cfg_pair> *map) {
    const tq_cfg_pair *entry = nullptr;
    char *equals = std::strchr(line, '=');
    if (equals != nullptr) {
        *equals = '\0';
        tqlist_node<tq_cfg_pair> *node = tqmap_find(map, line);
        *equals = '=';
        if (node != tqlist_head(map->list))
            entry = node->item;
    }
    int written = entry != nullptr ? fprintf(out, "%s=%s\n", entry->key, entry->value)
                                   : fprintf(out, "%s\n", line);
    return written < 0 ? -ENOSPC : 0;
}

int rewrite_lines(FILE *in, FILE *out, tqmap<tq_cfg_pair> *map) {
    return for_each_line(in, [out, map](char *line) {
        int written = rewrite_line(out, line, map);
        return written < 0 ? written : 1;
    });
}

// Rewrites `source` into a new file named after the template in
// `temp_name` and renames it onto `path`.
int rewrite_through(const char *path, FILE *source, char *temp_name, tqmap<tq_cfg_pair> *map) {
    unique_fd temp_fd(mkostemp(temp_name, O_CLOEXEC));
    if (!temp_fd.valid())
        return neg_errno();
    tq_stream temp(fdopen(temp_fd.get(), "w"));
    if (temp.get() == nullptr)
        return neg_errno();
    (void)temp_fd.release();
    int result = rewrite_lines(source, temp.get(), map);
    if (result < 0)
        return result;
    if (fflush(temp.get()) != 0)
        return neg_errno();
    result = rename(temp_name, path);
    if (result != 0) {
        dyp_log(LOG_CRIT, "Rename config file fail master %s tmp %s", path, temp_name);
        // The documented result of a failed rename is its own -1, not errno.
        return result;
    }
    return 0;
}
} // namespace

int tq_cfg_set_strings(const char *path, const char *temp_dir, tqmap<tq_cfg_pair> *map) {
    if (path == nullptr || temp_dir == nullptr || map == nullptr)
        return -EINVAL;
    FILE *stream = nullptr;
    int opened = tq_open_config(path, &stream);
    tq_stream source(stream);
    if (opened < 0)
        return opened;
    // "<dir>/conf.tmp.XXXXXX": the separator, the template and its NUL.
    size_t name_size = std::strlen(temp_dir) + 18;
    auto *temp_name = static_cast<char *>(dyp_malloc(name_size));
    if (temp_name == nullptr)
        return -ENOMEM;
    (void)snprintf(temp_name, name_size, "%s/%s", temp_dir, temp_template);
    int result = rewrite_through(path, source.get(), temp_name, map);
    dyp_free(temp_name);
    return result;
}
