// Naming things the way a user knows them: a box by the host name it
// advertises, a device by its interface name, its serial number or its
// vendor and product ids.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "codec.h"
#include "discovery.h"
#include "exchange.h"

namespace dyp {

// Nothing matches a selector, or more than one thing does.
struct selection_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// DEVICE on the command line: "scanner2", "serial:TEXT" or "usb:VVVV:PPPP".
struct device_selector {
    enum class kind { name, serial, usb };
    kind by = kind::name;
    std::string text; // the interface name or the serial number
    uint16_t vendor_id = 0;
    uint16_t product_id = 0;
    std::string original; // as the user wrote it
};

// std::invalid_argument for an empty or overlong name, an empty serial or
// ids that are not 1 to 4 hex digits.
device_selector parse_selector(std::string_view text);
bool selector_matches(const device_selector &selector, const usb_device &device);

// The one device of `devices` that the selector names; selection_error when
// none or several match (the message lists the candidates).
usb_device pick_device(const device_selector &selector, const std::vector<usb_device> &devices,
                       const std::string &host);

// A plain name is taken as it is, without asking the box (only its name is
// filled in); any other selector is resolved with one extended list read.
usb_device resolve_device(const endpoint &box, const device_selector &selector,
                          const transfer_options &opt);

// The boxes of `boxes` whose advertised host name is `name`, ignoring case;
// one entry per box address.
std::vector<box_info> boxes_named(const std::vector<box_info> &boxes, const std::string &name);

// HOST or HOST:PORT as an endpoint. An IPv4 address is taken as it is;
// anything else is first looked for among the host names that boxes on the
// LAN advertise (discovered with `how`), and only when no box has that name
// handed to the system resolver. Two boxes of one name: selection_error.
endpoint resolve_box(std::string_view text, uint16_t default_port, const discover_options &how);

} // namespace dyp
