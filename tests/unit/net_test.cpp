#include "lib/net.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include "support/netns.h"

// In a namespace of its own: "dypa" up with a known MAC, 192.0.2.1/24 and a
// default route; its peer "dypb" without IPv4 address.
TEST(NetQueries, AnswerForTheNamedInterfaceOnly) {
    DYP_REQUIRE_ROOT();
    entered_netns ns("net", "ip link add dypa address 02:00:5e:10:20:3f type veth peer name dypb"
                            " && ip addr add 192.0.2.1/24 dev dypa && ip link set dypa up"
                            " && ip route add default via 192.0.2.254 dev dypa");
    ASSERT_TRUE(ns.ok());
    uint8_t mac[8] = {0, 0, 0, 0, 0, 0, 0xee, 0xee};
    ASSERT_EQ(tq_net_get_hwaddr("dypa", mac, 8), 0);
    EXPECT_EQ(std::memcmp(mac, "\x02\x00\x5e\x10\x20\x3f\xee\xee", 8), 0) << "six bytes written";
    EXPECT_EQ(tq_net_get_hwaddr("dypa", mac, 9), -EINVAL);
    EXPECT_EQ(tq_net_get_hwaddr("dypmissing", mac, 6), -ENODEV);
    uint8_t address[4] = {}, mask[4] = {};
    ASSERT_EQ(tq_net_get_ip4addr("dypa", address), 0);
    ASSERT_EQ(tq_net_get_netmask("dypa", mask), 0);
    EXPECT_EQ(std::memcmp(address, "\xc0\x00\x02\x01", 4), 0) << "192.0.2.1";
    EXPECT_EQ(std::memcmp(mask, "\xff\xff\xff\x00", 4), 0) << "255.255.255.0";
    EXPECT_EQ(tq_net_get_ip4addr("dypb", address), -EADDRNOTAVAIL);
    uint32_t gateway = 0xdeadbeef;
    ASSERT_EQ(tq_net_get_defaultgw("dypa", &gateway), 0);
    EXPECT_EQ(gateway, inet_addr("192.0.2.254"));
    ASSERT_EQ(tq_net_get_defaultgw("dypb", &gateway), 0);
    EXPECT_EQ(gateway, 0u);
}
