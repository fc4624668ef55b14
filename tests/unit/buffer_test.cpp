#include "lib/buffer.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

TEST(TqbufferWrite, CutsToTheRoomLeftAndReportsFullOnlyWhenAlreadyFull) {
    char storage[15] = "~~~~~~~~~~~~~~"; // ten bytes of room, then a guard that must stay
    tqbuffer buffer{reinterpret_cast<uint8_t *>(storage), 10, 0};
    EXPECT_EQ(tqbuffer_write(&buffer, nullptr, 2), 2) << "a null source reserves room";
    EXPECT_EQ(tqbuffer_write(&buffer, "xyz", 0), 0);
    EXPECT_EQ(tqbuffer_write(&buffer, "abcdef", 6), 6);
    EXPECT_EQ(tqbuffer_write(&buffer, "ghijk", 5), 2);
    EXPECT_EQ(tqbuffer_write(&buffer, "x", 0), -ENOBUFS);
    EXPECT_EQ(buffer.length, 10u);
    EXPECT_STREQ(storage, "~~abcdefgh~~~~");
    // length + 4 wraps to 2 in 32 bits; the write must still be cut to the 6 left.
    buffer.length = 4;
    EXPECT_EQ(tqbuffer_write(&buffer, "0123456789", UINT32_MAX - 1), 6);
    EXPECT_EQ(buffer.length, 10u);
    EXPECT_STREQ(storage, "~~ab012345~~~~");
    tqbuffer counting{nullptr, 100, 0};
    EXPECT_EQ(tqbuffer_write(&counting, "abcdef", 200), 100);
    EXPECT_EQ(counting.length, 100u);
}
