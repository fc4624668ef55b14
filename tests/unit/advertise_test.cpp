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

int32_t other_handler(const uint8_t *, uint8_t *, uint32_t, const sockaddr_in *, int32_t) {
    return 0;
}

TEST(AdvertiseRegistration, KeepsTheFirstHandlerAndRefusesNulls) {
    dypd_udp_port endpoint{};
    EXPECT_EQ(dypd_register_advertise_handler(nullptr, dypd_process_advertise), -EINVAL);
    EXPECT_EQ(dypd_register_advertise_handler(&endpoint, nullptr), -EINVAL);
    EXPECT_EQ(dypd_register_advertise_handler(&endpoint, dypd_process_advertise), 0);
    EXPECT_EQ(dypd_register_advertise_handler(&endpoint, other_handler), -EINVAL);
    EXPECT_EQ(endpoint.advertise, dypd_process_advertise);
}

bytes advertise_request(uint8_t marker0 = 0x95, uint8_t marker1 = 0x06) {
    bytes r(DYP_REQUEST_HEADER_SIZE, 0);
    put_be16(r.data() + DYP_REQ_TYPE, DYP_TYPE_ADVERTISE);
    r[DYP_REQ_MARKER] = marker0;
    r[DYP_REQ_MARKER + 1] = marker1;
    return r;
}

sockaddr_in sender(const char *ip) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(5000);
    (void)inet_pton(AF_INET, ip, &a.sin_addr);
    return a;
}

// A namespace with three veth pairs: one with a documentation address, one
// without any address and one with a link-local address.
class AdvertiseTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        ns = std::make_unique<test_netns>("adv");
        ASSERT_EQ(ns->exec("ip link add va type veth peer name vb && "
                           "ip link set va address 02:00:5e:10:20:31 && "
                           "ip addr add 192.0.2.1/24 dev va && "
                           "ip link add vc type veth peer name vd && "
                           "ip link add ve type veth peer name vf && "
                           "ip addr add 169.254.10.1/16 dev ve && "
                           "ip link set va up && ip link set ve up"),
                  0);
        scope = std::make_unique<netns_scope>(ns->name());
        ASSERT_TRUE(scope->ok());
        std::memset(&identity, 0, sizeof identity);
        std::strcpy(identity.product_name, "TQ Mirel 70");
        std::strcpy(identity.host_name, "box7");
        dyp_daemon.header.settings = &identity;
        reply.assign(DYP_RESPONSE_MAX, 0xff);
    }

    void TearDown() override {
        dyp_daemon.header.settings = nullptr;
        scope.reset();
        ns.reset();
    }

    int32_t ask(const char *ifname, const char *from) {
        sockaddr_in peer = sender(from);
        bytes request = advertise_request();
        return dypd_process_advertise(request.data(), reply.data(), DYP_RESPONSE_MAX, &peer,
                                      static_cast<int32_t>(if_nametoindex(ifname)));
    }

    bytes address_field() const { return bytes(reply.begin() + 66, reply.begin() + 70); }

    std::unique_ptr<test_netns> ns;
    std::unique_ptr<netns_scope> scope;
    dypd_identity identity{};
    bytes reply;
};

TEST_F(AdvertiseTest, ReplyDescribesTheReceivingInterfaceByteForByte) {
    ASSERT_EQ(ask("va", "192.0.2.77"), 164);
    bytes expected(DYP_RESPONSE_MAX, 0);
    expected[1] = 0x02;
    expected[2] = 0x95;
    expected[3] = 0x06;
    std::memcpy(expected.data() + 36, "TQ Mirel 70", 11);
    const uint8_t mac[] = {0x02, 0x00, 0x5e, 0x10, 0x20, 0x31};
    std::memcpy(expected.data() + 56, mac, sizeof mac);
    expected[65] = 1;
    const uint8_t address[] = {192, 0, 2, 1};
    std::memcpy(expected.data() + 66, address, sizeof address);
    std::memcpy(expected.data() + 116, "box7", 4);
    EXPECT_EQ(reply, expected) << "every byte not listed, up to the capacity, is zero";
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

TEST_F(AdvertiseTest, NamesAreCutTo15AndAnEmptyHostNameFallsBackToTheNodeName) {
    std::memset(identity.product_name, 'P', sizeof identity.product_name); // no NUL
    identity.host_name[0] = '\0';
    ASSERT_EQ(ask("va", "192.0.2.77"), 164);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(reply.data() + 36)), std::string(15, 'P'));
    utsname node{};
    ASSERT_EQ(uname(&node), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(reply.data() + 116)),
              std::string(node.nodename).substr(0, 15));
}

TEST_F(AdvertiseTest, WrongMarkerOrUnknownInterfaceIsNotAnswered) {
    sockaddr_in peer = sender("192.0.2.77");
    bytes swapped = advertise_request(0x06, 0x95);
    int32_t va = static_cast<int32_t>(if_nametoindex("va"));
    EXPECT_EQ(dypd_process_advertise(swapped.data(), reply.data(), DYP_RESPONSE_MAX, &peer, va),
              -EINVAL);
    bytes good = advertise_request();
    EXPECT_EQ(dypd_process_advertise(good.data(), reply.data(), DYP_RESPONSE_MAX, &peer, 9999),
              -EINVAL);
}
} // namespace
