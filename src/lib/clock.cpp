#include "lib/clock.h"

#include <cerrno>
#include <cstdlib>
#include <sys/time.h>

uint32_t dypd_get_systime() {
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    // The wrap at 2^32 ms is intended; 32-bit arithmetic wraps exactly as
    // the 64-bit sum cut to 32 bits would. A 64-bit division here would pull
    // the compiler's 1 KiB division routine into the daemon on 32-bit boxes.
    return static_cast<uint32_t>(now.tv_sec) * 1000u + static_cast<uint32_t>(now.tv_usec) / 1000u;
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
