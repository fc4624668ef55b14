#include "transport/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <vector>

#include "lib/alloc.h"
#include "lib/fd.h"

namespace {

// A UDP endpoint on an ephemeral port, with its port number read back.
class UdpEndpoint : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(dypd_init_socket(&endpoint, DYPD_ENDPOINT_UDP), 0);
        ASSERT_EQ(dypd_set_udp_port(&endpoint, 0), 0);
        ASSERT_EQ(dypd_open_socket(&endpoint), 0);
        sockaddr_in local{};
        socklen_t length = sizeof local;
        ASSERT_EQ(getsockname(endpoint.fd, reinterpret_cast<sockaddr *>(&local), &length), 0);
        target.sin_family = AF_INET;
        target.sin_port = local.sin_port;
        target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        client.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_TRUE(client.valid());
    }
    void TearDown() override {
        dypd_release_socket(&endpoint);
        dyp_free(endpoint.ports);
        dyp_free(endpoint.bind_list);
        dyp_alloc_fail_after(0);
    }

    void send_bytes(size_t count, uint8_t fill = 0x5a) {
        std::vector<uint8_t> bytes(count, fill);
        ASSERT_EQ(sendto(client.get(), bytes.data(), bytes.size(), 0,
                         reinterpret_cast<const sockaddr *>(&target), sizeof target),
                  static_cast<ssize_t>(count));
    }

    int receive(uint8_t *buffer, size_t length, int *ifindex = nullptr) {
        return dypd_udp_recvfrom(&endpoint, buffer, length, MSG_DONTWAIT, &peer, ifindex);
    }

    dypd_endpoint_header endpoint{};
    sockaddr_in target{};
    sockaddr_in peer{};
    unique_fd client;
};

int option_value(int fd, int level, int option) {
    int value = 0;
    socklen_t length = sizeof value;
    if (getsockopt(fd, level, option, &value, &length) < 0)
        return -1;
    return value;
}

} // namespace

TEST(EndpointHeader, InitialisationClearsEverythingButTheType) {
    dypd_endpoint_header header;
    memset(&header, 0xa5, sizeof header);
    EXPECT_EQ(dypd_init_socket(&header, DYPD_ENDPOINT_DAEMON), 0);
    EXPECT_EQ(header.fd, -1);
    EXPECT_EQ(header.type, DYPD_ENDPOINT_DAEMON);
    EXPECT_EQ(header.port_count, 0);
    EXPECT_EQ(header.ports, nullptr);
    EXPECT_EQ(header.bound_port, nullptr);
    EXPECT_EQ(header.bind_count, 0);
    EXPECT_EQ(header.bind_list, nullptr);
    EXPECT_EQ(header.initialised, 3u);
}

TEST(EndpointPorts, UdpEndpointTakesExactlyOnePort) {
    dypd_endpoint_header header{};
    (void)dypd_init_socket(&header, DYPD_ENDPOINT_UDP);
    ASSERT_EQ(dypd_set_udp_port(&header, 19540), 0);
    ASSERT_NE(header.bound_port, nullptr);
    EXPECT_EQ(*header.bound_port, 19540);
    EXPECT_EQ(dypd_set_udp_port(&header, 19541), -EEXIST);
    EXPECT_EQ(dypd_set_udp_port(&header, 19540), -EEXIST);
    EXPECT_EQ(header.port_count, 1);
    dyp_free(header.ports);
}

TEST(EndpointPorts, OtherEndpointsCollectDistinctPortsWithoutABoundPort) {
    dypd_endpoint_header header{};
    (void)dypd_init_socket(&header, DYPD_ENDPOINT_DAEMON);
    ASSERT_EQ(dypd_set_udp_port(&header, 1), 0);
    EXPECT_NE(header.bound_port, nullptr);
    ASSERT_EQ(dypd_set_udp_port(&header, 2), 0);
    EXPECT_EQ(dypd_set_udp_port(&header, 1), 0);
    EXPECT_EQ(header.port_count, 2);
    EXPECT_EQ(header.bound_port, nullptr);
    EXPECT_EQ(header.ports[1], 2);
    dyp_free(header.ports);
}

TEST(EndpointPorts, RefusesNullAndReportsNoMemoryKeepingTheList) {
    EXPECT_EQ(dypd_set_udp_port(nullptr, 1), -EINVAL);
    dypd_endpoint_header header{};
    (void)dypd_init_socket(&header, DYPD_ENDPOINT_DAEMON);
    ASSERT_EQ(dypd_set_udp_port(&header, 1), 0);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_set_udp_port(&header, 2), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(header.port_count, 1);
    EXPECT_EQ(header.ports[0], 1);
    dyp_free(header.ports);
}

TEST(EndpointOpen, RefusesWhatCannotBeOpened) {
    EXPECT_EQ(dypd_open_socket(nullptr), -EINVAL);
    dypd_endpoint_header header{};
    (void)dypd_init_socket(&header, DYPD_ENDPOINT_UDP);
    EXPECT_EQ(dypd_open_socket(&header), -EINVAL) << "no port yet";
    (void)dypd_init_socket(&header, DYPD_ENDPOINT_DAEMON);
    ASSERT_EQ(dypd_set_udp_port(&header, 0), 0);
    EXPECT_EQ(dypd_open_socket(&header), -EINVAL) << "the daemon context is never opened";
    dyp_free(header.ports);
}

TEST_F(UdpEndpoint, OpensOnceWithBroadcastReuseAndPacketInformation) {
    EXPECT_EQ(dypd_open_socket(&endpoint), -EINVAL);
    EXPECT_EQ(option_value(endpoint.fd, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(option_value(endpoint.fd, SOL_SOCKET, SO_BROADCAST), 1);
    EXPECT_EQ(option_value(endpoint.fd, IPPROTO_IP, IP_PKTINFO), 1);
}

TEST_F(UdpEndpoint, PortAlreadyTakenIsReportedAndNothingStaysOpen) {
    dypd_endpoint_header second{};
    (void)dypd_init_socket(&second, DYPD_ENDPOINT_UDP);
    ASSERT_EQ(dypd_set_udp_port(&second, ntohs(target.sin_port)), 0);
    EXPECT_EQ(dypd_open_socket(&second), -EADDRINUSE);
    EXPECT_EQ(second.fd, -1);
    dyp_free(second.ports);
}

TEST_F(UdpEndpoint, ReleaseClosesOnceAndIgnoresNull) {
    dypd_release_socket(&endpoint);
    EXPECT_EQ(endpoint.fd, -1);
    dypd_release_socket(&endpoint);
    dypd_close_socket(&endpoint);
    dypd_release_socket(nullptr);
    EXPECT_EQ(endpoint.fd, -1);
}

TEST_F(UdpEndpoint, ReceivesDatagramWithSenderAndInterface) {
    send_bytes(100, 0x11);
    uint8_t buffer[510] = {};
    int ifindex = -7;
    ASSERT_EQ(dypd_recvfrom(&endpoint, buffer, sizeof buffer, 0, &peer, &ifindex), 100);
    EXPECT_EQ(buffer[99], 0x11);
    EXPECT_EQ(ifindex, static_cast<int>(if_nametoindex("lo")));
    sockaddr_in client_address{};
    socklen_t length = sizeof client_address;
    ASSERT_EQ(getsockname(client.get(), reinterpret_cast<sockaddr *>(&client_address), &length), 0);
    EXPECT_EQ(peer.sin_port, client_address.sin_port);
    EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(UdpEndpoint, EmptyAndFullSizeDatagramsFitExactly) {
    uint8_t buffer[510];
    send_bytes(0);
    EXPECT_EQ(receive(buffer, sizeof buffer), 0);
    send_bytes(510);
    EXPECT_EQ(receive(buffer, sizeof buffer), 510);
}

TEST_F(UdpEndpoint, OversizedDatagramIsReportedAndGone) {
    send_bytes(511);
    send_bytes(3);
    uint8_t buffer[510];
    EXPECT_EQ(receive(buffer, sizeof buffer), -EMSGSIZE);
    EXPECT_EQ(receive(buffer, sizeof buffer), 3) << "the next datagram follows";
    EXPECT_EQ(receive(buffer, sizeof buffer), -EAGAIN);
}

TEST_F(UdpEndpoint, RefusedDatagramIsConsumed) {
    ASSERT_EQ(dypd_set_bind_interface(&endpoint, "!lo"), 0);
    send_bytes(200);
    uint8_t buffer[510];
    int ifindex = -7;
    EXPECT_EQ(receive(buffer, sizeof buffer, &ifindex), -EBADMSG);
    EXPECT_EQ(ifindex, -7) << "a refused datagram names no interface";
    EXPECT_EQ(receive(buffer, sizeof buffer), -EAGAIN);
}

TEST_F(UdpEndpoint, DatagramWithoutPacketInformationIsConsumed) {
    int off = 0;
    ASSERT_EQ(setsockopt(endpoint.fd, IPPROTO_IP, IP_PKTINFO, &off, sizeof off), 0);
    send_bytes(20);
    uint8_t buffer[510];
    EXPECT_EQ(receive(buffer, sizeof buffer), -EINVAL);
    EXPECT_EQ(receive(buffer, sizeof buffer), -EAGAIN);
}

TEST_F(UdpEndpoint, EmptySocketReportsWouldBlock) {
    uint8_t buffer[16];
    EXPECT_EQ(receive(buffer, sizeof buffer), -EAGAIN);
}

TEST_F(UdpEndpoint, ReceiveRefusesMissingArguments) {
    uint8_t buffer[16];
    EXPECT_EQ(dypd_udp_recvfrom(nullptr, buffer, sizeof buffer, 0, &peer, nullptr), -EINVAL);
    EXPECT_EQ(dypd_udp_recvfrom(&endpoint, buffer, sizeof buffer, 0, nullptr, nullptr), -EINVAL);
    EXPECT_EQ(dypd_recvfrom(nullptr, buffer, sizeof buffer, 0, &peer, nullptr), -EINVAL);
    dypd_endpoint_header closed{};
    (void)dypd_init_socket(&closed, DYPD_ENDPOINT_UDP);
    EXPECT_EQ(dypd_recvfrom(&closed, buffer, sizeof buffer, 0, &peer, nullptr), -EINVAL);
    closed.fd = endpoint.fd;
    closed.type = DYPD_ENDPOINT_DAEMON;
    EXPECT_EQ(dypd_recvfrom(&closed, buffer, sizeof buffer, 0, &peer, nullptr), -EINVAL);
}

TEST_F(UdpEndpoint, SendsToPeerAndRefusesMissingArguments) {
    sockaddr_in client_address{};
    socklen_t length = sizeof client_address;
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(client.get(), reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
    ASSERT_EQ(getsockname(client.get(), reinterpret_cast<sockaddr *>(&client_address), &length), 0);

    const uint8_t reply[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(dypd_sendto(&endpoint, reply, sizeof reply, 0, &client_address), 8);
    uint8_t got[16] = {};
    EXPECT_EQ(recv(client.get(), got, sizeof got, 0), 8);
    EXPECT_EQ(got[7], 8);

    EXPECT_EQ(dypd_sendto(nullptr, reply, sizeof reply, 0, &client_address), -EINVAL);
    EXPECT_EQ(dypd_sendto(&endpoint, nullptr, sizeof reply, 0, &client_address), -EINVAL);
    EXPECT_EQ(dypd_sendto(&endpoint, reply, sizeof reply, 0, nullptr), -EINVAL);
    dypd_endpoint_header daemon_header{};
    (void)dypd_init_socket(&daemon_header, DYPD_ENDPOINT_DAEMON);
    EXPECT_EQ(dypd_sendto(&daemon_header, reply, sizeof reply, 0, &client_address), -EINVAL);
}

namespace {

void ignore_alarm(int) {}

// Arms a one-shot SIGALRM after `ms`, delivered to a handler installed
// without SA_RESTART so that it interrupts select.
class AlarmDuringSelect : public ::testing::Test {
  protected:
    void SetUp() override {
        struct sigaction action {};
        action.sa_handler = ignore_alarm;
        ASSERT_EQ(sigaction(SIGALRM, &action, &saved), 0);
    }
    void TearDown() override {
        itimerval off{};
        (void)setitimer(ITIMER_REAL, &off, nullptr);
        (void)sigaction(SIGALRM, &saved, nullptr);
    }
    void arm(int ms) {
        itimerval timer{};
        timer.it_value.tv_usec = ms * 1000;
        ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    }
    struct sigaction saved {};
};

using clock_type = std::chrono::steady_clock;

long elapsed_ms(clock_type::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - since).count());
}

} // namespace

TEST_F(UdpEndpoint, SelectReportsReadableEndpoint) {
    send_bytes(1);
    fd_set readset;
    FD_ZERO(&readset);
    FD_SET(endpoint.fd, &readset);
    EXPECT_EQ(dypd_select(endpoint.fd + 1, &readset, nullptr, 1500, 1), 1);
    EXPECT_TRUE(FD_ISSET(endpoint.fd, &readset));
}

TEST_F(UdpEndpoint, SelectWithZeroTimeoutPolls) {
    fd_set readset;
    FD_ZERO(&readset);
    FD_SET(endpoint.fd, &readset);
    auto start = clock_type::now();
    EXPECT_EQ(dypd_select(endpoint.fd + 1, &readset, nullptr, 0, 0), 0);
    EXPECT_LT(elapsed_ms(start), 100);
    EXPECT_FALSE(FD_ISSET(endpoint.fd, &readset));
}

TEST_F(UdpEndpoint, SelectTimeoutCarriesMilliseconds) {
    fd_set readset;
    FD_ZERO(&readset);
    FD_SET(endpoint.fd, &readset);
    auto start = clock_type::now();
    EXPECT_EQ(dypd_select(endpoint.fd + 1, &readset, nullptr, 1050, 0), 0);
    // 1050 ms is one second and 50000 microseconds, not one second flat.
    EXPECT_GE(elapsed_ms(start), 1040);
}

TEST(Select, RefusesABadDescriptorCount) {
    EXPECT_EQ(dypd_select(-1, nullptr, nullptr, 0, 0), -EINVAL);
}

TEST_F(AlarmDuringSelect, InterruptionEndsTheWaitWhenRetryIsOff) {
    arm(20);
    fd_set readset;
    FD_ZERO(&readset);
    EXPECT_EQ(dypd_select(0, &readset, nullptr, -1, 1), -EINTR);
}

TEST_F(AlarmDuringSelect, InterruptionIsRetriedUntilTheTimeout) {
    arm(20);
    fd_set readset;
    FD_ZERO(&readset);
    auto start = clock_type::now();
    EXPECT_EQ(dypd_select(0, &readset, nullptr, 200, 0), 0);
    EXPECT_GE(elapsed_ms(start), 190);
}
