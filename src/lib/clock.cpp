#include "lib/clock.h"

#include <cerrno>
#include <cstdlib>
#include <sys/time.h>

uint32_t dypd_get_systime() {
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    // Computed in 64 bits and cut to 32 on purpose: the wrap is explicit.
    uint64_t ms =
        static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_usec) / 1000u;
    return static_cast<uint32_t>(ms & UINT32_MAX);
}

long dypd_str_to_long(const char *text, long *out, int base) {
    char *end = nullptr;
    errno = 0;
    long value = strtol(text, &end, base);
    if (errno == 0 && *text != '\0' && *end == '\0') {
        *out = value;
        return 0;
    }
    if (errno != 0 && errno != EINVAL) {
        *out = value;
        return value;
    }
    return -EINVAL;
}
