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
