// Bounded copies of names and texts into fixed-size fields.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

// Copies at most `dst_size` - 1 characters of a text that need not be
// terminated within its `src_size` bytes; the rest of `dst` is zeroed, so
// that records passed on never carry stale bytes after the text.
inline void copy_text(char *dst, size_t dst_size, const char *src, size_t src_size = SIZE_MAX) {
    size_t length = strnlen(src, src_size < dst_size ? src_size : dst_size - 1);
    memcpy(dst, src, length);
    memset(dst + length, 0, dst_size - length);
}

// A terminated text into a fixed field, cut to fit.
template <size_t N> void copy_text(char (&dst)[N], const char *src) {
    copy_text(dst, N, src);
}

// A fixed field into another, the source not necessarily terminated.
template <size_t N, size_t M> void copy_field(char (&dst)[N], const char (&src)[M]) {
    copy_text(dst, N, src, M);
}

// The texts one after the other in one terminated array, at compile time.
template <size_t... N> constexpr auto join_texts(const char (&...parts)[N]) {
    std::array<char, (N + ...) - sizeof...(N) + 1> joined{};
    size_t at = 0;
    for (std::string_view part : {std::string_view(parts, N - 1)...}) {
        for (char c : part)
            joined[at++] = c;
    }
    return joined;
}
