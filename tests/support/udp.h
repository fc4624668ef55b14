// UDP sockets, addresses and datagrams for the tests.
#pragma once

#include <arpa/inet.h>
#include <optional>
#include <poll.h>
#include <vector>

#include "lib/fd.h"

inline sockaddr_in ipv4(const char *address, uint16_t port = 0) {
    sockaddr_in a{AF_INET, htons(port), {}, {}};
    (void)inet_pton(AF_INET, address, &a.sin_addr);
    return a;
}

// A UDP socket bound to `address` (nullptr: bound by its first send); invalid if bind fails.
inline unique_fd udp_socket(const char *address = nullptr, uint16_t port = 0) {
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in a = ipv4(address ? address : "0.0.0.0", port);
    if (address && bind(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
        return unique_fd();
    return fd;
}

// The next datagram for `fd` within `timeout_ms` (0: one already there), and its sender.
inline std::optional<std::vector<uint8_t>> next_datagram(int fd, int timeout_ms = 0,
                                                         sockaddr_in *from = nullptr) {
    pollfd ready{fd, POLLIN, 0};
    std::vector<uint8_t> d(65536);
    socklen_t size = sizeof(sockaddr_in);
    ssize_t n = poll(&ready, 1, timeout_ms) != 1
                    ? -1
                    : recvfrom(fd, d.data(), d.size(), MSG_DONTWAIT,
                               reinterpret_cast<sockaddr *>(from), from ? &size : nullptr);
    if (n < 0)
        return std::nullopt;
    d.resize(static_cast<size_t>(n));
    return d;
}

// Where the socket `fd`, bound to a port of the kernel's choice, is reached on loopback.
inline sockaddr_in loopback_of(int fd) {
    sockaddr_in a{};
    socklen_t size = sizeof a;
    (void)getsockname(fd, reinterpret_cast<sockaddr *>(&a), &size);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}
