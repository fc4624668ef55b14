#include "lib/alloc.h"

#include <gtest/gtest.h>

TEST(AllocFailure, TheNthAllocationFailsOnceAndLeavesReallocsBlock) {
    auto *block = static_cast<char *>(dyp_malloc(4));
    ASSERT_NE(block, nullptr);
    block[0] = 'k';
    dyp_alloc_fail_after(2);
    void *first = dyp_calloc(1, 8);
    EXPECT_EQ(dyp_realloc(block, 64), nullptr);
    void *third = dyp_malloc(0);
    dyp_alloc_fail_after(0);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(third, nullptr) << "zero bytes still give a block";
    EXPECT_EQ(block[0], 'k');
    dyp_free(first);
    dyp_free(third);
    dyp_free(block);
}

TEST(AllocFailure, StickyFailureLastsUntilDisarmed) {
    dyp_alloc_fail_after(1, true);
    EXPECT_EQ(dyp_malloc(1), nullptr);
    EXPECT_EQ(dyp_new<int>(1), nullptr);
    dyp_alloc_fail_after(0);
    int *value = dyp_new<int>(5);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(*value, 5);
    dyp_delete(value);
}
