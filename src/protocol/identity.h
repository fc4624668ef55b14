// What a box tells about itself: product name, host name and status word.
// These three fields lie together in the runtime settings, in this order;
// the endpoints' settings pointer points at them.
#pragma once

#include <cstdint>

// The protocol version a box reports (in the -v and start-up lines and in
// the device server's discovery reply), held once in the binary.
inline constexpr char DYPD_PROTOCOL_VERSION[] = "Ver 2.2.0";

struct dypd_identity {
    char product_name[16]; // NUL-terminated within the 16
    char host_name[16];    // NUL-terminated within the 16
    uint16_t status;       // zero at start; nothing in the core changes it
};

// Read through the daemon context's settings pointer (set by start-up).
const char *dypd_get_product_name();
const char *dypd_get_host_name();
uint16_t dypd_get_status();
