#include "daemon/endpoints.h"

#include <cerrno>
#include <cstring>

#include "daemon/seed.h"
#include "lib/alloc.h"
#include "lib/log.h"
#include "protocol/advertise.h"
#include "protocol/packet.h"

namespace {

int open_endpoint(dypd_udp_port *endpoint, int32_t port) {
    dypd_seed_random();
    (void)dypd_init_socket(&endpoint->header, DYPD_ENDPOINT_UDP);
    // The socket is bound to the low 16 bits of the configured number.
    int result = dypd_set_udp_port(&endpoint->header, static_cast<uint16_t>(port));
    if (result < 0)
        return result;
    return dypd_open_socket(&endpoint->header);
}

int prepare_buffers(dypd_udp_port *endpoint) {
    // Zeroed, so that only datagrams ever leave bytes in it (see recv_filled).
    endpoint->recv_buffer = static_cast<uint8_t *>(dyp_calloc(1, DYP_REQUEST_MAX));
    endpoint->send_buffer = static_cast<uint8_t *>(dyp_malloc(DYP_RESPONSE_MAX));
    if (endpoint->recv_buffer == nullptr || endpoint->send_buffer == nullptr)
        return -ENOMEM;
    return dypd_session_init(&endpoint->session);
}

// One endpoint for `port` in `*slot`; on a failure after the socket was
// opened the endpoint is taken down again and the slot cleared.
int build_endpoint(dypd_udp_port **slot, int32_t port, dypd_settings *settings) {
    auto *endpoint = static_cast<dypd_udp_port *>(dyp_calloc(1, sizeof(dypd_udp_port)));
    if (endpoint == nullptr)
        return -ENOMEM;
    *slot = endpoint;
    int result = open_endpoint(endpoint, port);
    if (result == -EMFILE)
        dyp_log(LOG_ERR, "cannot watch the socket of port %d: select takes descriptors below %d",
                port, FD_SETSIZE);
    if (result < 0)
        return result;
    result = prepare_buffers(endpoint);
    if (result < 0) {
        dypd_core_cleanup(endpoint);
        *slot = nullptr;
        return result;
    }
    settings->last_session = &endpoint->session;

    // The primary port is compared as the whole configured number.
    if (port == settings->primary_port) {
        settings->primary = endpoint;
    } else if (settings->port_count >= 2) {
        result = dypd_register_advertise_handler(endpoint, dypd_process_advertise);
        if (result < 0)
            return result;
    }
    // Without its bind list the endpoint would answer on every interface,
    // also those the operator excluded: running out of memory here ends
    // start-up. The only other failure is a null argument, which cannot
    // happen here. Link-local addressing is not managed here.
    result = dypd_set_bind_interface(&endpoint->header, settings->bind_interfaces);
    if (result < 0)
        return result;
    (void)dypd_check_link_local_address(&endpoint->header);
    return 0;
}

} // namespace

int dypd_build_endpoints(dyp_daemon_context *daemon, dypd_settings *settings) {
    memset(daemon, 0, sizeof *daemon);
    dypd_seed_random();
    daemon->header.settings = &settings->identity;
    daemon->spare_fd = -1;
    (void)dypd_init_socket(&daemon->header, DYPD_ENDPOINT_DAEMON);
    if (settings->port_count <= 0)
        return -EINVAL;
    daemon->endpoint_count = settings->port_count;
    daemon->endpoints = static_cast<dypd_udp_port **>(
        dyp_calloc(static_cast<size_t>(settings->port_count), sizeof(dypd_udp_port *)));
    if (daemon->endpoints == nullptr)
        return -ENOMEM;
    for (int32_t i = 0; i < settings->port_count; ++i) {
        int result = build_endpoint(&daemon->endpoints[i], settings->ports[i], settings);
        if (result < 0)
            return result;
    }
    if (settings->primary == nullptr)
        settings->primary = daemon->endpoints[0];
    return 0;
}
