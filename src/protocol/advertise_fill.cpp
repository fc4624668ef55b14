#include "protocol/advertise_fill.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <net/if.h>
#include <unistd.h>

#include "lib/be.h"
#include "lib/net.h"
#include "lib/text.h"
#include "protocol/identity.h"
#include "protocol/packet.h"
#include "transport/socket.h"

namespace {
constexpr uint8_t ADVERTISE_KIND = 0x02;
constexpr uint32_t MAC_SIZE = 6;
constexpr uint32_t IPV4_SIZE = 4;
constexpr uint8_t LINK_LOCAL_FIRST = 169;
constexpr uint8_t LINK_LOCAL_SECOND = 254;

// A 16-byte text field of the reply, cut to 15 characters and NUL-filled.
void put_text16(uint8_t *field, const char *text) {
    copy_text(reinterpret_cast<char *>(field), DYP_ADV_TEXT16, text);
}

// A link-local address is reachable only from the same link-local network:
// a requester outside it is told 0.0.0.0 instead.
void hide_foreign_link_local(uint8_t *address, const sockaddr_in *sender, const char *ifname) {
    if (address[0] != LINK_LOCAL_FIRST || address[1] != LINK_LOCAL_SECOND)
        return;
    uint8_t mask[IPV4_SIZE];
    // Without a netmask there is nothing to compare with; the address is
    // kept, since the request did reach this interface.
    if (tq_net_get_netmask(ifname, mask) < 0)
        return;
    const auto *requester = reinterpret_cast<const uint8_t *>(&sender->sin_addr.s_addr);
    for (uint32_t i = 0; i < IPV4_SIZE; ++i) {
        if (((address[i] ^ requester[i]) & mask[i]) != 0) {
            memset(address, 0, IPV4_SIZE);
            return;
        }
    }
}
} // namespace

int dypd_advertise_fill_common(const uint8_t *request, uint8_t *reply, uint32_t capacity,
                               const sockaddr_in *sender, int32_t ifindex, int unnamed) {
    if (request[DYP_REQ_MARKER] != DYP_ADVERTISE_MARKER0 ||
        request[DYP_REQ_MARKER + 1] != DYP_ADVERTISE_MARKER1)
        return -EINVAL;
    char ifname[IF_NAMESIZE];
    if (dypd_get_ifname(ifindex, ifname, sizeof ifname) < 0)
        return unnamed;
    if (capacity < DYP_ADVERTISE_REPLY_SIZE || sender == nullptr)
        return -EINVAL;
    memset(reply, 0, capacity);
    reply[DYP_ADV_KIND] = ADVERTISE_KIND;
    memcpy(reply + DYP_ADV_MARKER, request + DYP_REQ_MARKER, 2);
    put_text16(reply + DYP_ADV_PRODUCT, dypd_get_product_name());

    int err = tq_net_get_hwaddr(ifname, reply + DYP_ADV_MAC, MAC_SIZE);
    if (err < 0)
        return err;
    put_be16(reply + DYP_ADV_ONE, 1);
    err = tq_net_get_ip4addr(ifname, reply + DYP_ADV_IPV4);
    if (err == -EADDRNOTAVAIL) {
        // An interface without an address is still described, as 0.0.0.0.
        memset(reply + DYP_ADV_IPV4, 0, IPV4_SIZE);
        return 0;
    }
    if (err < 0)
        return err;
    hide_foreign_link_local(reply + DYP_ADV_IPV4, sender, ifname);
    return 0;
}

void dypd_advertise_fill_host_name(uint8_t *reply) {
    const char *configured = dypd_get_host_name();
    if (configured[0] != '\0') {
        put_text16(reply + DYP_ADV_HOST, configured);
        return;
    }
    // The node name, as uname reports it; gethostname is the call that
    // start-up already makes, and its buffer is a sixth of a utsname.
    char node_name[HOST_NAME_MAX + 1];
    if (gethostname(node_name, sizeof node_name) == 0)
        put_text16(reply + DYP_ADV_HOST, node_name);
}
