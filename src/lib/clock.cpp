#include "lib/clock.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

uint32_t dypd_get_systime() {
    // The wall clock that gettimeofday reads, through the call the reply
    // queue makes for its monotonic clock: one libc import for both.
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    // The wrap at 2^32 ms is intended; 32-bit arithmetic wraps exactly as
    // the 64-bit sum cut to 32 bits would. A 64-bit division here would pull
    // the compiler's 1 KiB division routine into the daemon on 32-bit boxes.
    return static_cast<uint32_t>(now.tv_sec) * 1000u +
           static_cast<uint32_t>(now.tv_nsec) / 1000000u;
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
