// Host-side client of the DYP and SKA protocols: encoders and decoders of
// every packet and command payload, and the UDP exchanges built from them
// (discovery, the START/DATA/END transfer, keep-alive).
//
// Every decoder checks each field's bounds before reading it and throws
// dyp::malformed_reply for a reply it cannot trust; the exchanges throw
// dyp::timeout_error when the box stays silent after every retry.
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
struct timeout_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// A local failure: socket, address or interface lookup.
struct local_error : std::runtime_error {
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

// ---- Exchanges over UDP ---------------------------------------------------------

struct endpoint {
    sockaddr_in addr{};
    std::string text() const;
};

// "HOST" or "HOST:PORT", HOST a dotted IPv4 address or a resolvable name.
endpoint parse_endpoint(std::string_view text, uint16_t default_port);

struct transfer_options {
    int timeout_ms = 1000; // per packet; above the box's 500 ms START guard
    int retries = 3;       // resends of one packet before giving up
};

// Reads the whole result of a GET command (START, DATA windows, END).
bytes transfer_read(const endpoint &box, std::string_view name, const bytes &data,
                    const transfer_options &opt);
// Runs an EXEC command and returns the result carried by the START reply.
bytes transfer_exec(const endpoint &box, std::string_view name, const transfer_options &opt);

struct discover_options {
    std::string interface; // bind to this interface and use its broadcast address
    std::string broadcast = "255.255.255.255";
    uint16_t port = DEFAULT_PORT;
    int timeout_ms = 2000;
};

// Every distinct box that answered within the timeout, in order of arrival.
// Replies that cannot be decoded are described in `problems` and skipped.
std::vector<box_info> discover(const discover_options &opt, std::vector<std::string> &problems);

// Sends one SKA packet and waits for its echo; throws timeout_error or
// malformed_reply when the echo does not come back byte for byte.
void keepalive_once(const endpoint &box, const std::vector<std::string> &names,
                    const transfer_options &opt);

// The local IPv4 address used to reach the box, and the MAC of its interface.
void local_identity(const endpoint &box, in_addr &ip, uint8_t mac[6]);

// Hex dump in the "0000  00 01 ...  |..|" form.
std::string hexdump(const bytes &b);

} // namespace dyp
