#include "transport/socket.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

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

// Entries named eth0 and br1 stand for interfaces 2 and 3; the verdicts are
// given for datagrams from 2, 3 and 4 ('+' accepted, '-' refused).
TEST(BindList, KeepsPiecesInOrderAndTheFirstWildcardOrMatchingEntryDecides) {
    const struct {
        const char *text, *entries, *verdicts;
    } cases[] = {
        {"eth0,!br1,*", "eth0;!br1;*;", "+-+"},
        {"!br1", "!br1;", "+-+"},
        {"*,!eth0", "*;!eth0;", "+++"},
        {"eth0,!*", "eth0;!*;", "+--"},
        {",eth0,,eth0,", "eth0;", "+++"},
        // A piece is compared as written, '!' included, with stored names.
        {"!eth0,!eth0", "!eth0;!eth0;", "-++"},
        {"!eth0,eth0", "!eth0;", "-++"},
        {"eth0,eth,!*", "eth0;eth;!*;", "+--"}, // a prefix of a name is another name
        // Names of 17 characters are dropped, of 16 cut; unresolved ones never decide.
        {"abcdefghijklmnop,abcdefghijklmnopq,!x", "abcdefghijklmno;!x;", "+++"},
        {"", "", "+++"},
    };
    for (const auto &c : cases) {
        dypd_endpoint_header endpoint{};
        ASSERT_EQ(dypd_set_bind_interface(&endpoint, c.text), 0);
        EXPECT_EQ(describe(endpoint), c.entries) << c.text;
        std::string verdicts;
        for (int i = 0; i < endpoint.bind_count; ++i) {
            dypd_bind_entry &entry = endpoint.bind_list[i];
            if (entry.ifindex != DYPD_IFINDEX_WILDCARD)
                entry.ifindex = !strcmp(entry.name, "eth0")  ? 2
                                : !strcmp(entry.name, "br1") ? 3
                                                             : -1;
        }
        for (int ifindex : {2, 3, 4}) {
            int verdict = dypd_bind_verdict(&endpoint, ifindex);
            verdicts += verdict == 0 ? '+' : verdict == -EBADMSG ? '-' : '?';
        }
        EXPECT_EQ(verdicts, c.verdicts) << c.text;
        dyp_free(endpoint.bind_list);
    }
}

TEST(BindList, KeepsTheOldListWhenMemoryRunsOut) {
    dypd_endpoint_header endpoint{};
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "lo,!br1"), 0);
    dyp_alloc_fail_after(2);
    EXPECT_EQ(dypd_set_bind_interface(&endpoint, "a,b,c"), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(describe(endpoint), "lo;!br1;");
    dyp_free(endpoint.bind_list);
}
