// The UDP side of the client: one socket per exchange, requests resent on
// silence, and only the box's own matching replies accepted.
//
// A reply is taken when it comes from the box's address and port and
// answers the request (its type bytes and, for windows, its offset); any
// other datagram is skipped and the wait goes on until its deadline. The
// exchanges throw dyp::timeout_error when the box stays silent after every
// attempt, dyp::malformed_reply for a matching reply they cannot trust and
// dyp::local_error for failures on this host.
#pragma once

#include <chrono>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "codec.h"
#include "lib/fd.h"

namespace dyp {

struct timeout_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// A local failure: socket, address, interface or name lookup.
struct local_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A UDP socket owned for the life of the object.
class udp_socket {
  public:
    udp_socket();
    udp_socket(const udp_socket &) = delete;
    udp_socket &operator=(const udp_socket &) = delete;
    int fd() const { return fd_.get(); }

    void send(const bytes &b, const sockaddr_in &to) const;
    // Like send(), but returns the errno value instead of throwing.
    int try_send(const bytes &b, const sockaddr_in &to) const;
    // Waits until the deadline for one datagram; false on timeout.
    bool receive(bytes &b, sockaddr_in &from, std::chrono::steady_clock::time_point deadline) const;

  private:
    unique_fd fd_;
};

struct endpoint {
    sockaddr_in addr{};
    std::string text() const;
    std::string address() const; // the IPv4 address alone
};

// "HOST" or "HOST:PORT" split into its parts; std::invalid_argument for an
// empty host, a bad port or an IPv6 literal (the protocol is IPv4 only).
struct host_port {
    std::string host;
    uint16_t port = 0;
};
host_port split_host_port(std::string_view text, uint16_t default_port);
// True when `host` is a dotted IPv4 address.
bool is_ipv4_literal(const std::string &host);

// "HOST" or "HOST:PORT", HOST a dotted IPv4 address or a name the system
// resolver knows (dyp::local_error when it does not).
endpoint parse_endpoint(std::string_view text, uint16_t default_port);
endpoint make_endpoint(in_addr address, uint16_t port);

struct transfer_options {
    int timeout_ms = 1000; // per packet; above the box's 500 ms START guard
    int retries = 3;       // resends of one packet before giving up
};

// Reads the whole result of a GET command (START, DATA windows, END).
bytes transfer_read(const endpoint &box, std::string_view name, const bytes &data,
                    const transfer_options &opt);
// Runs an EXEC command and returns the result carried by the START reply.
bytes transfer_exec(const endpoint &box, std::string_view name, const transfer_options &opt);

// Sends one SKA packet and waits for its echo, byte for byte; anything else
// is skipped. Throws timeout_error when no echo came after every attempt.
void keepalive_once(const endpoint &box, const std::vector<std::string> &names,
                    const transfer_options &opt);

// The local IPv4 address used to reach the box, and the MAC of its interface.
void local_identity(const endpoint &box, in_addr &ip, uint8_t mac[6]);

} // namespace dyp
