#include "selection.h"

#include <arpa/inet.h>
#include <strings.h>

namespace dyp {

namespace {

constexpr size_t IFNAME_MAX_CHARS = 15;

uint16_t hex_id(const std::string &text, std::string_view whole) {
    if (text.empty() || text.size() > 4 ||
        text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw std::invalid_argument("\"" + std::string(whole) +
                                    "\": vendor and product ids are 1 to 4 hex digits");
    return uint16_t(std::stoul(text, nullptr, 16));
}

std::string candidate_line(const usb_device &d) {
    return "  " + d.name + "  serial " + (d.serial.empty() ? "-" : d.serial) + "  location " +
           (d.location.empty() ? "-" : d.location);
}

} // namespace

device_selector parse_selector(std::string_view text) {
    device_selector s;
    s.original = text;
    if (text.substr(0, 7) == "serial:") {
        s.by = device_selector::kind::serial;
        s.text = text.substr(7);
        if (s.text.empty())
            throw std::invalid_argument("\"serial:\" needs the serial number after the colon");
    } else if (text.substr(0, 4) == "usb:") {
        s.by = device_selector::kind::usb;
        std::string ids(text.substr(4));
        auto colon = ids.find(':');
        if (colon == std::string::npos)
            throw std::invalid_argument("\"" + std::string(text) + "\" is not usb:VVVV:PPPP");
        s.vendor_id = hex_id(ids.substr(0, colon), text);
        s.product_id = hex_id(ids.substr(colon + 1), text);
    } else {
        s.text = text;
        if (s.text.empty() || s.text.size() > IFNAME_MAX_CHARS)
            throw std::invalid_argument("interface name \"" + s.text +
                                        "\" must have 1 to 15 characters");
    }
    return s;
}

bool selector_matches(const device_selector &selector, const usb_device &device) {
    switch (selector.by) {
    case device_selector::kind::name:
        return device.name == selector.text;
    case device_selector::kind::serial:
        return device.serial == selector.text;
    case device_selector::kind::usb:
        return device.vendor_id == selector.vendor_id && device.product_id == selector.product_id;
    }
    return false;
}

usb_device pick_device(const device_selector &selector, const std::vector<usb_device> &devices,
                       const std::string &host) {
    std::vector<const usb_device *> found;
    for (const auto &d : devices)
        if (selector_matches(selector, d))
            found.push_back(&d);
    if (found.empty())
        throw selection_error("no device matches " + selector.original + " on " + host);
    if (found.size() > 1) {
        std::string list;
        for (const usb_device *d : found)
            list += "\n" + candidate_line(*d);
        throw selection_error(std::to_string(found.size()) + " devices match " + selector.original +
                              " on " + host + ":" + list);
    }
    return *found.front();
}

usb_device resolve_device(const endpoint &box, const device_selector &selector,
                          const transfer_options &opt) {
    if (selector.by == device_selector::kind::name) {
        usb_device named;
        named.name = selector.text;
        return named;
    }
    auto list = decode_device_list(transfer_read(box, "GET USB_DEVICE_LIST_EX", {}, opt), true);
    return pick_device(selector, list.entries, box.address());
}

std::vector<box_info> boxes_named(const std::vector<box_info> &boxes, const std::string &name) {
    std::vector<box_info> named;
    for (const auto &b : boxes) {
        if (strcasecmp(b.host_name.c_str(), name.c_str()) != 0)
            continue;
        bool seen = false;
        for (const auto &n : named)
            seen = seen || n.address == b.address;
        if (!seen)
            named.push_back(b);
    }
    return named;
}

endpoint resolve_box(std::string_view text, uint16_t default_port, const discover_options &how) {
    host_port hp = split_host_port(text, default_port);
    if (is_ipv4_literal(hp.host))
        return parse_endpoint(text, default_port);
    std::vector<std::string> ignored;
    auto named = boxes_named(discover(how, ignored), hp.host);
    if (named.size() > 1) {
        std::string list;
        for (const auto &b : named)
            list += "\n  " + b.host_name + " at " + b.address + " (" + b.mac + ")";
        throw selection_error(std::to_string(named.size()) + " boxes are named \"" + hp.host +
                              "\":" + list);
    }
    if (named.size() == 1) {
        in_addr address{};
        (void)inet_pton(AF_INET, named.front().address.c_str(), &address);
        return make_endpoint(address, hp.port);
    }
    return parse_endpoint(text, default_port);
}

} // namespace dyp
