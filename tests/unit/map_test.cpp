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

} // namespace

TEST(Tqmap, FindGivesTheFirstMatchComparingStoredWithSearchedKeyOrTheHead) {
    // Entries on the stack: disposing the map must leave them alone, which
    // the sanitizer build would catch otherwise.
    entry other{"j", 1}, first{"product_name", 2}, second{"product", 3};
    tqmap<entry> *map = tqmap_create<entry>(stored_starts_with);
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(tqmap_find(map, "x"), tqlist_head(map->list));
    tqlist_append(map->list, &other);
    tqlist_append(map->list, &first);
    tqlist_append(map->list, &second);
    EXPECT_EQ(tqmap_find(map, "product")->item, &first);
    EXPECT_EQ(tqmap_find(map, "product_name_x"), tqlist_head(map->list));
    EXPECT_EQ(tqmap_find<entry>(nullptr, "x"), nullptr);
    tqmap_dispose(map);
    tqmap_dispose<entry>(nullptr);
}

TEST(Tqmap, CreateReleasesWhatWasMadeWhenMemoryRunsOut) {
    for (unsigned nth = 1; nth <= 2; ++nth) {
        dyp_alloc_fail_after(nth);
        EXPECT_EQ(tqmap_create<entry>(stored_starts_with), nullptr) << nth;
        dyp_alloc_fail_after(0);
    }
}
