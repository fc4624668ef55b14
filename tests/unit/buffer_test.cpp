#include "lib/buffer.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

namespace {
// Ten bytes of storage followed by guard bytes that must never change.
struct guarded_storage {
    uint8_t bytes[14];
    guarded_storage() { std::memset(bytes, 0xee, sizeof bytes); }
    bool guard_intact() const {
        return bytes[10] == 0xee && bytes[11] == 0xee && bytes[12] == 0xee && bytes[13] == 0xee;
    }
};
} // namespace

TEST(TqbufferWrite, AppendsThenCutsToTheRoomLeftThenReportsFull) {
    guarded_storage storage;
    tqbuffer buffer{storage.bytes, 10, 0};
    EXPECT_EQ(tqbuffer_write(&buffer, "abc", 3), 3);
    EXPECT_EQ(tqbuffer_write(&buffer, "xyz", 0), 0);
    EXPECT_EQ(tqbuffer_write(&buffer, "defgh", 5), 5);
    EXPECT_EQ(tqbuffer_write(&buffer, "ijklm", 5), 2);
    EXPECT_EQ(std::memcmp(storage.bytes, "abcdefghij", 10), 0);
    EXPECT_TRUE(storage.guard_intact());
    EXPECT_EQ(tqbuffer_write(&buffer, "x", 0), -ENOBUFS);
    EXPECT_EQ(buffer.length, 10u);
    tqbuffer empty{nullptr, 0, 0};
    EXPECT_EQ(tqbuffer_write(&empty, "a", 1), -ENOBUFS);
}

TEST(TqbufferWrite, HugeLengthIsCutWithoutWrappingAround) {
    guarded_storage storage;
    static const uint8_t source[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    tqbuffer buffer{storage.bytes, 10, 4};
    // length + 4 wraps to 2 in 32 bits; the write must still be cut to 6.
    EXPECT_EQ(tqbuffer_write(&buffer, source, UINT32_MAX - 1), 6);
    EXPECT_EQ(buffer.length, 10u);
    EXPECT_TRUE(storage.guard_intact());
}

TEST(TqbufferWrite, NullDataOnlyCountsAndNullSourceOnlyReserves) {
    tqbuffer counting{nullptr, 100, 0};
    EXPECT_EQ(tqbuffer_write(&counting, "abcdef", 200), 100);
    EXPECT_EQ(counting.length, 100u);
    guarded_storage storage;
    tqbuffer buffer{storage.bytes, 10, 0};
    EXPECT_EQ(tqbuffer_write(&buffer, nullptr, 4), 4);
    EXPECT_EQ(storage.bytes[0], 0xee);
    EXPECT_EQ(tqbuffer_write(&buffer, "z", 1), 1);
    EXPECT_EQ(storage.bytes[4], 'z');
}
