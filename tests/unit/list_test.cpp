#include "lib/list.h"

#include <vector>

#include <gtest/gtest.h>

#include "lib/alloc.h"

namespace {

// The items in forward order, checked against the backward links and count.
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

struct list_owner {
    tqlist<int> *list = tqlist_create<int>();
    ~list_owner() { tqlist_dispose(list); }
};

} // namespace

TEST(Tqlist, InsertGoesBeforeThePositionAndEraseReturnsTheFollowingNode) {
    list_owner owner;
    int a = 1, b = 2, c = 3, d = 4;
    tqlist_node<int> *node_c = tqlist_append(owner.list, &c);
    tqlist_node<int> *node_a = tqlist_insert(owner.list, node_c, &a);
    tqlist_node<int> *node_b = tqlist_insert(owner.list, node_c, &b);
    tqlist_node<int> *node_d = tqlist_append(owner.list, &d);
    EXPECT_EQ(items_of(owner.list), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(tqlist_head(owner.list)->next, node_a);
    EXPECT_EQ(tqlist_erase(owner.list, node_b), node_c);
    EXPECT_EQ(tqlist_erase(owner.list, node_d), tqlist_head(owner.list));
    EXPECT_EQ(items_of(owner.list), (std::vector<int>{1, 3}));
    tqlist_clear(owner.list);
    EXPECT_EQ(items_of(owner.list), std::vector<int>{});
    tqlist_append(owner.list, &d);
    EXPECT_EQ(items_of(owner.list), std::vector<int>{4}) << "a cleared list stays usable";
}

TEST(Tqlist, BadArgumentsEmptyListAndMemoryShortageGiveNullAndChangeNothing) {
    list_owner owner;
    tqlist_node<int> *head = tqlist_head(owner.list);
    tqlist_node<int> stray{head, head, nullptr};
    EXPECT_EQ(tqlist_erase(owner.list, &stray), nullptr) << "erase from an empty list";
    int item = 1;
    EXPECT_EQ(tqlist_insert<int>(nullptr, head, &item), nullptr);
    EXPECT_EQ(tqlist_insert<int>(owner.list, nullptr, &item), nullptr);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(tqlist_append(owner.list, &item), nullptr);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(tqlist_create<int>(), nullptr);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(items_of(owner.list), std::vector<int>{});
    tqlist_node<int> *node = tqlist_append(owner.list, &item);
    EXPECT_EQ(tqlist_erase<int>(nullptr, node), nullptr);
    EXPECT_EQ(tqlist_erase<int>(owner.list, nullptr), nullptr);
    EXPECT_EQ(items_of(owner.list), std::vector<int>{1});
    tqlist_clear<int>(nullptr);
    tqlist_dispose<int>(nullptr);
}
