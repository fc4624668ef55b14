#include "lib/alloc.h"

#include <gtest/gtest.h>

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
