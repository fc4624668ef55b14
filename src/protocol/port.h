// One DYP endpoint: a UDP socket with its buffers, transfer session and
// optional advertise handler.
#pragma once

#include <cstdint>
#include <netinet/in.h>

#include "protocol/session.h"
#include "transport/socket.h"

// (request, reply buffer, capacity, sender, receiving interface index) ->
// reply size, 0 (an empty datagram is sent) or a negative errno value.
using dypd_advertise_handler = int32_t (*)(const uint8_t *request, uint8_t *reply,
                                           uint32_t capacity, const sockaddr_in *sender,
                                           int32_t ifindex);

struct dypd_udp_port {
    dypd_endpoint_header header;
    uint8_t *recv_buffer; // DYP_REQUEST_MAX bytes
    uint32_t recv_filled; // bytes of recv_buffer the last datagram may have filled
    uint8_t *send_buffer; // DYP_RESPONSE_MAX bytes
    dypd_session session;
    dypd_advertise_handler advertise;
};

// -EINVAL for a null endpoint or handler or when one is already set.
int dypd_register_advertise_handler(dypd_udp_port *endpoint, dypd_advertise_handler handler);
