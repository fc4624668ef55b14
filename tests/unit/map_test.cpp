#include "lib/map.h"

#include <cstring>

#include <gtest/gtest.h>

#include "lib/alloc.h"

namespace {

struct entry {
    const char *key;
    int value;
};

// Matches when the stored key starts with the searched one, so that the
// order of the arguments shows.
int stored_starts_with(const char *stored, const char *searched) {
    return std::strncmp(stored, searched, std::strlen(searched));
}

int by_strcmp(const char *stored, const char *searched) {
    return std::strcmp(stored, searched);
}

struct map_owner {
    tqmap<entry> *map;
    explicit map_owner(tqmap_compare compare) : map(tqmap_create<entry>(compare)) {}
    ~map_owner() { tqmap_dispose(map); }
};

} // namespace

TEST(TqmapFind, EmptyMapGivesTheHeadAndNullMapGivesNull) {
    map_owner owner(by_strcmp);
    ASSERT_NE(owner.map, nullptr);
    EXPECT_EQ(tqmap_find(owner.map, "x"), tqlist_head(owner.map->list));
    EXPECT_EQ(tqmap_find<entry>(nullptr, "x"), nullptr);
}

TEST(TqmapFind, FirstMatchingEntryInListOrder) {
    map_owner owner(by_strcmp);
    entry first{"k", 1}, other{"j", 2}, second{"k", 3};
    tqlist_append(owner.map->list, &other);
    tqlist_append(owner.map->list, &first);
    tqlist_append(owner.map->list, &second);
    tqlist_node<entry> *found = tqmap_find(owner.map, "k");
    ASSERT_NE(found, tqlist_head(owner.map->list));
    EXPECT_EQ(found->item, &first);
    EXPECT_EQ(tqmap_find(owner.map, "none"), tqlist_head(owner.map->list));
}

TEST(TqmapFind, ComparesStoredKeyWithSearchedKey) {
    map_owner owner(stored_starts_with);
    entry long_key{"product_name", 1};
    tqlist_append(owner.map->list, &long_key);
    EXPECT_EQ(tqmap_find(owner.map, "product")->item, &long_key);
    EXPECT_EQ(tqmap_find(owner.map, "product_name_x"), tqlist_head(owner.map->list));
}

TEST(TqmapCreate, MemoryShortageReleasesWhatWasMade) {
    for (unsigned nth = 1; nth <= 2; ++nth) {
        dyp_alloc_fail_after(nth);
        EXPECT_EQ(tqmap_create<entry>(by_strcmp), nullptr) << nth;
        dyp_alloc_fail_after(0);
    }
}

TEST(TqmapDispose, LeavesTheEntriesToTheCaller) {
    // Entries on the stack: freeing one would be caught by the sanitizer.
    entry kept{"k", 42};
    tqmap<entry> *map = tqmap_create<entry>(by_strcmp);
    ASSERT_NE(map, nullptr);
    tqlist_append(map->list, &kept);
    tqmap_dispose(map);
    EXPECT_EQ(kept.value, 42);
    tqmap_dispose<entry>(nullptr);
}
