// Assertions for programming errors: a failed check writes one line naming
// the source file, the line, the function and the expression, then aborts.
#pragma once

[[noreturn]] void dyp_check_failed(const char *expression, const char *file, int line,
                                   const char *function);

// Stops the process when `pointer` is null. `file` is the short name of the
// source file ("command", "ds"); the expression is reported in the form the
// C library's assert prints for a comparison with NULL.
#define DYP_CHECK_NOT_NULL(pointer, file)                                                          \
    ((pointer) != nullptr                                                                          \
         ? (void)0                                                                                 \
         : dyp_check_failed(#pointer " != ((void *)0)", file, __LINE__, __func__))
