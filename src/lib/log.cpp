#include "lib/log.h"

#include <cstdarg>
#include <cstdio>

namespace {
dyp_log_sink current_sink;
}

void dyp_log_set_sink(dyp_log_sink sink) { current_sink = sink; }

void dyp_vlog(int priority, const char *format, va_list args) {
    if (current_sink != nullptr) {
        char text[1024];
        (void)vsnprintf(text, sizeof text, format, args);
        current_sink(priority, text);
    } else {
        vsyslog(priority, format, args);
    }
}

void dyp_log(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    dyp_vlog(priority, format, args);
    va_end(args);
}
