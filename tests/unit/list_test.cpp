#include "lib/list.h"

#include <gtest/gtest.h>

#include "lib/alloc.h"

namespace {
// The items in forward order, checked against the backward links and the count.
std::vector<int> items_of(tqlist<int> *list) {
    std::vector<int> forward, backward;
    tqlist_node<int> *head = tqlist_head(list);
    for (tqlist_node<int> *node = head->next; node != head; node = node->next)
        forward.push_back(*node->item);
    for (tqlist_node<int> *node = head->prev; node != head; node = node->prev)
        backward.insert(backward.begin(), *node->item);
    EXPECT_EQ(forward, backward) << "next and prev links disagree";
    EXPECT_EQ(list->count, forward.size());
    return forward;
}
} // namespace

TEST(Tqlist, InsertGoesBeforeThePositionEraseReturnsTheNextNodeAndFailuresChangeNothing) {
    tqlist<int> *list = tqlist_create<int>();
    tqlist_node<int> *head = tqlist_head(list);
    int a = 1, b = 2, c = 3, d = 4;
    tqlist_node<int> *node_c = tqlist_append(list, &c);
    tqlist_node<int> *node_b = tqlist_insert(list, node_c, &b);
    EXPECT_EQ(tqlist_insert(list, node_b, &a), head->next);
    tqlist_node<int> *node_d = tqlist_append(list, &d);
    EXPECT_EQ(items_of(list), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(tqlist_erase(list, node_b), node_c);
    EXPECT_EQ(tqlist_erase(list, node_d), head);
    EXPECT_EQ(items_of(list), (std::vector<int>{1, 3}));
    tqlist_clear(list);
    tqlist_node<int> stray{head, head, nullptr};
    EXPECT_EQ(tqlist_erase(list, &stray), nullptr) << "erase from an empty list";
    dyp_alloc_fail_after(1);
    EXPECT_EQ(tqlist_append(list, &a), nullptr);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(items_of(list), std::vector<int>{});
    tqlist_dispose(list);
}
