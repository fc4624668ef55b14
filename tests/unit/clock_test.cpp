#include "lib/clock.h"

#include <cerrno>
#include <climits>
#include <sys/time.h>

#include <gtest/gtest.h>

namespace {
// The wall clock in milliseconds, computed in 64 bits and cut to 32.
uint32_t reference_ms() {
    timeval now{};
    gettimeofday(&now, nullptr);
    uint64_t ms = static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
    return static_cast<uint32_t>(ms);
}

// The monotonic clock in microseconds, computed in 64 bits and cut to 32.
uint32_t reference_monotonic_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    uint64_t us = static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    return static_cast<uint32_t>(us);
}
} // namespace

// The 32-bit arithmetic must wrap exactly as the 64-bit sum cut to 32 bits:
// the value lies between two reference readings taken around it.
TEST(SystemTime, IsTheWallClockInMillisecondsModulo2To32) {
    uint32_t before = reference_ms();
    uint32_t now = dypd_get_systime();
    uint32_t after = reference_ms();
    EXPECT_LE(static_cast<uint32_t>(now - before), static_cast<uint32_t>(after - before));
}

TEST(ClockUnits, IsAnyClockInTheAskedUnitsModulo2To32) {
    uint32_t before = reference_monotonic_us();
    uint32_t now = dypd_clock_units(CLOCK_MONOTONIC, 1000000);
    uint32_t after = reference_monotonic_us();
    EXPECT_LE(static_cast<uint32_t>(now - before), static_cast<uint32_t>(after - before));
}

TEST(StrToLong, ConvertsWholeTextsOnly) {
    long out = 0;
    EXPECT_EQ(dypd_str_to_long("0x1f", &out, 0), 0);
    EXPECT_EQ(out, 31);
    EXPECT_EQ(dypd_str_to_long("-12", &out, 10), 0);
    EXPECT_EQ(out, -12);
    out = 7;
    EXPECT_EQ(dypd_str_to_long("12x", &out, 10), -EINVAL);
    EXPECT_EQ(dypd_str_to_long("", &out, 10), -EINVAL);
    EXPECT_EQ(out, 7);
    // A range error hands the clamped value back both ways.
    EXPECT_EQ(dypd_str_to_long("99999999999999999999", &out, 10), LONG_MAX);
    EXPECT_EQ(out, LONG_MAX);
}
