#include "transport/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <vector>

#include "lib/alloc.h"
#include "lib/fd.h"

namespace {

// A UDP endpoint on an ephemeral loopback port and a client socket.
class UdpEndpoint : public ::testing::Test {
  protected:
    void SetUp() override {
        (void)dypd_init_socket(&endpoint, DYPD_ENDPOINT_UDP);
        ASSERT_EQ(dypd_set_udp_port(&endpoint, 0), 0);
        ASSERT_EQ(dypd_open_socket(&endpoint), 0);
        socklen_t length = sizeof target;
        ASSERT_EQ(getsockname(endpoint.fd, reinterpret_cast<sockaddr *>(&target), &length), 0);
        target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        client.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_TRUE(client.valid());
    }
    void TearDown() override {
        dypd_release_socket(&endpoint);
        dyp_free(endpoint.ports);
        dyp_free(endpoint.bind_list);
    }
    void send_bytes(size_t count) {
        std::vector<uint8_t> bytes(count, 0x5a);
        ASSERT_EQ(sendto(client.get(), bytes.data(), count, 0,
                         reinterpret_cast<const sockaddr *>(&target), sizeof target),
                  static_cast<ssize_t>(count));
    }
    int receive(int *ifindex = nullptr) {
        return dypd_udp_recvfrom(&endpoint, buffer, sizeof buffer, MSG_DONTWAIT, &peer, ifindex);
    }
    int select_readable(int timeout_ms) {
        FD_ZERO(&readset);
        FD_SET(endpoint.fd, &readset);
        return dypd_select(endpoint.fd + 1, &readset, nullptr, timeout_ms, 0);
    }

    dypd_endpoint_header endpoint{};
    sockaddr_in target{};
    sockaddr_in peer{};
    unique_fd client;
    uint8_t buffer[510] = {};
    fd_set readset;
};

long ms_since(std::chrono::steady_clock::time_point start) {
    auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

void ignore_signal(int) {}

} // namespace

TEST(EndpointPorts, UdpEndpointTakesOnePortOthersCollectDistinctOnes) {
    EXPECT_EQ(dypd_set_udp_port(nullptr, 1), -EINVAL);
    dypd_endpoint_header udp{}, daemon{};
    (void)dypd_init_socket(&udp, DYPD_ENDPOINT_UDP);
    (void)dypd_init_socket(&daemon, DYPD_ENDPOINT_DAEMON);
    ASSERT_EQ(dypd_set_udp_port(&udp, 19540), 0);
    ASSERT_NE(udp.bound_port, nullptr);
    EXPECT_EQ(*udp.bound_port, 19540);
    EXPECT_EQ(dypd_set_udp_port(&udp, 19540), -EEXIST);

    ASSERT_EQ(dypd_set_udp_port(&daemon, 1), 0);
    ASSERT_EQ(dypd_set_udp_port(&daemon, 2), 0);
    EXPECT_EQ(dypd_set_udp_port(&daemon, 1), 0);
    EXPECT_EQ(daemon.port_count, 2);
    EXPECT_EQ(daemon.bound_port, nullptr) << "no single port any more";
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_set_udp_port(&daemon, 3), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(daemon.port_count, 2);
    dyp_free(udp.ports);
    dyp_free(daemon.ports);
}

TEST(EndpointOpen, RefusesTheDaemonContextAndAnEndpointWithoutPort) {
    EXPECT_EQ(dypd_open_socket(nullptr), -EINVAL);
    dypd_endpoint_header header{};
    (void)dypd_init_socket(&header, DYPD_ENDPOINT_UDP);
    EXPECT_EQ(dypd_open_socket(&header), -EINVAL);
    (void)dypd_init_socket(&header, DYPD_ENDPOINT_DAEMON);
    ASSERT_EQ(dypd_set_udp_port(&header, 0), 0);
    EXPECT_EQ(dypd_open_socket(&header), -EINVAL);
    dyp_free(header.ports);
}

TEST_F(UdpEndpoint, OpensOnceAndAPortIsBoundOnlyOnce) {
    EXPECT_EQ(dypd_open_socket(&endpoint), -EINVAL);
    dypd_endpoint_header second{};
    (void)dypd_init_socket(&second, DYPD_ENDPOINT_UDP);
    ASSERT_EQ(dypd_set_udp_port(&second, ntohs(target.sin_port)), 0);
    EXPECT_EQ(dypd_open_socket(&second), -EADDRINUSE);
    EXPECT_EQ(second.fd, -1);
    dyp_free(second.ports);
}

TEST_F(UdpEndpoint, ReceivesWithSenderAndInterfaceAndAnswers) {
    send_bytes(510);
    int ifindex = -7;
    ASSERT_EQ(dypd_recvfrom(&endpoint, buffer, sizeof buffer, 0, &peer, &ifindex), 510);
    EXPECT_EQ(ifindex, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));

    const uint8_t reply[3] = {1, 2, 3};
    EXPECT_EQ(dypd_sendto(&endpoint, reply, sizeof reply, 0, &peer), 3);
    EXPECT_EQ(recv(client.get(), buffer, sizeof buffer, 0), 3) << "the sender got the answer";
    EXPECT_EQ(dypd_sendto(&endpoint, nullptr, 1, 0, &peer), -EINVAL);
    EXPECT_EQ(dypd_sendto(&endpoint, reply, 1, 0, nullptr), -EINVAL);
}

TEST_F(UdpEndpoint, OversizedDatagramIsReportedAndGone) {
    send_bytes(511);
    send_bytes(0);
    EXPECT_EQ(receive(), -EMSGSIZE);
    EXPECT_EQ(receive(), 0) << "the next datagram follows, an empty one";
    EXPECT_EQ(receive(), -EAGAIN);
}

TEST_F(UdpEndpoint, RefusedDatagramIsConsumedWithoutNamingAnInterface) {
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "!lo"), 0);
    send_bytes(200);
    int ifindex = -7;
    EXPECT_EQ(receive(&ifindex), -EBADMSG);
    EXPECT_EQ(ifindex, -7);
    EXPECT_EQ(receive(), -EAGAIN);
}

TEST_F(UdpEndpoint, DatagramWithoutPacketInformationIsConsumed) {
    int off = 0;
    ASSERT_EQ(setsockopt(endpoint.fd, IPPROTO_IP, IP_PKTINFO, &off, sizeof off), 0);
    send_bytes(20);
    EXPECT_EQ(receive(), -EINVAL);
    EXPECT_EQ(receive(), -EAGAIN);
}

TEST_F(UdpEndpoint, OnlyAnOpenUdpEndpointIsRead) {
    EXPECT_EQ(dypd_recvfrom(nullptr, buffer, 1, 0, &peer, nullptr), -EINVAL);
    EXPECT_EQ(dypd_udp_recvfrom(&endpoint, buffer, 1, 0, nullptr, nullptr), -EINVAL);
    dypd_endpoint_header daemon{};
    (void)dypd_init_socket(&daemon, DYPD_ENDPOINT_DAEMON);
    daemon.fd = endpoint.fd;
    EXPECT_EQ(dypd_recvfrom(&daemon, buffer, 1, 0, &peer, nullptr), -EINVAL);
    dypd_release_socket(&endpoint);
    EXPECT_EQ(endpoint.fd, -1);
    EXPECT_EQ(dypd_recvfrom(&endpoint, buffer, 1, 0, &peer, nullptr), -EINVAL);
}

TEST_F(UdpEndpoint, SelectPollsWaitsMillisecondsAndReportsReadiness) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(select_readable(0), 0);
    EXPECT_LT(ms_since(start), 100);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(select_readable(1050), 0);
    EXPECT_GE(ms_since(start), 1040) << "1050 ms is 1 s and 50000 us, not 1 s";
    send_bytes(1);
    EXPECT_EQ(select_readable(1500), 1);
    EXPECT_TRUE(FD_ISSET(endpoint.fd, &readset));
    EXPECT_EQ(dypd_select(-1, nullptr, nullptr, 0, 0), -EINVAL);
}

// A signal that arrives during the wait ends it in the main loop's mode and
// is waited through otherwise.
TEST(Select, InterruptionEndsTheWaitOnlyWithoutRetry) {
    struct sigaction action {
    }, saved{};
    action.sa_handler = ignore_signal; // no SA_RESTART: select is interrupted
    ASSERT_EQ(sigaction(SIGALRM, &action, &saved), 0);
    itimerval timer{};
    timer.it_value.tv_usec = 20000;
    fd_set readset;
    FD_ZERO(&readset);

    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    EXPECT_EQ(dypd_select(0, &readset, nullptr, -1, 1), -EINTR);
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(dypd_select(0, &readset, nullptr, 200, 0), 0);
    EXPECT_GE(ms_since(start), 190);
    (void)sigaction(SIGALRM, &saved, nullptr);
}
