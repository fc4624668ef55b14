// tqmap: a tqlist of entries plus a comparison function. An entry type E
// has a `key` member (a C string); the rest of the entry is the user's.
// The map owns its nodes, never its entries.
#pragma once

#include "lib/list.h"

using tqmap_compare = int (*)(const char *stored, const char *searched);

template <typename E> struct tqmap {
    tqmap_compare compare;
    tqlist<E> *list;
};

// A new map with an empty list, or null (nothing left allocated).
template <typename E> tqmap<E> *tqmap_create(tqmap_compare compare) {
    auto *map = static_cast<tqmap<E> *>(dyp_malloc(sizeof(tqmap<E>)));
    if (map == nullptr)
        return nullptr;
    map->compare = compare;
    map->list = tqlist_create<E>();
    if (map->list == nullptr) {
        dyp_free(map);
        return nullptr;
    }
    return map;
}

// Frees the nodes and the map; entries stay with the caller. Null is fine.
template <typename E> void tqmap_dispose(tqmap<E> *map) {
    if (map == nullptr)
        return;
    tqlist_dispose(map->list);
    dyp_free(map);
}

// The first node whose entry's key compares equal to `key`, else the list
// head (callers tell "not found" by comparing with the head); null map: null.
template <typename E> tqlist_node<E> *tqmap_find(tqmap<E> *map, const char *key) {
    if (map == nullptr)
        return nullptr;
    tqlist_node<E> *head = tqlist_head(map->list);
    for (tqlist_node<E> *node = head->next; node != head; node = node->next) {
        if (map->compare(node->item->key, key) == 0)
            return node;
    }
    return head;
}
