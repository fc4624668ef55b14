#include "lib/alloc.h"

#include <gtest/gtest.h>

namespace {
struct counted {
    static int alive;
    int value;
    explicit counted(int v) : value(v) { ++alive; }
    ~counted() { --alive; }
};
int counted::alive = 0;
} // namespace

TEST(AllocFailure, TheNthAllocationFailsOnce) {
    dyp_alloc_fail_after(2);
    void *first = dyp_malloc(8);
    void *second = dyp_calloc(1, 8);
    void *third = dyp_realloc(nullptr, 8);
    dyp_alloc_fail_after(0);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    dyp_free(first);
    dyp_free(third);
}

TEST(AllocFailure, StickyFailureLastsUntilDisarmed) {
    dyp_alloc_fail_after(1, true);
    EXPECT_EQ(dyp_malloc(1), nullptr);
    EXPECT_EQ(dyp_malloc(1), nullptr);
    EXPECT_EQ(dyp_new<counted>(1), nullptr);
    dyp_alloc_fail_after(0);
    void *block = dyp_malloc(1);
    EXPECT_NE(block, nullptr);
    dyp_free(block);
}

TEST(AllocFailure, FailedReallocLeavesTheBlock) {
    auto *block = static_cast<char *>(dyp_malloc(4));
    ASSERT_NE(block, nullptr);
    block[0] = 'k';
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dyp_realloc(block, 64), nullptr);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(block[0], 'k');
    dyp_free(block);
}

TEST(Alloc, ZeroSizedRequestsGiveDistinctBlocksAndAreCounted) {
    unsigned long before = dyp_alloc_count();
    void *a = dyp_malloc(0);
    void *b = dyp_calloc(0, 4);
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_NE(a, b);
    EXPECT_EQ(dyp_alloc_count() - before, 2u);
    dyp_free(a);
    dyp_free(b);
}

TEST(Alloc, NewConstructsAndDeleteDestroys) {
    counted *object = dyp_new<counted>(5);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->value, 5);
    EXPECT_EQ(counted::alive, 1);
    dyp_delete(object);
    EXPECT_EQ(counted::alive, 0);
    dyp_delete<counted>(nullptr);
}
