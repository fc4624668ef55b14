#include "protocol/advertise.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/utsname.h>
#include <vector>

#include "daemon/dypd_priv.h"
#include "lib/be.h"
#include "protocol/packet.h"
#include "support/netns.h"

namespace {
using bytes = std::vector<uint8_t>;

TEST(AdvertiseRegistration, KeepsTheFirstHandlerAndRefusesNulls) {
    dypd_udp_port endpoint{};
    EXPECT_EQ(dypd_register_advertise_handler(nullptr, dypd_process_advertise), -EINVAL);
    EXPECT_EQ(dypd_register_advertise_handler(&endpoint, nullptr), -EINVAL);
    EXPECT_EQ(dypd_register_advertise_handler(&endpoint, dypd_process_advertise), 0);
    EXPECT_EQ(dypd_register_advertise_handler(&endpoint, [](auto...) { return 0; }), -EINVAL);
    EXPECT_EQ(endpoint.advertise, dypd_process_advertise);
}

// Three veth pairs: "va" with a documentation address, "vc" without any
// address and "ve" with a link-local one.
class AdvertiseTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        ns = std::make_unique<entered_netns>(
            "adv", "ip link add va type veth peer name vb && "
                   "ip link set va address 02:00:5e:10:20:31 && "
                   "ip addr add 192.0.2.1/24 dev va && "
                   "ip link add vc type veth peer name vd && "
                   "ip link add ve type veth peer name vf && "
                   "ip addr add 169.254.10.1/16 dev ve && ip link set va up && ip link set ve up");
        ASSERT_TRUE(ns->ok());
        std::strcpy(identity.product_name, "TQ Mirel 70");
        std::strcpy(identity.host_name, "box7");
        dyp_daemon.header.settings = &identity;
    }
    void TearDown() override { dyp_daemon.header.settings = nullptr; }

    // Asks through `ifname` as `from`; the reply buffer starts dirty.
    int32_t ask(const char *ifname, const char *from, uint8_t marker0 = 0x95,
                uint8_t marker1 = 0x06) {
        uint8_t request[DYP_REQUEST_HEADER_SIZE] = {};
        put_be16(request + DYP_REQ_TYPE, DYP_TYPE_ADVERTISE);
        request[DYP_REQ_MARKER] = marker0;
        request[DYP_REQ_MARKER + 1] = marker1;
        sockaddr_in peer{AF_INET, htons(5000), {}, {}};
        (void)inet_pton(AF_INET, from, &peer.sin_addr);
        reply.assign(DYP_RESPONSE_MAX, 0xff);
        unsigned ifindex = if_nametoindex(ifname);
        return dypd_process_advertise(request, reply.data(), DYP_RESPONSE_MAX, &peer,
                                      ifindex == 0 ? 9999 : static_cast<int32_t>(ifindex));
    }
    bytes address_field() const { return bytes(reply.begin() + 66, reply.begin() + 70); }
    std::string text_at(size_t at) const { return reinterpret_cast<const char *>(&reply[at]); }

    std::unique_ptr<entered_netns> ns;
    dypd_identity identity{};
    bytes reply;
};

TEST_F(AdvertiseTest, ReplyDescribesTheReceivingInterfaceByteForByte) {
    ASSERT_EQ(ask("va", "192.0.2.77"), 164);
    bytes expected(DYP_RESPONSE_MAX, 0); // every byte not listed, up to the capacity
    const uint8_t head[] = {0x00, 0x02, 0x95, 0x06};
    const uint8_t mac_one_address[] = {0x02, 0x00, 0x5e, 0x10, 0x20, 0x31, 0,
                                       0,    0,    1,    192,  0,    2,    1};
    std::memcpy(expected.data(), head, sizeof head);
    std::memcpy(expected.data() + 36, "TQ Mirel 70", 11);
    std::memcpy(expected.data() + 56, mac_one_address, sizeof mac_one_address);
    std::memcpy(expected.data() + 116, "box7", 4);
    EXPECT_EQ(reply, expected);
}

TEST_F(AdvertiseTest, AddressIsZeroWithoutOneAndLinkLocalOnlyWithinItsNetwork) {
    ASSERT_EQ(ask("vc", "192.0.2.77"), 164);
    EXPECT_EQ(address_field(), (bytes{0, 0, 0, 0}));
    EXPECT_EQ(reply[65], 1);
    ASSERT_EQ(ask("ve", "169.254.200.7"), 164);
    EXPECT_EQ(address_field(), (bytes{169, 254, 10, 1}));
    ASSERT_EQ(ask("ve", "192.0.2.77"), 164);
    EXPECT_EQ(address_field(), (bytes{0, 0, 0, 0}));
}

// Names are cut to 15 characters; an empty host name falls back to the node
// name. Wrong marker bytes or an unknown interface get no answer.
TEST_F(AdvertiseTest, NamesAreCutAndBadRequestsRefused) {
    std::memset(identity.product_name, 'P', sizeof identity.product_name); // no NUL
    identity.host_name[0] = '\0';
    ASSERT_EQ(ask("va", "192.0.2.77"), 164);
    EXPECT_EQ(text_at(36), std::string(15, 'P'));
    utsname node{};
    ASSERT_EQ(uname(&node), 0);
    EXPECT_EQ(text_at(116), std::string(node.nodename).substr(0, 15));
    EXPECT_EQ(ask("va", "192.0.2.77", 0x06, 0x95), -EINVAL);
    EXPECT_EQ(ask("nosuchif", "192.0.2.77"), -EINVAL);
}
} // namespace
