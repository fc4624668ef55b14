#include "transport/socket.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/time.h>

#include "lib/alloc.h"
#include "support/udp.h"

namespace {

// A UDP endpoint on an ephemeral loopback port and a client socket.
class UdpEndpoint : public ::testing::Test {
  protected:
    void SetUp() override {
        (void)dypd_init_socket(&endpoint, DYPD_ENDPOINT_UDP);
        ASSERT_EQ(dypd_set_udp_port(&endpoint, 0), 0);
        ASSERT_EQ(dypd_open_socket(&endpoint), 0);
        target = loopback_of(endpoint.fd);
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
    dypd_endpoint_header endpoint{};
    sockaddr_in target{}, peer{};
    unique_fd client = udp_socket();
    uint8_t buffer[600] = {};
};

} // namespace

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
    EXPECT_EQ(receive(), -EBADMSG);
    int off = 0;
    ASSERT_EQ(setsockopt(endpoint.fd, IPPROTO_IP, IP_PKTINFO, &off, sizeof off), 0);
    send_bytes(20);
    EXPECT_EQ(receive(), -EINVAL) << "no packet information";
    EXPECT_EQ(receive(), -EAGAIN);

    EXPECT_EQ(dypd_set_udp_port(&endpoint, 1), -EEXIST) << "a UDP endpoint has one port";
}

// 1050 ms is 1 s and 50000 us, not 1 s; a signal ends the wait with -EINTR
// only when the caller asked not to retry.
TEST_F(UdpEndpoint, SelectWaitsMillisecondsOrUntilADatagramAndRetriesAfterSignals) {
    fd_set readset;
    auto watch = [&] {
        FD_ZERO(&readset);
        FD_SET(endpoint.fd, &readset);
        return &readset;
    };
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(dypd_select(endpoint.fd + 1, watch(), nullptr, 1050, 0), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1040));
    struct sigaction wake {};
    wake.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &wake, nullptr), 0);
    const itimerval in_50ms{{0, 0}, {0, 50000}};
    for (int no_retry : {1, 0}) {
        ASSERT_EQ(setitimer(ITIMER_REAL, &in_50ms, nullptr), 0);
        EXPECT_EQ(dypd_select(endpoint.fd + 1, watch(), nullptr, 300, no_retry),
                  no_retry != 0 ? -EINTR : 0);
    }
    send_bytes(1);
    EXPECT_EQ(dypd_select(endpoint.fd + 1, watch(), nullptr, -1, 1), 1);
    EXPECT_TRUE(FD_ISSET(endpoint.fd, &readset));
}
