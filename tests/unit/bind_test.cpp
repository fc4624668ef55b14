#include "transport/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <net/if.h>
#include <string>
#include <sys/socket.h>

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
        const char *text;
        const char *entries;
    } cases[] = {
        {"eth0,!br1,*", "eth0;!br1;*;"},
        {",eth0,,eth0,", "eth0;"},
        // A piece is compared as written, '!' included, with stored names.
        {"!eth0,!eth0", "!eth0;!eth0;"},
        {"!eth0,eth0", "!eth0;"},
        {"abcdefghijklmnop,abcdefghijklmnopq,x", "abcdefghijklmno;x;"},
        {"!abcdefghijklmnop,!abcdefghijklmno", "!abcdefghijklmno;"},
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
    EXPECT_EQ(dypd_set_bind_interface(nullptr, "lo"), -EINVAL);
    EXPECT_EQ(dypd_set_bind_interface(&endpoint, nullptr), -EINVAL);
    EXPECT_EQ(dypd_refresh_interface_index(nullptr), -EINVAL);
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
    const dypd_bind_entry eth0{"eth0", ETH0, 1, 0}, not_eth0{"eth0", ETH0, 0, 0},
        not_br1{"br1", BR1, 0, 0}, any{"*", DYPD_IFINDEX_WILDCARD, 1, 0},
        none{"*", DYPD_IFINDEX_WILDCARD, 0, 0}, rejected{"eth0", ETH0, 1, 1},
        unresolved{"gone0", DYPD_IFINDEX_UNRESOLVED, 0, 0};
    const struct {
        std::vector<dypd_bind_entry> list;
        int ifindex;
        int verdict;
    } cases[] = {
        {{}, ETH0, 0},
        {{eth0, not_br1, any}, ETH0, 0},
        {{eth0, not_br1, any}, BR1, -EBADMSG},
        {{eth0, not_br1, any}, WLAN0, 0},
        {{not_br1}, BR1, -EBADMSG},
        {{not_br1}, WLAN0, 0},
        {{any, not_eth0}, ETH0, 0},
        {{eth0, none}, ETH0, 0},
        {{eth0, none}, BR1, -EBADMSG},
        {{eth0}, WLAN0, 0},
        {{rejected, any}, ETH0, -EBADMSG},
        {{unresolved, none}, DYPD_IFINDEX_UNRESOLVED, -EBADMSG}, // the wildcard decided
    };
    for (const auto &c : cases) {
        std::vector<dypd_bind_entry> list = c.list;
        dypd_endpoint_header endpoint{};
        endpoint.bind_list = list.data();
        endpoint.bind_count = static_cast<int32_t>(list.size());
        EXPECT_EQ(dypd_bind_verdict(&endpoint, c.ifindex), c.verdict)
            << describe(endpoint) << " on " << c.ifindex;
    }
    dypd_endpoint_header endpoint{};
    EXPECT_EQ(dypd_check_link_local_address(&endpoint), -EINVAL);
}

TEST(InterfaceName, NamesKnownIndexesCutToTheBuffer) {
    int lo = static_cast<int>(if_nametoindex("lo"));
    char name[16];
    ASSERT_EQ(dypd_get_ifname(lo, name, sizeof name), 0);
    EXPECT_STREQ(name, "lo");
    char tiny[2];
    ASSERT_EQ(dypd_get_ifname(lo, tiny, sizeof tiny), 0);
    EXPECT_STREQ(tiny, "l");
    EXPECT_EQ(dypd_get_ifname(987654, name, sizeof name), -EINVAL);

    DYP_REQUIRE_ROOT();
    test_netns ns("ifn");
    ASSERT_EQ(ns.exec("ip link add abcdefghijklmno type veth peer name dypp0"), 0);
    netns_scope inside(ns.name());
    ASSERT_TRUE(inside.ok());
    ASSERT_EQ(
        dypd_get_ifname(static_cast<int>(if_nametoindex("abcdefghijklmno")), name, sizeof name), 0);
    EXPECT_STREQ(name, "abcdefghijklmno");
}

namespace {

// A server namespace linked by veth "dypa0" to client namespace A and by
// "dypb0" to client namespace B, each client routed through its link.
class BindOnRealInterfaces : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        server = std::make_unique<test_netns>("bs");
        client_a = std::make_unique<test_netns>("ba");
        client_b = std::make_unique<test_netns>("bb");
        link(*client_a, "dypa", "192.0.2.1", "192.0.2.2");
        link(*client_b, "dypb", "192.0.2.5", "192.0.2.6");
        socket_a = socket_in(*client_a);
        socket_b = socket_in(*client_b);
        ASSERT_TRUE(socket_a.valid() && socket_b.valid());
    }
    void TearDown() override {
        dypd_release_socket(&endpoint);
        dyp_free(endpoint.ports);
        dyp_free(endpoint.bind_list);
    }
    void link(const test_netns &client, const std::string &stem, const std::string &server_ip,
              const std::string &client_ip) {
        ASSERT_EQ(server->exec("ip link add " + stem + "0 type veth peer name " + stem +
                               "1 netns " + client.name() + " && ip addr add " + server_ip +
                               "/30 dev " + stem + "0 && ip link set " + stem + "0 up"),
                  0);
        ASSERT_EQ(client.exec("ip addr add " + client_ip + "/30 dev " + stem + "1 && ip link set " +
                              stem + "1 up && ip route add default via " + server_ip),
                  0);
    }
    static unique_fd socket_in(const test_netns &ns) {
        netns_scope inside(ns.name());
        return unique_fd(inside.ok() ? socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1);
    }
    void open_endpoint(const char *bind_text) {
        netns_scope inside(server->name());
        ASSERT_TRUE(inside.ok());
        (void)dypd_init_socket(&endpoint, DYPD_ENDPOINT_UDP);
        ASSERT_EQ(dypd_set_udp_port(&endpoint, 0), 0);
        ASSERT_EQ(dypd_open_socket(&endpoint), 0);
        ASSERT_EQ(dypd_set_bind_interface(&endpoint, bind_text), 0);
        sockaddr_in local{};
        socklen_t length = sizeof local;
        ASSERT_EQ(getsockname(endpoint.fd, reinterpret_cast<sockaddr *>(&local), &length), 0);
        port = local.sin_port;
        index_a = static_cast<int>(if_nametoindex("dypa0"));
        index_b = static_cast<int>(if_nametoindex("dypb0"));
    }
    // Sends one datagram to `server_ip`, awaits it, and returns what the
    // receive path made of it; `ifindex` gets the receiving interface.
    int deliver(const unique_fd &from, const char *server_ip, int *ifindex) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = port;
        (void)inet_pton(AF_INET, server_ip, &to.sin_addr);
        if (sendto(from.get(), "hello", 5, 0, reinterpret_cast<sockaddr *>(&to), sizeof to) != 5)
            return -1000;
        fd_set readset;
        FD_ZERO(&readset);
        FD_SET(endpoint.fd, &readset);
        if (dypd_select(endpoint.fd + 1, &readset, nullptr, 5000, 0) != 1)
            return -1001;
        uint8_t buffer[510];
        sockaddr_in peer{};
        *ifindex = -1;
        return dypd_udp_recvfrom(&endpoint, buffer, sizeof buffer, MSG_DONTWAIT, &peer, ifindex);
    }
    // Which clients got through, e.g. "AB".
    std::string served() {
        std::string result;
        int ifindex;
        if (deliver(socket_a, "192.0.2.1", &ifindex) == 5 && ifindex == index_a)
            result += "A";
        if (deliver(socket_b, "192.0.2.5", &ifindex) == 5 && ifindex == index_b)
            result += "B";
        return result;
    }

    std::unique_ptr<test_netns> server, client_a, client_b;
    unique_fd socket_a, socket_b;
    dypd_endpoint_header endpoint{};
    uint16_t port = 0;
    int index_a = 0, index_b = 0;
};

} // namespace

TEST_F(BindOnRealInterfaces, ListsDecidePerReceivingInterface) {
    const struct {
        const char *list;
        const char *served;
    } cases[] = {{"*", "AB"},        {"!dypa0", "B"}, {"dypb0,!*", "B"},
                 {"*,!dypb0", "AB"}, {"dypa0", "AB"}, {"dypa0,!dypb0,*", "A"}};
    for (const auto &c : cases) {
        open_endpoint(c.list);
        EXPECT_EQ(served(), c.served) << c.list;
        TearDown();
        endpoint = dypd_endpoint_header{};
    }
}

TEST_F(BindOnRealInterfaces, ArrivalInterfaceCountsNotTheDestinationAddress) {
    open_endpoint("!dypa0,dypb0");
    int ifindex;
    EXPECT_EQ(deliver(socket_a, "192.0.2.5", &ifindex), -EBADMSG);
    EXPECT_EQ(deliver(socket_b, "192.0.2.5", &ifindex), 5);
    EXPECT_EQ(ifindex, index_b);
}
