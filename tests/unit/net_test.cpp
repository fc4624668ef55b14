#include "lib/net.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netinet/in.h>
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

// A namespace with a veth pair: "dypa" up with a known MAC, 192.0.2.1/24
// and a default route through it; "dypb" up without IPv4 address; and a
// second pair "dypdown" that stays down. Nothing leaves the namespace.
class NetQueries : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        netns_ = std::make_unique<test_netns>("net");
        ASSERT_EQ(netns_->exec("ip link add dypa type veth peer name dypb && "
                               "ip link set dypa address 02:00:5e:10:20:3f && "
                               "ip addr add 192.0.2.1/24 dev dypa && "
                               "ip link set dypa up && ip link set dypb up && "
                               "ip link add dypdown type veth peer name dypdownp && "
                               "ip route add default via 192.0.2.254 dev dypa"),
                  0);
        scope_ = std::make_unique<netns_scope>(netns_->name());
        ASSERT_TRUE(scope_->ok());
    }
    void TearDown() override {
        scope_.reset();
        netns_.reset();
    }

    std::unique_ptr<test_netns> netns_;
    std::unique_ptr<netns_scope> scope_;
};

} // namespace

TEST_F(NetQueries, HardwareAddressFillsExactlySixBytes) {
    uint8_t out[8];
    std::memset(out, 0xee, sizeof out);
    ASSERT_EQ(tq_net_get_hwaddr("dypa", out, 8), 0);
    const uint8_t expected[8] = {0x02, 0x00, 0x5e, 0x10, 0x20, 0x3f, 0xee, 0xee};
    EXPECT_EQ(std::memcmp(out, expected, sizeof out), 0);
    EXPECT_EQ(tq_net_get_hwaddr("dypa", out, 6), 0);
    EXPECT_EQ(tq_net_get_hwaddr("dypa", out, 9), -EINVAL);
    EXPECT_EQ(tq_net_get_hwaddr("dypa", out, 5), -EINVAL);
    EXPECT_EQ(tq_net_get_hwaddr("dypa", nullptr, 6), -EINVAL);
    EXPECT_EQ(tq_net_get_hwaddr("", out, 6), -EINVAL);
    EXPECT_EQ(tq_net_get_hwaddr(nullptr, out, 6), -EINVAL);
    EXPECT_EQ(tq_net_get_hwaddr("dypmissing", out, 6), -ENODEV);
}

TEST_F(NetQueries, AddressAndNetmask) {
    uint8_t address[4] = {}, mask[4] = {};
    ASSERT_EQ(tq_net_get_ip4addr("dypa", address), 0);
    EXPECT_EQ(dotted(address), "192.0.2.1");
    ASSERT_EQ(tq_net_get_netmask("dypa", mask), 0);
    EXPECT_EQ(dotted(mask), "255.255.255.0");
}

TEST_F(NetQueries, InterfaceWithoutAddressOrUnknown) {
    uint8_t out[4] = {};
    EXPECT_EQ(tq_net_get_ip4addr("dypb", out), -EADDRNOTAVAIL);
    EXPECT_EQ(tq_net_get_netmask("dypb", out), -EADDRNOTAVAIL);
    EXPECT_EQ(tq_net_get_ip4addr("dypmissing", out), -ENODEV);
    EXPECT_EQ(tq_net_get_ip4addr("dypa", nullptr), -EINVAL);
    EXPECT_EQ(tq_net_get_netmask("", out), -EINVAL);
}

TEST_F(NetQueries, LongNamesAreCutTo15Characters) {
    ASSERT_EQ(netns_->exec("ip link add dyp456789abcdef type veth peer name dyplongp"), 0);
    uint8_t mac[6];
    EXPECT_EQ(tq_net_get_hwaddr("dyp456789abcdefEXTRA", mac, 6), 0);
}

TEST_F(NetQueries, SetAddress) {
    const uint8_t wanted[4] = {192, 0, 2, 9};
    ASSERT_EQ(tq_net_set_ip4addr("dypb", wanted), 0);
    uint8_t read_back[4] = {};
    ASSERT_EQ(tq_net_get_ip4addr("dypb", read_back), 0);
    EXPECT_EQ(dotted(read_back), "192.0.2.9");
    EXPECT_EQ(tq_net_set_ip4addr("dypmissing", wanted), -ENODEV);
    EXPECT_EQ(tq_net_set_ip4addr("dypb", nullptr), -EINVAL);
}

TEST_F(NetQueries, UpDownAndUnknown) {
    EXPECT_EQ(tq_net_chk_ifup("dypa"), 1);
    EXPECT_EQ(tq_net_chk_ifup("dypdown"), 0);
    EXPECT_EQ(tq_net_chk_ifup("dypmissing"), 0);
    EXPECT_EQ(tq_net_chk_ifup(nullptr), -1);
}

TEST_F(NetQueries, DefaultGatewayOfTheInterfaceOnly) {
    uint32_t gateway = 0xdeadbeef;
    ASSERT_EQ(tq_net_get_defaultgw("dypa", &gateway), 0);
    EXPECT_EQ(gateway, inet_addr("192.0.2.254"));
    gateway = 0xdeadbeef;
    ASSERT_EQ(tq_net_get_defaultgw("dypb", &gateway), 0);
    EXPECT_EQ(gateway, 0u);
    EXPECT_EQ(tq_net_get_defaultgw("dypa", nullptr), 0);
    EXPECT_EQ(tq_net_get_defaultgw(nullptr, &gateway), -EINVAL);
}

TEST_F(NetQueries, JoinsAGroupOnlyThroughAnAddressedInterface) {
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(sock, 0);
    EXPECT_EQ(tq_net_join_mcgrop_in(sock, "dypa", inet_addr("239.1.2.3")), 0);
    // Joining the same group twice on the same interface is refused.
    EXPECT_EQ(tq_net_join_mcgrop_in(sock, "dypa", inet_addr("239.1.2.3")), -1);
    EXPECT_EQ(tq_net_join_mcgrop_in(sock, "dypb", inet_addr("239.1.2.4")), -1);
    close(sock);
}

TEST(MacText, RecognisesExactlyTheSeventeenCharacterForm) {
    EXPECT_EQ(tq_net_ismacaddr("00:11:22:33:44:55", ':'), 1);
    EXPECT_EQ(tq_net_ismacaddr("AA:bb:CC:dd:EE:ff", ':'), 1);
    EXPECT_EQ(tq_net_ismacaddr("00-11-22-33-44-55", '-'), 1);
    EXPECT_EQ(tq_net_ismacaddr("00-11-22-33-44-55", ':'), 0);
    EXPECT_EQ(tq_net_ismacaddr("00:11:22:33:44:55x", ':'), 0);
    EXPECT_EQ(tq_net_ismacaddr("00:11:22:33:44:5", ':'), 0);
    EXPECT_EQ(tq_net_ismacaddr("00:11:22:33:4g:55", ':'), 0);
    EXPECT_EQ(tq_net_ismacaddr("00:11:22:33:44:55", '\0'), 0);
    EXPECT_EQ(tq_net_ismacaddr("", ':'), 0);
    EXPECT_EQ(tq_net_ismacaddr(nullptr, ':'), 0);
}

TEST(MacText, WritesLowercaseWithTheSeparator) {
    const uint8_t mac[6] = {0x00, 0xAB, 0x0c, 0xDE, 0xf0, 0xFF};
    char text[18];
    std::memset(text, 'x', sizeof text);
    ASSERT_EQ(tq_net_mac2str(mac, text), 0);
    EXPECT_STREQ(text, "00:ab:0c:de:f0:ff");
    ASSERT_EQ(tq_net_mac2str_ex(mac, '-', text), 0);
    EXPECT_STREQ(text, "00-ab-0c-de-f0-ff");
    EXPECT_EQ(tq_net_mac2str(nullptr, text), -EINVAL);
    EXPECT_EQ(tq_net_mac2str(mac, nullptr), -EINVAL);
}

TEST(MacText, ReadsGroupsAtFixedPositionsWithoutCheckingSeparators) {
    uint8_t mac[6];
    ASSERT_EQ(tq_net_str2mac("00:1A:b2:33:44:55", mac), 0);
    const uint8_t expected[6] = {0x00, 0x1a, 0xb2, 0x33, 0x44, 0x55};
    EXPECT_EQ(std::memcmp(mac, expected, 6), 0);
    ASSERT_EQ(tq_net_str2mac_ex("01x02y03z04w05v06", '-', mac), 0);
    const uint8_t unchecked[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(std::memcmp(mac, unchecked, 6), 0);
}

TEST(MacText, GroupThatDoesNotConvertRepeatsThePreviousByte) {
    uint8_t mac[6];
    ASSERT_EQ(tq_net_str2mac("12:zz:34:56", mac), 0);
    const uint8_t expected[6] = {0x12, 0x12, 0x34, 0x56, 0x56, 0x56};
    EXPECT_EQ(std::memcmp(mac, expected, 6), 0);
    ASSERT_EQ(tq_net_str2mac("", mac), 0);
    const uint8_t zeros[6] = {};
    EXPECT_EQ(std::memcmp(mac, zeros, 6), 0);
    EXPECT_EQ(tq_net_str2mac(nullptr, mac), -EINVAL);
}
