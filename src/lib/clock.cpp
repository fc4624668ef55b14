#include "lib/clock.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

// Kept out of line, so that both clocks share one copy of the call and of
// the stack guard its time value brings.
[[gnu::noinline]] uint32_t dypd_clock_units(clockid_t clock, uint32_t units_per_second) {
    timespec now{};
    (void)clock_gettime(clock, &now);
    // 32-bit arithmetic wraps exactly as the 64-bit sum cut to 32 bits
    // would. A 64-bit division here would pull the compiler's 1 KiB
    // division routine into the daemon on 32-bit boxes.
    return static_cast<uint32_t>(now.tv_sec) * units_per_second +
           static_cast<uint32_t>(now.tv_nsec) / (1000000000u / units_per_second);
}

uint32_t dypd_get_systime() {
    // The wall clock that gettimeofday reads, through the call the reply
    // queue makes for its monotonic clock: one libc import for both. The
    // wrap at 2^32 ms is intended.
    return dypd_clock_units(CLOCK_REALTIME, 1000);
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
