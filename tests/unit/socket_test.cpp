#include "transport/socket.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>

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
    }
    void TearDown() override {
        dypd_release_socket(&endpoint);
        dyp_free(endpoint.ports);
        dyp_free(endpoint.bind_list);
    }
    void send_bytes(size_t count) {
        ASSERT_EQ(sendto(client.get(), buffer, count, 0,
                         reinterpret_cast<const sockaddr *>(&target), sizeof target),
                  static_cast<ssize_t>(count));
    }
    int receive(int *ifindex = nullptr) {
        return dypd_recvfrom(&endpoint, buffer, 510, MSG_DONTWAIT, &peer, ifindex);
    }
    // Milliseconds that dypd_select waited; `result` gets what it returned.
    long timed_select(int timeout_ms, int no_retry, int *result) {
        FD_ZERO(&readset);
        FD_SET(endpoint.fd, &readset);
        auto start = std::chrono::steady_clock::now();
        *result = dypd_select(endpoint.fd + 1, &readset, nullptr, timeout_ms, no_retry);
        auto elapsed = std::chrono::steady_clock::now() - start;
        return std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
    }

    dypd_endpoint_header endpoint{};
    sockaddr_in target{}, peer{};
    unique_fd client{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    uint8_t buffer[600] = {};
    fd_set readset;
};

} // namespace

TEST(EndpointPorts, UdpEndpointTakesOnePortOthersCollectDistinctOnes) {
    dypd_endpoint_header udp{}, daemon{};
    (void)dypd_init_socket(&udp, DYPD_ENDPOINT_UDP);
    (void)dypd_init_socket(&daemon, DYPD_ENDPOINT_DAEMON);
    EXPECT_EQ(dypd_open_socket(&udp), -EINVAL) << "no port yet";
    ASSERT_EQ(dypd_set_udp_port(&udp, 19540), 0);
    EXPECT_EQ(udp.bound_port, udp.ports);
    EXPECT_EQ(dypd_set_udp_port(&udp, 19541), -EEXIST);
    for (uint16_t port : {1, 2, 1})
        ASSERT_EQ(dypd_set_udp_port(&daemon, port), 0);
    EXPECT_EQ(daemon.port_count, 2);
    EXPECT_EQ(daemon.bound_port, nullptr) << "no single port any more";
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_set_udp_port(&daemon, 3), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(daemon.port_count, 2);
    EXPECT_EQ(dypd_open_socket(&daemon), -EINVAL) << "only a UDP endpoint opens";
    dyp_free(udp.ports);
    dyp_free(daemon.ports);
}

// Oversized and refused datagrams are consumed, so the next read finds the next one.
TEST_F(UdpEndpoint, ReceivesWithSenderAndInterfaceAndConsumesWhatItRefuses) {
    send_bytes(511);
    send_bytes(510);
    EXPECT_EQ(receive(), -EMSGSIZE);
    int ifindex = -7;
    ASSERT_EQ(receive(&ifindex), 510);
    EXPECT_EQ(ifindex, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(dypd_sendto(&endpoint, buffer, 3, 0, &peer), 3);
    EXPECT_EQ(recv(client.get(), buffer, sizeof buffer, 0), 3) << "the sender got the answer";

    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "!lo"), 0);
    send_bytes(200);
    ifindex = -7;
    EXPECT_EQ(receive(&ifindex), -EBADMSG);
    EXPECT_EQ(ifindex, -7) << "no interface is named for a refused datagram";
    int off = 0;
    ASSERT_EQ(setsockopt(endpoint.fd, IPPROTO_IP, IP_PKTINFO, &off, sizeof off), 0);
    send_bytes(20);
    EXPECT_EQ(receive(), -EINVAL) << "no packet information";
    EXPECT_EQ(receive(), -EAGAIN);

    EXPECT_EQ(dypd_open_socket(&endpoint), -EINVAL) << "opened once";
    dypd_release_socket(&endpoint);
    EXPECT_EQ(endpoint.fd, -1);
    EXPECT_EQ(receive(), -EINVAL) << "only an open endpoint is read";
}

// A signal during the wait ends it only in the main loop's mode (no retry).
TEST_F(UdpEndpoint, SelectWaitsMillisecondsAndRetriesAfterASignalOnRequest) {
    int result = -1;
    EXPECT_GE(timed_select(1050, 0, &result), 1040) << "1050 ms is 1 s and 50000 us, not 1 s";
    EXPECT_EQ(result, 0);
    send_bytes(1);
    (void)timed_select(1500, 0, &result);
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(FD_ISSET(endpoint.fd, &readset));
    ASSERT_EQ(receive(), 1);

    struct sigaction action {
    }, saved{};
    action.sa_handler = +[](int) {}; // no SA_RESTART: select is interrupted
    ASSERT_EQ(sigaction(SIGALRM, &action, &saved), 0);
    const itimerval timer{{0, 0}, {0, 20000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    (void)timed_select(-1, 1, &result);
    EXPECT_EQ(result, -EINTR);
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    EXPECT_GE(timed_select(200, 0, &result), 190);
    EXPECT_EQ(result, 0);
    (void)sigaction(SIGALRM, &saved, nullptr);
}
