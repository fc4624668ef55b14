#include "protocol/advertise.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/utsname.h>

#include "daemon/dypd_priv.h"
#include "protocol/packet.h"
#include "support/netns.h"

namespace {
using bytes = std::vector<uint8_t>;

// Three veth pairs: "va" with a documentation address and a fixed MAC, "vc"
// without any address and "ve" with a link-local one.
class AdvertiseTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        ns = std::make_unique<entered_netns>(
            "adv", "ip link add va address 02:00:5e:10:20:31 type veth peer name vb && "
                   "ip link add vc type veth peer name vd && ip link add ve type veth peer name vf"
                   " && ip addr add 192.0.2.1/24 dev va && ip addr add 169.254.10.1/16 dev ve");
        ASSERT_TRUE(ns->ok());
        std::memset(identity.product_name, 'P', sizeof identity.product_name); // no NUL
        std::strcpy(identity.host_name, "box7");
        dyp_daemon.header.settings = &identity;
    }
    void TearDown() override { dyp_daemon.header.settings = nullptr; }

    // Asks through `ifname` as `from`; the reply buffer starts dirty. The marker is the value
    // 0x0695 stored little-endian.
    int32_t ask(const char *ifname, const char *from, uint16_t marker = 0x0695) {
        uint8_t request[DYP_REQUEST_HEADER_SIZE] = {0, DYP_TYPE_ADVERTISE, uint8_t(marker),
                                                    uint8_t(marker >> 8)};
        sockaddr_in peer{AF_INET, htons(5000), {inet_addr(from)}, {}};
        reply.assign(DYP_RESPONSE_MAX, 0xff);
        return dypd_process_advertise(request, reply.data(), DYP_RESPONSE_MAX, &peer,
                                      static_cast<int32_t>(if_nametoindex(ifname)));
    }

    std::unique_ptr<entered_netns> ns;
    dypd_identity identity{};
    bytes reply;
};

TEST_F(AdvertiseTest, ReplyDescribesTheReceivingInterfaceByteForByte) {
    ASSERT_EQ(ask("va", "192.0.2.77"), 164);
    bytes expected = {0x00, 0x02, 0x95, 0x06};
    expected.resize(DYP_RESPONSE_MAX, 0); // every byte not listed, up to the capacity
    const uint8_t mac_one_address[] = {2, 0, 0x5e, 0x10, 0x20, 0x31, 0, 0, 0, 1, 192, 0, 2, 1};
    std::memset(&expected[36], 'P', 15); // the product name cut to 15
    std::memcpy(&expected[56], mac_one_address, sizeof mac_one_address);
    std::memcpy(&expected[116], "box7", 4);
    EXPECT_EQ(reply, expected);
    EXPECT_EQ(ask("va", "192.0.2.77", 0x9506), -EINVAL) << "the marker stored big-endian";
    EXPECT_EQ(ask("nosuchif", "192.0.2.77"), -EINVAL);
    // No address, and a link-local one shown only within its own network.
    ASSERT_EQ(ask("vc", "192.0.2.77"), 164);
    EXPECT_EQ(bytes(&reply[64], &reply[70]), (bytes{0, 1, 0, 0, 0, 0}));
    ASSERT_EQ(ask("ve", "169.254.200.7"), 164);
    EXPECT_EQ(bytes(&reply[66], &reply[70]), (bytes{169, 254, 10, 1}));
    ASSERT_EQ(ask("ve", "192.0.2.77"), 164);
    EXPECT_EQ(bytes(&reply[66], &reply[70]), (bytes{0, 0, 0, 0}));
    // Without a configured host name, the node name cut to 15 and NUL-filled.
    identity.host_name[0] = '\0';
    ASSERT_EQ(ask("va", "192.0.2.77"), 164);
    utsname node{};
    ASSERT_EQ(uname(&node), 0);
    bytes node_name(node.nodename, node.nodename + strnlen(node.nodename, 15));
    node_name.resize(16, 0);
    EXPECT_EQ(bytes(&reply[116], &reply[132]), node_name);
}
} // namespace
