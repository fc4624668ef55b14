// The daemon's one path to the system log. Formats are checked by the
// compiler; the texts are the daemon's own and used exactly as written.
#pragma once

#include <cstdarg>
#include <syslog.h>

void dyp_log(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));
// dyp_log for callers that take their own variable arguments.
void dyp_vlog(int priority, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

// Test hook: while set, every formatted line goes to `sink` instead of
// syslog. Null restores syslog.
using dyp_log_sink = void (*)(int priority, const char *text);
void dyp_log_set_sink(dyp_log_sink sink);
