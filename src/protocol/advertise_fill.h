// The parts of an advertise reply that both advertise handlers (the
// generic one and the device server's) build the same way.
#pragma once

#include <cstdint>
#include <netinet/in.h>

// Reply offsets.
constexpr uint32_t DYP_ADV_KIND = 1;         // constant 0x02
constexpr uint32_t DYP_ADV_MARKER = 2;       // copied from the request
constexpr uint32_t DYP_ADV_PRODUCT = 36;     // char[16]
constexpr uint32_t DYP_ADV_MAC = 56;         // 6 bytes
constexpr uint32_t DYP_ADV_ONE = 64;         // u16 BE, constant 1
constexpr uint32_t DYP_ADV_IPV4 = 66;        // 4 bytes, network order
constexpr uint32_t DYP_ADV_VERSION = 72;     // char[10]
constexpr uint32_t DYP_ADV_STATUS = 82;      // u16 BE
constexpr uint32_t DYP_ADV_DESCRIPTION = 84; // char[32]
constexpr uint32_t DYP_ADV_HOST = 116;       // char[16]
constexpr uint32_t DYP_ADV_TEXT16 = 16;
constexpr uint32_t DYP_ADV_DESCRIPTION_SIZE = 32;

// Starts a reply to the advertise `request` that came in on interface
// `ifindex`: checks the marker bytes, names the interface, zeroes
// `capacity` bytes of the reply and writes the header, the product name,
// the MAC address, the constant 1 and the IPv4 address of the interface
// (hidden from a requester outside a link-local network). Returns 0;
// -EINVAL for a wrong marker or when the capacity cannot hold a reply;
// `unnamed` (a negative errno value) when the interface has no name; the
// negative errno value of a failed MAC or address query.
int dypd_advertise_fill_common(const uint8_t *request, uint8_t *reply, uint32_t capacity,
                               const sockaddr_in *sender, int32_t ifindex, int unnamed);

// Writes the configured host name, or the node name when none is set.
void dypd_advertise_fill_host_name(uint8_t *reply);
