#include "lib/list.h"

#include <vector>

#include <gtest/gtest.h>

#include "lib/alloc.h"

namespace {

// The items in forward order, checked against the backward links.
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

TEST(TqlistInsert, HeadAsPositionIntoAnEmptyListLinksTheNodeBothWays) {
    list_owner owner;
    tqlist<int> *list = owner.list;
    ASSERT_NE(list, nullptr);
    tqlist_node<int> *head = tqlist_head(list);
    EXPECT_EQ(head->next, head);
    EXPECT_EQ(head->prev, head);
    int item = 7;
    tqlist_node<int> *node = tqlist_insert(list, head, &item);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(head->next, node);
    EXPECT_EQ(head->prev, node);
    EXPECT_EQ(node->next, head);
    EXPECT_EQ(node->prev, head);
    EXPECT_EQ(node->item, &item);
    EXPECT_EQ(list->count, 1u);
}

TEST(TqlistInsert, PlacesTheNodeImmediatelyBeforeThePosition) {
    list_owner owner;
    int a = 1, b = 2, c = 3, d = 4;
    tqlist_node<int> *node_c = tqlist_append(owner.list, &c);
    tqlist_node<int> *node_a = tqlist_insert(owner.list, node_c, &a);
    ASSERT_NE(tqlist_insert(owner.list, node_c, &b), nullptr);
    ASSERT_NE(tqlist_append(owner.list, &d), nullptr);
    EXPECT_EQ(items_of(owner.list), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(tqlist_head(owner.list)->next, node_a);
}

TEST(TqlistInsert, NullArgumentsAndMemoryShortageGiveNullLikeCreate) {
    list_owner owner;
    int item = 1;
    EXPECT_EQ(tqlist_insert<int>(nullptr, tqlist_head(owner.list), &item), nullptr);
    EXPECT_EQ(tqlist_insert<int>(owner.list, nullptr, &item), nullptr);
    EXPECT_EQ(tqlist_append<int>(nullptr, &item), nullptr);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(tqlist_append(owner.list, &item), nullptr);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(tqlist_create<int>(), nullptr);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(items_of(owner.list), std::vector<int>{});
}

TEST(TqlistErase, ReturnsTheFollowingNodeAndTheHeadAfterTheLast) {
    list_owner owner;
    int a = 1, b = 2, c = 3;
    tqlist_append(owner.list, &a);
    tqlist_node<int> *node_b = tqlist_append(owner.list, &b);
    tqlist_node<int> *node_c = tqlist_append(owner.list, &c);
    EXPECT_EQ(tqlist_erase(owner.list, node_b), node_c);
    EXPECT_EQ(items_of(owner.list), (std::vector<int>{1, 3}));
    EXPECT_EQ(tqlist_erase(owner.list, node_c), tqlist_head(owner.list));
    EXPECT_EQ(items_of(owner.list), std::vector<int>{1});
    EXPECT_EQ(b, 2) << "items are not touched";
}

TEST(TqlistErase, EmptyListOrNullArgumentsGiveNullAndChangeNothing) {
    list_owner owner;
    tqlist_node<int> *head = tqlist_head(owner.list);
    tqlist_node<int> stray{head, head, nullptr};
    EXPECT_EQ(tqlist_erase(owner.list, &stray), nullptr);
    EXPECT_EQ(head->next, head);
    EXPECT_EQ(head->prev, head);
    EXPECT_EQ(owner.list->count, 0u);
    int item = 1;
    tqlist_node<int> *node = tqlist_append(owner.list, &item);
    EXPECT_EQ(tqlist_erase<int>(nullptr, node), nullptr);
    EXPECT_EQ(tqlist_erase<int>(owner.list, nullptr), nullptr);
    EXPECT_EQ(items_of(owner.list), std::vector<int>{1});
}

TEST(TqlistClear, ErasesEveryNodeAndLeavesAnEmptyUsableList) {
    list_owner owner;
    int items[4] = {1, 2, 3, 4};
    for (int &item : items)
        tqlist_append(owner.list, &item);
    tqlist_clear(owner.list);
    EXPECT_EQ(items_of(owner.list), std::vector<int>{});
    tqlist_append(owner.list, &items[2]);
    EXPECT_EQ(items_of(owner.list), std::vector<int>{3});
    tqlist_clear<int>(nullptr);
    tqlist_dispose<int>(nullptr);
}
