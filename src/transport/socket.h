// UDP endpoints: the header shared by the daemon context and every port,
// socket set-up, reception with the receiving interface, sending, select.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <sys/select.h>

struct dypd_identity;

constexpr int32_t DYPD_ENDPOINT_UDP = 1;
constexpr int32_t DYPD_ENDPOINT_DAEMON = 3;

// One entry of an endpoint's bind interface list.
struct dypd_bind_entry {
    char name[16];     // at most 15 characters, NUL-terminated
    int32_t ifindex;   // -1 unresolved, -2 wildcard ('*')
    int32_t include;   // 1 plain name, 0 written with a leading '!'
    int32_t reject;    // refuses matching datagrams; nothing sets it
};

constexpr int32_t DYPD_IFINDEX_UNRESOLVED = -1;
constexpr int32_t DYPD_IFINDEX_WILDCARD = -2;

// The header that the daemon context and every UDP endpoint begin with.
struct dypd_endpoint_header {
    int32_t fd;                    // -1 when no socket is open
    int32_t type;                  // DYPD_ENDPOINT_UDP or DYPD_ENDPOINT_DAEMON
    int32_t port_count;
    uint16_t *ports;               // heap array, host order
    uint16_t *bound_port;          // the single port, when exactly one
    int32_t bind_count;
    dypd_bind_entry *bind_list;    // heap array
    uint32_t initialised;          // 3 once initialised; read by nothing
    uint32_t last_activity;        // ms of the last response sent; 0 at creation
    dypd_identity *settings;       // the box identity (primary endpoint only)
};

int dypd_init_socket(dypd_endpoint_header *endpoint, int32_t type);
int dypd_set_udp_port(dypd_endpoint_header *endpoint, uint16_t port);
// -EMFILE when the new socket's descriptor is one select cannot watch.
int dypd_open_socket(dypd_endpoint_header *endpoint);
void dypd_release_socket(dypd_endpoint_header *endpoint);
void dypd_close_socket(dypd_endpoint_header *endpoint);

// Receives one datagram into `buffer`; refused or oversized datagrams are
// consumed. `peer` is required, `interface_index` optional.
int dypd_recvfrom(dypd_endpoint_header *endpoint, void *buffer, size_t length, int flags,
                  sockaddr_in *peer, int *interface_index);
int dypd_udp_recvfrom(dypd_endpoint_header *endpoint, void *buffer, size_t length, int flags,
                      sockaddr_in *peer, int *interface_index);
int dypd_sendto(dypd_endpoint_header *endpoint, const void *buffer, size_t length, int flags,
                const sockaddr_in *peer);

// timeout_ms -1 waits without limit; no_retry returns -EINTR on a signal.
int dypd_select(int count, fd_set *readset, fd_set *writeset, int timeout_ms, int no_retry);

// Interface binding (bind.cpp).
int dypd_set_bind_interface(dypd_endpoint_header *endpoint, const char *text);
int dypd_refresh_interface_index(dypd_endpoint_header *endpoint);
int dypd_check_link_local_address(dypd_endpoint_header *endpoint);
int dypd_get_ifname(int index, char *buffer, size_t length);
// 0 to accept a datagram received on `ifindex`, -EBADMSG to refuse it.
int dypd_bind_verdict(const dypd_endpoint_header *endpoint, int ifindex);
