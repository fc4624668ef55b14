#include "lib/net.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/netns.h"

namespace {
std::string dotted(const uint8_t *address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, address, text, sizeof text);
    return text;
}
} // namespace

// In a namespace of its own: "dypa" up with a known MAC, 192.0.2.1/24 and a
// default route; its peer "dypb" up without IPv4 address; "dypdown" down;
// and a 15-character name. Nothing leaves the namespace.
TEST(NetQueries, AnswerForTheNamedInterfaceOnly) {
    DYP_REQUIRE_ROOT();
    entered_netns ns("net", "ip link add dypa type veth peer name dypb && "
                            "ip link set dypa address 02:00:5e:10:20:3f && "
                            "ip addr add 192.0.2.1/24 dev dypa && "
                            "ip link set dypa up && ip link set dypb up && "
                            "ip link add dypdown type veth peer name dyp456789abcdef && "
                            "ip route add default via 192.0.2.254 dev dypa");
    ASSERT_TRUE(ns.ok());
    uint8_t mac[8];
    std::memset(mac, 0xee, sizeof mac);
    ASSERT_EQ(tq_net_get_hwaddr("dypa", mac, 8), 0);
    const uint8_t expected_mac[8] = {0x02, 0x00, 0x5e, 0x10, 0x20, 0x3f, 0xee, 0xee};
    EXPECT_EQ(std::memcmp(mac, expected_mac, sizeof mac), 0);
    EXPECT_EQ(tq_net_get_hwaddr("dypa", mac, 9), -EINVAL);
    EXPECT_EQ(tq_net_get_hwaddr("", mac, 6), -EINVAL);
    EXPECT_EQ(tq_net_get_hwaddr("dypmissing", mac, 6), -ENODEV);
    EXPECT_EQ(tq_net_get_hwaddr("dyp456789abcdefEXTRA", mac, 6), 0) << "name cut to 15";

    uint8_t address[4] = {}, mask[4] = {};
    ASSERT_EQ(tq_net_get_ip4addr("dypa", address), 0);
    EXPECT_EQ(dotted(address), "192.0.2.1");
    ASSERT_EQ(tq_net_get_netmask("dypa", mask), 0);
    EXPECT_EQ(dotted(mask), "255.255.255.0");
    EXPECT_EQ(tq_net_get_ip4addr("dypb", address), -EADDRNOTAVAIL);
    EXPECT_EQ(tq_net_get_ip4addr("dypa", nullptr), -EINVAL);

    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(tq_net_join_mcgrop_in(sock, "dypa", inet_addr("239.1.2.3")), 0);
    EXPECT_EQ(tq_net_join_mcgrop_in(sock, "dypb", inet_addr("239.1.2.4")), -1) << "no address";
    close(sock);

    const uint8_t wanted[4] = {192, 0, 2, 9};
    ASSERT_EQ(tq_net_set_ip4addr("dypb", wanted), 0);
    ASSERT_EQ(tq_net_get_ip4addr("dypb", address), 0);
    EXPECT_EQ(dotted(address), "192.0.2.9");

    EXPECT_EQ(tq_net_chk_ifup("dypa"), 1);
    EXPECT_EQ(tq_net_chk_ifup("dypdown"), 0);
    EXPECT_EQ(tq_net_chk_ifup(nullptr), -1);

    uint32_t gateway = 0xdeadbeef;
    ASSERT_EQ(tq_net_get_defaultgw("dypa", &gateway), 0);
    EXPECT_EQ(gateway, inet_addr("192.0.2.254"));
    ASSERT_EQ(tq_net_get_defaultgw("dypb", &gateway), 0);
    EXPECT_EQ(gateway, 0u);
}

TEST(MacText, RecognisesExactlyTheSeventeenCharacterForm) {
    const std::pair<const char *, char> valid[] = {
        {"00:11:22:33:44:55", ':'}, {"AA:bb:CC:dd:EE:ff", ':'}, {"00-11-22-33-44-55", '-'}};
    const std::pair<const char *, char> invalid[] = {{"00-11-22-33-44-55", ':'},
                                                     {"00:11:22:33:44:55x", ':'},
                                                     {"00:11:22:33:44:5", ':'},
                                                     {"00:11:22:33:4g:55", ':'},
                                                     {"", ':'},
                                                     {nullptr, ':'}};
    for (const auto &[text, separator] : valid)
        EXPECT_EQ(tq_net_ismacaddr(text, separator), 1) << text;
    for (const auto &[text, separator] : invalid)
        EXPECT_EQ(tq_net_ismacaddr(text, separator), 0) << (text ? text : "null");
}

TEST(MacText, WritesLowercaseAndReadsFixedPositionsRepeatingAFailedGroup) {
    const uint8_t mac[6] = {0x00, 0xAB, 0x0c, 0xDE, 0xf0, 0xFF};
    char text[18];
    ASSERT_EQ(tq_net_mac2str(mac, text), 0);
    EXPECT_STREQ(text, "00:ab:0c:de:f0:ff");
    ASSERT_EQ(tq_net_mac2str_ex(mac, '-', text), 0);
    EXPECT_STREQ(text, "00-ab-0c-de-f0-ff");
    uint8_t read_back[6];
    ASSERT_EQ(tq_net_str2mac_ex("00xABy0czDEwf0vFF", '-', read_back), 0) << "separators unchecked";
    EXPECT_EQ(std::memcmp(read_back, mac, 6), 0);
    ASSERT_EQ(tq_net_str2mac("12:zz:34:56", read_back), 0);
    const uint8_t repeated[6] = {0x12, 0x12, 0x34, 0x56, 0x56, 0x56};
    EXPECT_EQ(std::memcmp(read_back, repeated, 6), 0);
    EXPECT_EQ(tq_net_str2mac(nullptr, read_back), -EINVAL);
}
