#include "transport/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <net/if.h>
#include <string>
#include <sys/socket.h>

#include "lib/alloc.h"
#include "lib/fd.h"
#include "support/netns.h"

namespace {

class BindList : public ::testing::Test {
  protected:
    void SetUp() override { (void)dypd_init_socket(&endpoint, DYPD_ENDPOINT_UDP); }
    void TearDown() override {
        dyp_alloc_fail_after(0);
        dyp_free(endpoint.bind_list);
    }
    const dypd_bind_entry &entry(int i) const { return endpoint.bind_list[i]; }
    std::string names() const {
        std::string text;
        for (int i = 0; i < endpoint.bind_count; ++i)
            text += std::string(entry(i).include ? "" : "!") + entry(i).name + ";";
        return text;
    }
    dypd_endpoint_header endpoint{};
};

// Builds a resolved list by hand: each entry's index as given.
class BindVerdict : public ::testing::Test {
  protected:
    void TearDown() override { dyp_free(endpoint.bind_list); }
    void set(std::initializer_list<dypd_bind_entry> entries) {
        endpoint.bind_count = static_cast<int32_t>(entries.size());
        endpoint.bind_list =
            static_cast<dypd_bind_entry *>(dyp_calloc(entries.size(), sizeof(dypd_bind_entry)));
        int i = 0;
        for (const auto &e : entries)
            endpoint.bind_list[i++] = e;
    }
    dypd_endpoint_header endpoint{};
};

constexpr int ETH0 = 2;
constexpr int BR1 = 3;
constexpr int WLAN0 = 4;
const dypd_bind_entry eth0{"eth0", ETH0, 1, 0};
const dypd_bind_entry not_eth0{"eth0", ETH0, 0, 0};
const dypd_bind_entry not_br1{"br1", BR1, 0, 0};
const dypd_bind_entry any{"*", DYPD_IFINDEX_WILDCARD, 1, 0};
const dypd_bind_entry none{"*", DYPD_IFINDEX_WILDCARD, 0, 0};
const dypd_bind_entry unresolved_exclusion{"gone0", DYPD_IFINDEX_UNRESOLVED, 0, 0};

} // namespace

TEST_F(BindList, KeepsOrderFlagsAndTheWildcard) {
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "eth0,!br1,*"), 0);
    ASSERT_EQ(endpoint.bind_count, 3);
    EXPECT_EQ(names(), "eth0;!br1;*;");
    EXPECT_EQ(entry(2).ifindex, DYPD_IFINDEX_WILDCARD);
    EXPECT_EQ(entry(0).reject, 0);
    EXPECT_EQ(entry(1).reject, 0);
}

TEST_F(BindList, SkipsEmptyPiecesAndRepeatedNames) {
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, ",eth0,,eth0,"), 0);
    EXPECT_EQ(names(), "eth0;");
    // A '!' piece is compared as written, so it never matches a stored name.
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "!eth0,!eth0"), 0);
    EXPECT_EQ(names(), "!eth0;!eth0;");
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "!eth0,eth0"), 0);
    EXPECT_EQ(names(), "!eth0;");
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, ""), 0);
    EXPECT_EQ(endpoint.bind_count, 0);
}

TEST_F(BindList, CutsSixteenCharacterNamesAndDropsLongerOnes) {
    ASSERT_EQ(dypd_set_bind_interface(&endpoint,
                                      "abcdefghijklmnop,abcdefghijklmnopq,!abcdefghijklmnop,x"),
              0);
    EXPECT_EQ(names(), "abcdefghijklmno;x;");
    EXPECT_EQ(entry(0).ifindex, DYPD_IFINDEX_UNRESOLVED);
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "!abcdefghijklmno"), 0);
    EXPECT_EQ(names(), "!abcdefghijklmno;");
}

TEST_F(BindList, ResolvesKnownNamesOnly) {
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "lo,!nosuchif0,*x"), 0);
    ASSERT_EQ(endpoint.bind_count, 3);
    EXPECT_EQ(entry(0).ifindex, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(entry(1).ifindex, DYPD_IFINDEX_UNRESOLVED);
    EXPECT_EQ(entry(2).ifindex, DYPD_IFINDEX_WILDCARD) << "any name starting with '*'";
    EXPECT_EQ(dypd_refresh_interface_index(nullptr), -EINVAL);
}

TEST_F(BindList, RefusesNullAndKeepsTheOldListWithoutMemory) {
    EXPECT_EQ(dypd_set_bind_interface(nullptr, "eth0"), -EINVAL);
    EXPECT_EQ(dypd_set_bind_interface(&endpoint, nullptr), -EINVAL);
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "eth0"), 0);
    dyp_alloc_fail_after(2);
    EXPECT_EQ(dypd_set_bind_interface(&endpoint, "a,b,c"), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(names(), "eth0;");
}

TEST_F(BindVerdict, EmptyListServesEveryInterface) {
    EXPECT_EQ(dypd_bind_verdict(&endpoint, ETH0), 0);
}

TEST_F(BindVerdict, NamedIncludeThenExcludeThenWildcard) {
    set({eth0, not_br1, any});
    EXPECT_EQ(dypd_bind_verdict(&endpoint, ETH0), 0);
    EXPECT_EQ(dypd_bind_verdict(&endpoint, BR1), -EBADMSG);
    EXPECT_EQ(dypd_bind_verdict(&endpoint, WLAN0), 0);
}

TEST_F(BindVerdict, ExclusionAloneRefusesOnlyThatInterface) {
    set({not_br1});
    EXPECT_EQ(dypd_bind_verdict(&endpoint, BR1), -EBADMSG);
    EXPECT_EQ(dypd_bind_verdict(&endpoint, ETH0), 0);
}

TEST_F(BindVerdict, LeadingWildcardDecidesBeforeLaterExclusions) {
    set({any, not_eth0});
    EXPECT_EQ(dypd_bind_verdict(&endpoint, ETH0), 0);
}

TEST_F(BindVerdict, ExcludedWildcardServesOnlyTheNamedInterface) {
    set({eth0, none});
    EXPECT_EQ(dypd_bind_verdict(&endpoint, ETH0), 0);
    EXPECT_EQ(dypd_bind_verdict(&endpoint, BR1), -EBADMSG);
}

TEST_F(BindVerdict, SingleIncludeServesEveryInterface) {
    set({eth0});
    EXPECT_EQ(dypd_bind_verdict(&endpoint, WLAN0), 0);
}

TEST_F(BindVerdict, UnresolvedNameNeverDecides) {
    set({unresolved_exclusion, none});
    EXPECT_EQ(dypd_bind_verdict(&endpoint, DYPD_IFINDEX_UNRESOLVED), -EBADMSG)
        << "decided by the wildcard, not by the unresolved entry";
}

TEST_F(BindVerdict, RejectFlagRefusesEvenAnInclude) {
    dypd_bind_entry rejected = eth0;
    rejected.reject = 1;
    set({rejected, any});
    EXPECT_EQ(dypd_bind_verdict(&endpoint, ETH0), -EBADMSG);
    EXPECT_EQ(dypd_bind_verdict(&endpoint, BR1), 0);
}

TEST(LinkLocal, IsNotManaged) {
    dypd_endpoint_header endpoint{};
    EXPECT_EQ(dypd_check_link_local_address(&endpoint), -EINVAL);
}

TEST(InterfaceName, NamesLoopbackAndCutsToTheBuffer) {
    char name[16];
    ASSERT_EQ(dypd_get_ifname(static_cast<int>(if_nametoindex("lo")), name, sizeof name), 0);
    EXPECT_STREQ(name, "lo");
    char tiny[2] = {'x', 'x'};
    ASSERT_EQ(dypd_get_ifname(static_cast<int>(if_nametoindex("lo")), tiny, sizeof tiny), 0);
    EXPECT_STREQ(tiny, "l");
}

TEST(InterfaceName, UnknownIndexIsInvalid) {
    char name[16];
    EXPECT_EQ(dypd_get_ifname(987654, name, sizeof name), -EINVAL);
    EXPECT_EQ(dypd_get_ifname(1, nullptr, 16), -EINVAL);
}

TEST(InterfaceName, FifteenCharacterNameFitsSixteenBytes) {
    DYP_REQUIRE_ROOT();
    test_netns ns("ifn");
    ASSERT_EQ(ns.exec("ip link add abcdefghijklmno type veth peer name dypp0"), 0);
    netns_scope inside(ns.name());
    ASSERT_TRUE(inside.ok());
    int index = static_cast<int>(if_nametoindex("abcdefghijklmno"));
    ASSERT_GT(index, 0);
    char name[16];
    ASSERT_EQ(dypd_get_ifname(index, name, sizeof name), 0);
    EXPECT_STREQ(name, "abcdefghijklmno");
}

namespace {

// A server namespace with two veth links, "dypa0" to client namespace A
// (192.0.2.0/30) and "dypb0" to client namespace B (192.0.2.4/30). The
// endpoint lives in the server namespace; each client socket in its own.
class BindOnRealInterfaces : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        server = std::make_unique<test_netns>("bs");
        client_a = std::make_unique<test_netns>("ba");
        client_b = std::make_unique<test_netns>("bb");
        link(*client_a, "dypa", "192.0.2.1", "192.0.2.2");
        link(*client_b, "dypb", "192.0.2.5", "192.0.2.6");
        socket_a = client_socket(*client_a);
        socket_b = client_socket(*client_b);
        ASSERT_TRUE(socket_a.valid());
        ASSERT_TRUE(socket_b.valid());
    }
    void TearDown() override {
        dypd_release_socket(&endpoint);
        dyp_free(endpoint.ports);
        dyp_free(endpoint.bind_list);
    }

    void link(const test_netns &client, const std::string &stem, const std::string &server_ip,
              const std::string &client_ip) {
        ASSERT_EQ(server->exec("ip link add " + stem + "0 type veth peer name " + stem + "1" +
                               " netns " + client.name()),
                  0);
        ASSERT_EQ(server->exec("ip addr add " + server_ip + "/30 dev " + stem +
                               "0 && ip link set " + stem + "0 up"),
                  0);
        ASSERT_EQ(client.exec("ip addr add " + client_ip + "/30 dev " + stem + "1 && ip link set " +
                              stem + "1 up && ip route add default via " + server_ip),
                  0);
    }

    static unique_fd client_socket(const test_netns &ns) {
        netns_scope inside(ns.name());
        if (!inside.ok())
            return unique_fd();
        return unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }

    // Opens the endpoint in the server namespace with `bind_text`.
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

    // Sends one datagram from `from` to `server_ip`, waits for it and
    // returns what the receive path made of it.
    int deliver(const unique_fd &from, const char *server_ip, int *ifindex) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = port;
        (void)inet_pton(AF_INET, server_ip, &to.sin_addr);
        const char text[] = "hello";
        if (sendto(from.get(), text, sizeof text, 0, reinterpret_cast<sockaddr *>(&to),
                   sizeof to) != sizeof text)
            return -1000;
        fd_set readset;
        FD_ZERO(&readset);
        FD_SET(endpoint.fd, &readset);
        if (dypd_select(endpoint.fd + 1, &readset, nullptr, 5000, 0) != 1)
            return -1001;
        uint8_t buffer[510];
        sockaddr_in peer{};
        return dypd_udp_recvfrom(&endpoint, buffer, sizeof buffer, MSG_DONTWAIT, &peer, ifindex);
    }

    // "AB": which clients got through.
    std::string served() {
        std::string result;
        int ifindex = -1;
        if (deliver(socket_a, "192.0.2.1", &ifindex) == 6 && ifindex == index_a)
            result += "A";
        ifindex = -1;
        if (deliver(socket_b, "192.0.2.5", &ifindex) == 6 && ifindex == index_b)
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

TEST_F(BindOnRealInterfaces, DefaultWildcardServesBoth) {
    open_endpoint("*");
    EXPECT_EQ(served(), "AB");
}

TEST_F(BindOnRealInterfaces, ExcludedInterfaceIsRefused) {
    open_endpoint("!dypa0");
    EXPECT_EQ(served(), "B");
    int ifindex = -1;
    EXPECT_EQ(deliver(socket_a, "192.0.2.1", &ifindex), -EBADMSG);
}

TEST_F(BindOnRealInterfaces, IncludeWithExcludedWildcardServesOnlyThatInterface) {
    open_endpoint("dypb0,!*");
    EXPECT_EQ(served(), "B");
}

TEST_F(BindOnRealInterfaces, ExclusionAfterWildcardHasNoEffect) {
    open_endpoint("*,!dypb0");
    EXPECT_EQ(served(), "AB");
}

TEST_F(BindOnRealInterfaces, AddressOfTheOtherInterfaceStillCountsWhereItArrived) {
    // A datagram from A addressed to B's address still arrives on dypa0.
    open_endpoint("!dypa0,dypb0");
    int ifindex = -1;
    EXPECT_EQ(deliver(socket_a, "192.0.2.5", &ifindex), -EBADMSG);
    EXPECT_EQ(deliver(socket_b, "192.0.2.5", &ifindex), 6);
    EXPECT_EQ(ifindex, index_b);
}
