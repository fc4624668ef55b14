#include "transport/socket.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <net/if.h>
#include <string>
#include <vector>

#include "lib/alloc.h"

namespace {
// "name;" per entry, with the '!' of exclusions.
std::string describe(const dypd_endpoint_header &endpoint) {
    std::string text;
    for (int i = 0; i < endpoint.bind_count; ++i)
        text += std::string(endpoint.bind_list[i].include ? "" : "!") + endpoint.bind_list[i].name +
                ";";
    return text;
}
} // namespace

TEST(BindList, KeepsPiecesInOrderSkippingEmptyRepeatedAndLongNamesAndResolvesThem) {
    const struct {
        const char *text, *entries;
    } cases[] = {
        {"eth0,!br1,*", "eth0;!br1;*;"},
        {",eth0,,eth0,", "eth0;"},
        // A piece is compared as written, '!' included, with stored names.
        {"!eth0,!eth0", "!eth0;!eth0;"},
        {"!eth0,eth0", "!eth0;"},
        {"abcdefghijklmnop,abcdefghijklmnopq,x", "abcdefghijklmno;x;"},
    };
    dypd_endpoint_header endpoint{};
    (void)dypd_init_socket(&endpoint, DYPD_ENDPOINT_UDP);
    for (const auto &c : cases) {
        ASSERT_EQ(dypd_set_bind_interface(&endpoint, c.text), 0);
        EXPECT_EQ(describe(endpoint), c.entries) << c.text;
    }
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "lo,!nosuchif0,*x"), 0);
    EXPECT_EQ(endpoint.bind_list[0].ifindex, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(endpoint.bind_list[1].ifindex, DYPD_IFINDEX_UNRESOLVED);
    EXPECT_EQ(endpoint.bind_list[2].ifindex, DYPD_IFINDEX_WILDCARD);
    dyp_alloc_fail_after(2);
    EXPECT_EQ(dypd_set_bind_interface(&endpoint, "a,b,c"), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(describe(endpoint), "lo;!nosuchif0;*x;") << "the old list stays";
    EXPECT_EQ(dypd_set_bind_interface(&endpoint, nullptr), -EINVAL);
    dyp_free(endpoint.bind_list);
}

TEST(BindVerdict, FirstWildcardOrMatchingEntryDecides) {
    constexpr int ETH0 = 2, BR1 = 3, WLAN0 = 4;
    const dypd_bind_entry eth0{"eth0", ETH0, 1, 0}, not_eth0{"eth0", ETH0, 0, 0},
        not_br1{"br1", BR1, 0, 0}, any{"*", DYPD_IFINDEX_WILDCARD, 1, 0},
        none{"*", DYPD_IFINDEX_WILDCARD, 0, 0}, rejected{"eth0", ETH0, 1, 1};
    const struct {
        std::vector<dypd_bind_entry> list;
        int ifindex, verdict;
    } cases[] = {
        {{}, ETH0, 0},
        {{eth0, not_br1, any}, BR1, -EBADMSG},
        {{eth0, not_br1, any}, WLAN0, 0},
        {{not_br1}, BR1, -EBADMSG},
        {{not_br1}, WLAN0, 0}, // nothing decides
        {{any, not_eth0}, ETH0, 0},
        {{eth0, none}, ETH0, 0},
        {{eth0, none}, BR1, -EBADMSG},
        {{rejected, any}, ETH0, -EBADMSG},
    };
    for (const auto &c : cases) {
        std::vector<dypd_bind_entry> list = c.list;
        dypd_endpoint_header endpoint{};
        endpoint.bind_list = list.data();
        endpoint.bind_count = static_cast<int32_t>(list.size());
        EXPECT_EQ(dypd_bind_verdict(&endpoint, c.ifindex), c.verdict)
            << describe(endpoint) << " on " << c.ifindex;
    }
}

TEST(InterfaceName, NamesKnownIndexesCutToTheBuffer) {
    int lo = static_cast<int>(if_nametoindex("lo"));
    char name[16], tiny[2];
    ASSERT_EQ(dypd_get_ifname(lo, name, sizeof name), 0);
    EXPECT_STREQ(name, "lo");
    ASSERT_EQ(dypd_get_ifname(lo, tiny, sizeof tiny), 0);
    EXPECT_STREQ(tiny, "l");
    EXPECT_EQ(dypd_get_ifname(987654, name, sizeof name), -EINVAL);
}
