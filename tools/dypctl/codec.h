// Encoders and decoders of every DYP and SKA packet and command payload.
//
// Every decoder checks each field's bounds before reading it and throws
// dyp::malformed_reply for bytes it cannot trust. Texts are returned as the
// box sent them: bytes, not necessarily UTF-8.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace dyp {

using bytes = std::vector<uint8_t>;

constexpr uint16_t DEFAULT_PORT = 19540;

struct malformed_reply : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- DYP requests and responses ------------------------------------------

struct request {
    uint16_t type = 0;
    std::string name; // command name and its ':' parameters, at most 79 bytes
    uint16_t offset = 0;
    uint16_t length = 0;
    bytes data; // at most 422 bytes
};

struct response {
    uint8_t type[2] = {0, 0}; // the request's type bytes, echoed
    uint16_t status = 0;
    uint16_t offset = 0;
    uint16_t length = 0;
    bytes data;
};

request make_request(uint16_t type, std::string_view name = "", uint16_t offset = 0,
                     uint16_t length = 0, const bytes &data = {});
// Builds a request datagram; std::invalid_argument when the name or the data
// does not fit.
bytes encode_request(const request &req);
// Decodes a response datagram: at least the 8-byte header, at most 520 bytes.
// The data is whatever follows the header; the caller compares it with
// `length`, whose meaning depends on the command.
response decode_response(const uint8_t *p, size_t n);

// ---- Discovery --------------------------------------------------------------

bytes encode_advertise_request();

struct box_info {
    std::string address; // sender of the reply
    uint16_t port = 0;
    std::string product;
    std::string mac; // "aa:bb:cc:dd:ee:ff"
    std::string ip;  // the address the box reports for the receiving link
    std::string version;
    uint16_t status = 0;
    std::string description;
    std::string host_name;
};

// Decodes a 164-byte advertise reply (address and port are left empty).
box_info decode_advertise_reply(const uint8_t *p, size_t n);

// Names of the bits set in a status word, e.g. "present", "flagged".
std::vector<std::string> status_bits(uint16_t status);

// ---- Command payloads ---------------------------------------------------------

struct usb_device {
    std::string name;
    std::string description;
    std::string holder; // IPv4 of the host that holds it, "0.0.0.0" when free
    uint16_t status = 0;
    uint16_t vendor_id = 0;
    uint16_t product_id = 0;
    std::string location; // text up to the first NUL of the 16 bytes
    uint8_t aux1 = 0;
    uint8_t aux2 = 0;
    std::string serial; // extended list only
};

struct device_list {
    unsigned count = 0; // the box's count byte; may exceed entries.size()
    std::vector<usb_device> entries;
};

device_list decode_device_list(const bytes &result, bool extended);

struct scanner_status {
    uint16_t status = 0;
    std::string holder;     // IPv4 of the host holding it
    std::string holder_mac; // that host's MAC
    std::string box_mac;    // the box's MAC on the link the request came in
    std::string description;
};

scanner_status decode_scanner_status(const bytes &result);

std::vector<std::string> decode_port_names(const bytes &result);

// The request data of "GET USB_PORT_NAME": vendor, product, 16-byte location.
bytes encode_usb_port_query(uint16_t vendor_id, uint16_t product_id, std::string_view location);
// The interface name, or "" when the box knows no such device.
std::string decode_usb_port_name(const bytes &result);

struct connect_params {
    uint8_t mac[6] = {0, 0, 0, 0, 0, 0};
    in_addr ip{};
    std::string ifname;
    uint16_t port = 0; // 0 lets the box use 19540
    uint8_t options = 0;
};

// The name field of a connect or disconnect START: command, ':', parameter block.
std::string encode_connect_name(std::string_view command, const connect_params &params);
// True for "OK", false for "NG"; anything else is malformed.
bool decode_ok_ng(const bytes &result);

// ---- SKA keep-alive ---------------------------------------------------------------

bytes encode_ska(const std::vector<std::string> &names);

// Hex dump in the "0000  00 01 ...  |..|" form.
std::string hexdump(const bytes &b);

} // namespace dyp
