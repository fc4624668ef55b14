#include "lib/net.h"

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "lib/fd.h"
#include "lib/nerrno.h"
#include "lib/text.h"
#include "lib/tqstdio.h"

namespace {
constexpr size_t mac_length = 6;
constexpr size_t mac_text_length = 17;
constexpr size_t ipv4_length = 4;
constexpr unsigned route_flag_gateway = 0x2;

// A temporary IPv4 datagram socket for interface requests.
unique_fd open_query_socket() {
    return unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

// Fills the request's name with at most IFNAMSIZ - 1 characters.
void set_request_name(ifreq &request, const char *ifname) {
    copy_text(request.ifr_name, ifname);
}

// Issues `command` about `ifname` on a temporary socket; for the address
// requests `request` carries an AF_INET address.
int query_interface(const char *ifname, unsigned long command, ifreq &request) {
    if (ifname == nullptr || ifname[0] == '\0')
        return -EINVAL;
    unique_fd query = open_query_socket();
    if (!query.valid())
        return neg_errno();
    set_request_name(request, ifname);
    int result = nerrno(ioctl(query.get(), command, &request));
    return result < 0 ? result : 0;
}

// Asks `command` about `ifname` and copies `length` bytes of the answer's
// address, from `offset` on, into `out`. The address requests carry an
// AF_INET family; the reply is copied out here, so that the callers keep no
// request of their own.
int query_address_bytes(const char *ifname, unsigned long command, size_t offset, uint8_t *out,
                        size_t length) {
    ifreq request{};
    request.ifr_addr.sa_family = AF_INET;
    int result = query_interface(ifname, command, request);
    if (result < 0)
        return result;
    std::memcpy(out, reinterpret_cast<const uint8_t *>(&request.ifr_addr) + offset, length);
    return 0;
}

// Asks for an AF_INET address of `ifname` and copies it into `out`.
int query_ipv4(const char *ifname, unsigned long command, uint8_t *out) {
    if (out == nullptr)
        return -EINVAL;
    return query_address_bytes(ifname, command, offsetof(sockaddr_in, sin_addr), out,
                               ipv4_length);
}

bool is_hex_pair(const char *text) {
    return std::isxdigit(static_cast<unsigned char>(text[0])) &&
           std::isxdigit(static_cast<unsigned char>(text[1]));
}
} // namespace

int tq_net_get_hwaddr(const char *ifname, uint8_t *out, size_t out_size) {
    if (out == nullptr || out_size < mac_length || out_size > 8)
        return -EINVAL;
    // The hardware address overlays the same socket address.
    return query_address_bytes(ifname, SIOCGIFHWADDR, offsetof(sockaddr, sa_data), out,
                               mac_length);
}

int tq_net_get_ip4addr(const char *ifname, uint8_t *out) {
    return query_ipv4(ifname, SIOCGIFADDR, out);
}

int tq_net_get_netmask(const char *ifname, uint8_t *out) {
    return query_ipv4(ifname, SIOCGIFNETMASK, out);
}

int tq_net_set_ip4addr(const char *ifname, const uint8_t *address) {
    if (address == nullptr)
        return -EINVAL;
    sockaddr_in value{};
    value.sin_family = AF_INET;
    std::memcpy(&value.sin_addr.s_addr, address, ipv4_length);
    ifreq request{};
    std::memcpy(&request.ifr_addr, &value, sizeof value);
    return query_interface(ifname, SIOCSIFADDR, request);
}

int tq_net_chk_ifup(const char *ifname) {
    if (ifname == nullptr)
        return -1;
    unique_fd query = open_query_socket();
    if (!query.valid())
        return -1;
    ifreq request{};
    set_request_name(request, ifname);
    if (ioctl(query.get(), SIOCGIFFLAGS, &request) != 0)
        return 0;
    return (request.ifr_flags & IFF_UP) != 0 ? 1 : 0;
}

int tq_net_get_defaultgw(const char *ifname, uint32_t *out) {
    if (out == nullptr)
        return 0;
    if (ifname == nullptr)
        return -EINVAL;
    tq_stream routes(fopen("/proc/net/route", "re"));
    if (routes.get() == nullptr)
        return -1;
    *out = 0;
    char line[128];
    while (fgets(line, sizeof line, routes.get()) != nullptr) {
        // The name buffer is as long as the line, so %s cannot overrun it.
        char name[sizeof line];
        unsigned destination, gateway, flags, mask;
        int refcount, use, metric, mtu, window, irtt;
        int fields = sscanf(line, "%s %x %x %x %d %d %d %x %d %d %d", name, &destination, &gateway,
                            &flags, &refcount, &use, &metric, &mask, &mtu, &window, &irtt);
        // Only complete lines count; the header line converts one field.
        if (fields != 11)
            continue;
        if (std::strcmp(name, ifname) == 0 && destination == 0 &&
            (flags & route_flag_gateway) != 0) {
            *out = gateway;
            break;
        }
    }
    return 0;
}

int tq_net_join_mcgrop_in(int socket, const char *ifname, uint32_t group) {
    uint8_t interface_address[ipv4_length];
    if (tq_net_get_ip4addr(ifname, interface_address) < 0)
        return -1;
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = group;
    std::memcpy(&membership.imr_interface.s_addr, interface_address, ipv4_length);
    static_assert(sizeof membership == 8);
    return setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0
               ? 0
               : -1;
}

int tq_net_ismacaddr(const char *text, char separator) {
    if (text == nullptr || strnlen(text, mac_text_length + 1) != mac_text_length)
        return 0;
    for (size_t group = 0; group < mac_length; ++group) {
        const char *at = text + group * 3;
        if (!is_hex_pair(at))
            return 0;
        if (group + 1 < mac_length && at[2] != separator)
            return 0;
    }
    return 1;
}

int tq_net_mac2str_ex(const uint8_t *mac, char separator, char *out) {
    if (mac == nullptr || out == nullptr)
        return -EINVAL;
    (void)snprintf(out, mac_text_length + 1, "%02x%c%02x%c%02x%c%02x%c%02x%c%02x", mac[0],
                   separator, mac[1], separator, mac[2], separator, mac[3], separator, mac[4],
                   separator, mac[5]);
    return 0;
}

int tq_net_mac2str(const uint8_t *mac, char *out) {
    return tq_net_mac2str_ex(mac, ':', out);
}

int tq_net_str2mac_ex(const char *text, char, uint8_t *out) {
    if (text == nullptr || out == nullptr)
        return -EINVAL;
    size_t length = strnlen(text, mac_text_length);
    unsigned value = 0;
    for (size_t group = 0; group < mac_length; ++group) {
        size_t at = group * 3;
        // A group past the end of the text converts nothing.
        if (at < length)
            (void)sscanf(text + at, "%02x", &value);
        out[group] = static_cast<uint8_t>(value);
    }
    return 0;
}

int tq_net_str2mac(const char *text, uint8_t *out) {
    return tq_net_str2mac_ex(text, ':', out);
}
