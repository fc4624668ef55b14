// INI-style configuration files: reading one key, reading whole sections,
// listing sections and writing changed values back.
//
// Syntax: a line whose first character is '[' and that holds a ']' starts
// the section named by the text between them, untrimmed and case-sensitive.
// A line with an '=' that is not its first character is a pair: the key is
// the text before the first '=' without surrounding blanks and tabs, the
// value everything after it exactly as written. Every other line is skipped;
// there is no comment syntax. Pairs before the first header belong to the
// unnamed section, which a null or empty section name selects.
//
// Every function reads its file through tq_read_config: a file that is not
// a regular file of at most TQ_CONFIG_MAX_SIZE (64 KiB) is refused with
// -EFBIG before anything of it is read.
#pragma once

#include <cstdio>

#include "lib/list.h"
#include "lib/map.h"

struct tq_cfg_pair {
    char *key;
    char *value;
};

// Frees the key, the value and the record; null is accepted.
void tq_cfg_free_pair(tq_cfg_pair *pair);

// Splits `text` at its first '=' into a new pair. -EINVAL for a null
// argument, a text without '=' or one that starts with '='; -ENOMEM (nothing
// left allocated).
int tq_cfg_split_line(const char *text, tq_cfg_pair **pair_out);

// Reads `stream` up to just after the header of `section`; returns 0 at
// once for a null or empty section. -ENOENT when no such header follows,
// -EINVAL for a null stream.
int tq_cfg_seek_section(FILE *stream, const char *section);

// The first value of `key` in `section` (null or empty: outside any
// section) of `text`, a file's `size` bytes as tq_read_config returns
// them, by the readers' rules; null when there is none. The value is ended
// in place where its line ends, which leaves the text's lines as they were
// for later lookups.
char *tq_cfg_find_in_text(char *text, size_t size, const char *section, const char *key);
// A heap copy of `value`, to be released with tq_cfg_release_string; null
// when memory runs out.
char *tq_cfg_copy_string(const char *value);

// A new heap copy of the first value of `key` in `section` of the file at
// `path`, to be released with tq_cfg_release_string. -EINVAL for a null
// path, key or output; -EIO when the file cannot be opened; -EFBIG when it
// is refused; -ENOENT when the section or key is missing; -ENOMEM.
int tq_cfg_get_ini_string(const char *path, const char *section, const char *key, char **value_out);
void tq_cfg_release_string(char *value);

// Every pair of the first occurrence of `section`, in file order with
// duplicates kept, as a map keyed by strcmp. Same results as
// tq_cfg_get_ini_string (-EINVAL for a null path or output).
int tq_cfg_get_section(const char *path, const char *section, tqmap<tq_cfg_pair> **map_out);
// Frees every pair, the nodes and the map; null is accepted.
void tq_cfg_release_section(tqmap<tq_cfg_pair> *map);

// The names of all section headers in file order (heap strings, duplicates
// kept). -EINVAL, -ENOMEM or -EIO as above.
int tq_cfg_get_section_list(const char *path, tqlist<char> **list_out);
// Frees every name, the nodes and the list; null is accepted.
void tq_cfg_release_section_list(tqlist<char> *list);

// Rewrites the file at `path` through a temporary file in `temp_dir`: every
// line whose text before the first '=' (untrimmed) equals the key of an
// entry of `map` becomes "key=value", in every section; other lines are
// copied; empty lines are dropped and line ends become LF. No key is added
// and no lock taken. The temporary file is left behind when a write, the
// flush or the rename fails. Returns 0; negative errno for a failed open
// (-EFBIG for a refused file);
// -ENOSPC for a failed write; -1 when the rename fails (logged at LOG_CRIT).
// The rename only succeeds when `temp_dir` is on the file system of `path`.
int tq_cfg_set_strings(const char *path, const char *temp_dir, tqmap<tq_cfg_pair> *map);
