// Finding boxes: an advertise request broadcast on the LAN and every box's
// answer collected until the wait ends.
#pragma once

#include <string>
#include <vector>

#include "codec.h"

namespace dyp {

// A box answers within 150 ms (its random advertise delay) plus the
// network's delay; half a second leaves room for a loaded LAN and a slow
// box without making every run wait the old two seconds.
constexpr int DISCOVER_TIMEOUT_MS = 500;

struct discover_options {
    // Bind to this interface and use its broadcast address.
    std::string interface;
    // Send to this address only. With neither, the request goes to the
    // broadcast address of every up IPv4 interface that has one, and to
    // 255.255.255.255 where the routing table lets it out.
    std::string broadcast;
    uint16_t port = DEFAULT_PORT;
    int timeout_ms = DISCOVER_TIMEOUT_MS;
};

// Every distinct box that answered within the timeout, in order of arrival.
// Replies that cannot be decoded are described in `problems` and skipped.
// dyp::local_error when the request could not be sent anywhere.
std::vector<box_info> discover(const discover_options &opt, std::vector<std::string> &problems);

} // namespace dyp
