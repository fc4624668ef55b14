#include "lib/alloc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

TEST(AllocFailure, TheNthAllocationFailsOnceOrUntilDisarmedWhenSticky) {
    void *block = dyp_malloc(0);
    ASSERT_NE(block, nullptr) << "zero bytes still give a block";
    dyp_alloc_fail_after(2);
    void *first = dyp_calloc(1, 8);
    EXPECT_EQ(dyp_realloc(block, 64), nullptr); // the block stays with the caller
    void *third = dyp_realloc(block, 64);
    EXPECT_TRUE(first != nullptr && third != nullptr) << "only the second allocation fails";
    dyp_alloc_fail_after(1, true);
    EXPECT_EQ(dyp_malloc(1), nullptr);
    EXPECT_EQ(dyp_new<int>(1), nullptr);
    dyp_alloc_fail_after(0);
    dyp_free(first);
    dyp_free(third);
}

TEST(AllocFailure, LiveBlocksCountWhatIsHeldNotWhatWasAskedFor) {
    long before = dyp_alloc_live();
    void *grown = dyp_realloc(nullptr, 8); // a new block
    void *zeroed = dyp_calloc(0, 4);
    grown = dyp_realloc(grown, 4096); // the same block, moved or not
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dyp_malloc(16), nullptr);
    EXPECT_EQ(dyp_alloc_live(), before + 2) << "a failed allocation holds nothing";
    dyp_free(nullptr);
    dyp_free(grown);
    dyp_free(zeroed);
    EXPECT_EQ(dyp_alloc_live(), before);
}

TEST(AllocCalloc, ZeroesAReusedBlockAndRefusesAnOverflowingSize) {
    // A freed block of the same size is normally handed out again, so its
    // old bytes show through unless calloc clears them.
    auto *dirty = static_cast<unsigned char *>(dyp_malloc(48));
    ASSERT_NE(dirty, nullptr);
    std::fill_n(dirty, 48, 0xA5);
    dyp_free(dirty);
    auto *zeroed = static_cast<unsigned char *>(dyp_calloc(6, 8));
    ASSERT_NE(zeroed, nullptr);
    EXPECT_TRUE(std::all_of(zeroed, zeroed + 48, [](unsigned char c) { return c == 0; }));
    dyp_free(zeroed);
    EXPECT_EQ(dyp_calloc(SIZE_MAX / 4 + 1, 8), nullptr) << "the product wraps to 0";
}
