#include "transport/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <gtest/gtest.h>
#include <net/if.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <vector>

#include "lib/alloc.h"
#include "lib/fd.h"
#include "support/netns.h"

namespace {

// "name;" per entry, with the '!' of exclusions.
std::string describe(const dypd_endpoint_header &endpoint) {
    std::string text;
    for (int i = 0; i < endpoint.bind_count; ++i)
        text += std::string(endpoint.bind_list[i].include ? "" : "!") + endpoint.bind_list[i].name +
                ";";
    return text;
}

constexpr int ETH0 = 2, BR1 = 3, WLAN0 = 4;

} // namespace

TEST(BindList, ParsesPiecesInOrderSkippingEmptyRepeatedAndLongNames) {
    const struct {
        const char *text, *entries;
    } cases[] = {
        {"eth0,!br1,*", "eth0;!br1;*;"},
        {",eth0,,eth0,", "eth0;"},
        // A piece is compared as written, '!' included, with stored names.
        {"!eth0,!eth0", "!eth0;!eth0;"},
        {"!eth0,eth0", "!eth0;"},
        {"abcdefghijklmnop,abcdefghijklmnopq,x", "abcdefghijklmno;x;"},
        {"", ""},
    };
    for (const auto &c : cases) {
        dypd_endpoint_header endpoint{};
        ASSERT_EQ(dypd_set_bind_interface(&endpoint, c.text), 0);
        EXPECT_EQ(describe(endpoint), c.entries) << c.text;
        dyp_free(endpoint.bind_list);
    }
}

TEST(BindList, ResolvesIndexesAndKeepsTheOldListWithoutMemory) {
    dypd_endpoint_header endpoint{};
    (void)dypd_init_socket(&endpoint, DYPD_ENDPOINT_UDP);
    EXPECT_EQ(dypd_set_bind_interface(&endpoint, nullptr), -EINVAL);
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "lo,!nosuchif0,*x"), 0);
    ASSERT_EQ(endpoint.bind_count, 3);
    EXPECT_EQ(endpoint.bind_list[0].ifindex, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(endpoint.bind_list[1].ifindex, DYPD_IFINDEX_UNRESOLVED);
    EXPECT_EQ(endpoint.bind_list[2].ifindex, DYPD_IFINDEX_WILDCARD);

    dyp_alloc_fail_after(2);
    EXPECT_EQ(dypd_set_bind_interface(&endpoint, "a,b,c"), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(describe(endpoint), "lo;!nosuchif0;*x;");
    dyp_free(endpoint.bind_list);
}

TEST(BindVerdict, FirstWildcardOrMatchingEntryDecides) {
    const dypd_bind_entry eth0{"eth0", ETH0, 1, 0}, not_br1{"br1", BR1, 0, 0},
        any{"*", DYPD_IFINDEX_WILDCARD, 1, 0}, none{"*", DYPD_IFINDEX_WILDCARD, 0, 0},
        rejected{"eth0", ETH0, 1, 1};
    const struct {
        std::vector<dypd_bind_entry> list;
        int ifindex, verdict;
    } cases[] = {
        {{}, ETH0, 0},
        {{eth0, not_br1, any}, BR1, -EBADMSG},
        {{not_br1}, WLAN0, 0}, // nothing decides
        {{any, not_br1}, BR1, 0},
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

namespace {

// Links `client` to `server` by veth "<stem>0"/"<stem>1" and routes the
// client through it.
void link_client(const test_netns &server, const test_netns &client, const std::string &stem,
                 const std::string &server_ip, const std::string &client_ip) {
    ASSERT_EQ(server.exec("ip link add " + stem + "0 type veth peer name " + stem + "1 netns " +
                          client.name() + " && ip addr add " + server_ip + "/30 dev " + stem +
                          "0 && ip link set " + stem + "0 up"),
              0);
    ASSERT_EQ(client.exec("ip addr add " + client_ip + "/30 dev " + stem + "1 && ip link set " +
                          stem + "1 up && ip route add default via " + server_ip),
              0);
}

// Sends one datagram from `client` to `to`; returns the receiving interface
// or what the receive path refused it with.
int deliver(dypd_endpoint_header &endpoint, const test_netns &client, sockaddr_in to) {
    unique_fd from;
    {
        netns_scope inside(client.name());
        from.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
    if (sendto(from.get(), "hello", 5, 0, reinterpret_cast<sockaddr *>(&to), sizeof to) != 5)
        return -1000;
    uint8_t buffer[16];
    sockaddr_in peer{};
    int ifindex = -1;
    int result = dypd_recvfrom(&endpoint, buffer, sizeof buffer, 0, &peer, &ifindex);
    return result == 5 ? ifindex : result;
}

} // namespace

// Clients A and B reach the server through their own links; the interface
// a datagram arrives on decides, not the address it was sent to.
TEST(BindOnRealInterfaces, ListsDecidePerReceivingInterface) {
    DYP_REQUIRE_ROOT();
    test_netns server("bs"), client_a("ba"), client_b("bb");
    link_client(server, client_a, "dypa", "192.0.2.1", "192.0.2.2");
    link_client(server, client_b, "dypb", "192.0.2.5", "192.0.2.6");
    netns_scope inside(server.name());
    ASSERT_TRUE(inside.ok());
    const int a = static_cast<int>(if_nametoindex("dypa0"));
    const int b = static_cast<int>(if_nametoindex("dypb0"));
    dypd_endpoint_header endpoint{};
    (void)dypd_init_socket(&endpoint, DYPD_ENDPOINT_UDP);
    ASSERT_EQ(dypd_set_udp_port(&endpoint, 0), 0);
    ASSERT_EQ(dypd_open_socket(&endpoint), 0);
    const timeval limit{5, 0}; // a lost datagram fails the case instead of hanging
    ASSERT_EQ(setsockopt(endpoint.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
    sockaddr_in to_b{};
    socklen_t length = sizeof to_b;
    ASSERT_EQ(getsockname(endpoint.fd, reinterpret_cast<sockaddr *>(&to_b), &length), 0);
    ASSERT_EQ(inet_pton(AF_INET, "192.0.2.5", &to_b.sin_addr), 1);
    const struct {
        const char *list;
        int from_a, from_b;
    } cases[] = {
        {"*", a, b},
        {"!dypa0,dypb0", -EBADMSG, b},
        {"dypa0,!dypb0,*", a, -EBADMSG},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(dypd_set_bind_interface(&endpoint, c.list), 0);
        EXPECT_EQ(deliver(endpoint, client_a, to_b), c.from_a) << c.list;
        EXPECT_EQ(deliver(endpoint, client_b, to_b), c.from_b) << c.list;
    }
    dypd_release_socket(&endpoint);
    dyp_free(endpoint.ports);
    dyp_free(endpoint.bind_list);
}
