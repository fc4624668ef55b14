// Small helpers of the daemon core.
#pragma once

#include <cstdint>
#include <ctime>

// The time of `clock` in units of 1/`units_per_second` second (a divisor
// of 10^9), cut to 32 bits.
uint32_t dypd_clock_units(clockid_t clock, uint32_t units_per_second);

// Wall-clock time in milliseconds (seconds * 1000 + microseconds / 1000),
// truncated to 32 bits; differences are taken modulo 2^32.
uint32_t dypd_get_systime();

// strtol after clearing errno: 0 and *out set when the whole non-empty
// text converted; on a range error *out is set and the value returned;
// otherwise -EINVAL.
long dypd_str_to_long(const char *text, long *out, int base);
