// tqlist: a circular doubly linked list with a sentinel head. Nodes carry a
// pointer to an item of type T that the list does not own.
#pragma once

#include <cstdint>

#include "lib/alloc.h"

template <typename T> struct tqlist_node {
    tqlist_node *next;
    tqlist_node *prev;
    T *item;
};

// The head is a node of its own (its item is always null), so a walk stops
// when it comes back to it.
template <typename T> struct tqlist {
    tqlist_node<T> head;
    uint32_t count; // kept up to date by insert and erase; read by nobody
};

template <typename T> tqlist_node<T> *tqlist_head(tqlist<T> *list) { return &list->head; }

// A new empty list, or null when memory runs out.
template <typename T> tqlist<T> *tqlist_create() {
    auto *list = static_cast<tqlist<T> *>(dyp_malloc(sizeof(tqlist<T>)));
    if (list == nullptr)
        return nullptr;
    list->head.next = &list->head;
    list->head.prev = &list->head;
    list->head.item = nullptr;
    list->count = 0;
    return list;
}

// Inserts `item` immediately before `position` (the head appends at the
// tail). Returns the new node, or null for a null argument or no memory.
template <typename T>
tqlist_node<T> *tqlist_insert(tqlist<T> *list, tqlist_node<T> *position, T *item) {
    if (list == nullptr || position == nullptr)
        return nullptr;
    auto *node = static_cast<tqlist_node<T> *>(dyp_malloc(sizeof(tqlist_node<T>)));
    if (node == nullptr)
        return nullptr;
    tqlist_node<T> *before = position->prev;
    node->next = position;
    node->item = item;
    position->prev = node;
    before->next = node;
    node->prev = before;
    ++list->count;
    return node;
}

// Appends at the tail; the common case of tqlist_insert.
template <typename T> tqlist_node<T> *tqlist_append(tqlist<T> *list, T *item) {
    return list == nullptr ? nullptr : tqlist_insert(list, &list->head, item);
}

// Unlinks and frees `node` (not its item). Returns the node that followed
// it (the head when it was the last), or null for a null argument or an
// empty list. The head itself must never be erased.
template <typename T> tqlist_node<T> *tqlist_erase(tqlist<T> *list, tqlist_node<T> *node) {
    if (list == nullptr || node == nullptr || list->head.next == &list->head)
        return nullptr;
    tqlist_node<T> *following = node->next;
    node->prev->next = node->next;
    node->next->prev = node->prev;
    --list->count;
    dyp_free(node);
    return following;
}

// Erases every node, front to back. Null is accepted and ignored.
template <typename T> void tqlist_clear(tqlist<T> *list) {
    if (list == nullptr)
        return;
    tqlist_node<T> *node = list->head.next;
    while (node != nullptr && node != &list->head)
        node = tqlist_erase(list, node);
}

// Clears the list and frees the head. Null is accepted and ignored.
template <typename T> void tqlist_dispose(tqlist<T> *list) {
    if (list == nullptr)
        return;
    tqlist_clear(list);
    dyp_free(list);
}

// Calls `visit(item)` for every node in order; stops early when it returns
// false. The callback must not erase nodes.
template <typename T, typename F> void tqlist_for_each(tqlist<T> *list, F &&visit) {
    if (list == nullptr)
        return;
    for (tqlist_node<T> *node = list->head.next; node != &list->head; node = node->next) {
        if (!visit(node->item))
            return;
    }
}
