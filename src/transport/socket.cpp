#include "transport/socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "lib/alloc.h"
#include "lib/fd.h"
#include "lib/nerrno.h"

namespace {

constexpr uint32_t HEADER_INITIALISED = 3;
// Room for the packet information and anything else the kernel attaches.
constexpr size_t CONTROL_BUFFER_SIZE = 512;

bool is_open_udp(const dypd_endpoint_header *endpoint) {
    return endpoint != nullptr && endpoint->type == DYPD_ENDPOINT_UDP && endpoint->fd >= 0;
}

// The value lives outside the frame: with no local address taken, the
// function needs no stack guard.
constexpr int OPTION_ON = 1;

int enable_option(int fd, int level, int option) {
    return nerrno(setsockopt(fd, level, option, &OPTION_ON, sizeof OPTION_ON));
}

// The interface index from the packet information of a peeked datagram,
// or -EINVAL when the datagram carries none that can be trusted.
int pktinfo_interface(msghdr *message) {
    if (message->msg_controllen < sizeof(in_pktinfo))
        return -EINVAL;
    for (cmsghdr *control = CMSG_FIRSTHDR(message); control != nullptr;
         control = CMSG_NXTHDR(message, control)) {
        if (control->cmsg_level != IPPROTO_IP || control->cmsg_type != IP_PKTINFO)
            continue;
        in_pktinfo info{};
        memcpy(&info, CMSG_DATA(control), sizeof info);
        return info.ipi_ifindex == -1 ? -EINVAL : info.ipi_ifindex;
    }
    return -EINVAL;
}

} // namespace

int dypd_init_socket(dypd_endpoint_header *endpoint, int32_t type) {
    endpoint->fd = -1;
    endpoint->type = type;
    endpoint->port_count = 0;
    endpoint->ports = nullptr;
    endpoint->bound_port = nullptr;
    endpoint->bind_count = 0;
    endpoint->bind_list = nullptr;
    endpoint->initialised = HEADER_INITIALISED;
    return 0;
}

int dypd_set_udp_port(dypd_endpoint_header *endpoint, uint16_t port) {
    if (endpoint == nullptr)
        return -EINVAL;
    if (endpoint->port_count > 0) {
        // A UDP socket is bound to exactly one port.
        if (endpoint->type == DYPD_ENDPOINT_UDP)
            return -EEXIST;
        uint16_t *end = endpoint->ports + endpoint->port_count;
        if (std::find(endpoint->ports, end, port) != end)
            return 0;
    }
    size_t count = static_cast<size_t>(endpoint->port_count) + 1;
    auto *ports = static_cast<uint16_t *>(dyp_realloc(endpoint->ports, count * sizeof(uint16_t)));
    if (ports == nullptr)
        return -ENOMEM;
    ports[count - 1] = port;
    endpoint->ports = ports;
    endpoint->port_count = static_cast<int32_t>(count);
    endpoint->bound_port = count == 1 ? ports : nullptr;
    return 0;
}

int dypd_open_socket(dypd_endpoint_header *endpoint) {
    if (endpoint == nullptr || endpoint->type != DYPD_ENDPOINT_UDP || endpoint->fd >= 0 ||
        endpoint->bound_port == nullptr)
        return -EINVAL;
    unique_fd socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket_fd.valid())
        return -EIO;
    if (!fd_selectable(socket_fd.get()))
        return -EMFILE;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = htons(*endpoint->bound_port);
    int result = nerrno(bind(socket_fd.get(), reinterpret_cast<sockaddr *>(&local), sizeof local));
    if (result == 0)
        result = enable_option(socket_fd.get(), SOL_SOCKET, SO_REUSEADDR);
    if (result == 0)
        result = enable_option(socket_fd.get(), SOL_SOCKET, SO_BROADCAST);
    if (result == 0)
        result = enable_option(socket_fd.get(), IPPROTO_IP, IP_PKTINFO);
    if (result < 0)
        return result;
    endpoint->fd = socket_fd.release();
    return 0;
}

void dypd_release_socket(dypd_endpoint_header *endpoint) {
    if (endpoint != nullptr)
        close_fd_slot(endpoint->fd);
}

void dypd_close_socket(dypd_endpoint_header *endpoint) {
    dypd_release_socket(endpoint);
}

int dypd_recvfrom(dypd_endpoint_header *endpoint, void *buffer, size_t length, int flags,
                  sockaddr_in *peer, int *interface_index) {
    if (!is_open_udp(endpoint))
        return -EINVAL;
    return dypd_udp_recvfrom(endpoint, buffer, length, flags, peer, interface_index);
}

int dypd_udp_recvfrom(dypd_endpoint_header *endpoint, void *buffer, size_t length, int flags,
                      sockaddr_in *peer, int *interface_index) {
    if (endpoint == nullptr || peer == nullptr)
        return -EINVAL;

    // First a peek, to learn the receiving interface before deciding where
    // the datagram goes.
    uint8_t scratch = 0;
    alignas(cmsghdr) uint8_t control[CONTROL_BUFFER_SIZE];
    iovec vector{&scratch, sizeof scratch};
    msghdr message{};
    message.msg_name = peer;
    message.msg_namelen = sizeof *peer;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    int result = nerrno(recvmsg(endpoint->fd, &message, flags | MSG_PEEK));
    if (result < 0)
        return result;

    int ifindex = pktinfo_interface(&message);
    int verdict = ifindex < 0 ? ifindex : dypd_bind_verdict(endpoint, ifindex);

    // Then the real read: a refused datagram is consumed into the scratch
    // byte so that it never blocks the socket.
    if (verdict == 0)
        vector = {buffer, length};
    message.msg_namelen = sizeof *peer;
    message.msg_control = nullptr;
    message.msg_controllen = 0;
    ssize_t received = recvmsg(endpoint->fd, &message, flags);
    if (received < 0)
        return neg_errno();
    if (verdict < 0)
        return verdict;
    if ((message.msg_flags & MSG_TRUNC) != 0)
        return -EMSGSIZE;
    if (interface_index != nullptr)
        *interface_index = ifindex;
    return static_cast<int>(received);
}

int dypd_sendto(dypd_endpoint_header *endpoint, const void *buffer, size_t length, int flags,
                const sockaddr_in *peer) {
    if (endpoint == nullptr || endpoint->type != DYPD_ENDPOINT_UDP || buffer == nullptr ||
        peer == nullptr)
        return -EINVAL;
    return nerrno(sendto(endpoint->fd, buffer, length, flags,
                         reinterpret_cast<const sockaddr *>(peer), sizeof *peer));
}

int dypd_select(int count, fd_set *readset, fd_set *writeset, int timeout_ms, int no_retry) {
    for (;;) {
        // select may change the time left, so it is rebuilt on every try.
        timeval limit{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
        int result = select(count, readset, writeset, nullptr, timeout_ms == -1 ? nullptr : &limit);
        if (result >= 0)
            return result;
        if (errno != EINTR || no_retry != 0)
            return neg_errno();
    }
}
