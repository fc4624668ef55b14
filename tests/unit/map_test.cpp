#include "lib/map.h"

#include <cstring>

#include <gtest/gtest.h>

#include "lib/alloc.h"

namespace {
struct entry {
    const char *key;
};

// Matches when the stored key starts with the searched one: the argument order shows.
int stored_starts_with(const char *stored, const char *searched) {
    return std::strncmp(stored, searched, std::strlen(searched));
}
} // namespace

TEST(Tqmap, FindGivesTheFirstMatchComparingStoredWithSearchedKeyOrTheHead) {
    entry other{"j"}, first{"product_name"}, second{"product"}; // on the stack: never freed
    tqmap<entry> *map = tqmap_create<entry>(stored_starts_with);
    EXPECT_EQ(tqmap_find(map, "x"), tqlist_head(map->list));
    for (entry *item : {&other, &first, &second})
        tqlist_append(map->list, item);
    EXPECT_EQ(tqmap_find(map, "product")->item, &first);
    EXPECT_EQ(tqmap_find(map, "product_name_x"), tqlist_head(map->list));
    tqmap_dispose(map);
    for (unsigned nth : {1u, 2u}) {
        dyp_alloc_fail_after(nth);
        EXPECT_EQ(tqmap_create<entry>(stored_starts_with), nullptr) << "allocation " << nth;
    }
    dyp_alloc_fail_after(0);
}
