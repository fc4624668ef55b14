#include "lib/net.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/netns.h"

namespace {
std::string dotted(const uint8_t *address) {
    char text[INET_ADDRSTRLEN] = {};
    return inet_ntop(AF_INET, address, text, sizeof text);
}
} // namespace

// In a namespace of its own: "dypa" up with a known MAC, 192.0.2.1/24 and a
// default route; its peer "dypb" up without IPv4 address; "dypdown" down.
TEST(NetQueries, AnswerForTheNamedInterfaceOnly) {
    DYP_REQUIRE_ROOT();
    entered_netns ns("net",
                     "ip link add dypa type veth peer name dypb && "
                     "ip link set dypa address 02:00:5e:10:20:3f && "
                     "ip addr add 192.0.2.1/24 dev dypa && ip link set dypa up && "
                     "ip link set dypb up && ip link add dypdown type veth peer name dypdown1 && "
                     "ip route add default via 192.0.2.254 dev dypa");
    ASSERT_TRUE(ns.ok());
    uint8_t mac[8];
    std::memset(mac, 0xee, sizeof mac);
    ASSERT_EQ(tq_net_get_hwaddr("dypa", mac, 8), 0);
    EXPECT_EQ(std::memcmp(mac, "\x02\x00\x5e\x10\x20\x3f\xee\xee", 8), 0) << "six bytes written";
    EXPECT_EQ(tq_net_get_hwaddr("dypa", mac, 9), -EINVAL);
    EXPECT_EQ(tq_net_get_hwaddr("dypmissing", mac, 6), -ENODEV);
    uint8_t address[4] = {}, mask[4] = {};
    ASSERT_EQ(tq_net_get_ip4addr("dypa", address), 0);
    ASSERT_EQ(tq_net_get_netmask("dypa", mask), 0);
    EXPECT_EQ(dotted(address) + "/" + dotted(mask), "192.0.2.1/255.255.255.0");
    EXPECT_EQ(tq_net_get_ip4addr("dypb", address), -EADDRNOTAVAIL);
    EXPECT_EQ(tq_net_chk_ifup("dypa"), 1);
    EXPECT_EQ(tq_net_chk_ifup("dypdown"), 0);
    uint32_t gateway = 0xdeadbeef;
    ASSERT_EQ(tq_net_get_defaultgw("dypa", &gateway), 0);
    EXPECT_EQ(gateway, inet_addr("192.0.2.254"));
    ASSERT_EQ(tq_net_get_defaultgw("dypb", &gateway), 0);
    EXPECT_EQ(gateway, 0u);
}

TEST(MacText, ChecksTheSeventeenCharacterFormWritesLowercaseAndReadsFixedPositions) {
    EXPECT_EQ(tq_net_ismacaddr("AA:bb:CC:dd:EE:ff", ':'), 1);
    EXPECT_EQ(tq_net_ismacaddr("00-11-22-33-44-55", '-'), 1);
    for (const char *text : {"00-11-22-33-44-55", "00:11:22:33:44:55x", "00:11:22:33:4g:55"})
        EXPECT_EQ(tq_net_ismacaddr(text, ':'), 0) << text;
    const uint8_t mac[6] = {0x00, 0xAB, 0x0c, 0xDE, 0xf0, 0xFF};
    char text[18];
    ASSERT_EQ(tq_net_mac2str_ex(mac, '-', text), 0);
    EXPECT_STREQ(text, "00-ab-0c-de-f0-ff");
    uint8_t read_back[6];
    ASSERT_EQ(tq_net_str2mac("12:zz:34:56", read_back), 0);
    EXPECT_EQ(std::memcmp(read_back, "\x12\x12\x34\x56\x56\x56", 6), 0) << "a bad group repeats";
}
