#include "protocol/advertise.h"

#include <cerrno>

#include "protocol/advertise_fill.h"
#include "protocol/packet.h"

int dypd_register_advertise_handler(dypd_udp_port *endpoint, dypd_advertise_handler handler) {
    // An endpoint answers discovery one way for its whole life: a second
    // handler is refused rather than replacing the first.
    if (endpoint == nullptr || handler == nullptr || endpoint->advertise != nullptr)
        return -EINVAL;
    endpoint->advertise = handler;
    return 0;
}

int32_t dypd_process_advertise(const uint8_t *request, uint8_t *reply, uint32_t capacity,
                               const sockaddr_in *sender, int32_t ifindex) {
    int err = dypd_advertise_fill_common(request, reply, capacity, sender, ifindex, -EINVAL);
    if (err < 0)
        return err;
    // The generic reply carries no version, status or device description:
    // those bytes stay as zeroed above.
    dypd_advertise_fill_host_name(reply);
    return static_cast<int32_t>(DYP_ADVERTISE_REPLY_SIZE);
}
