// Encoders and decoders of every DYP and SKA packet and command payload.
#include "codec.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ds/ska.h"
#include "protocol/packet.h"

namespace dyp {

namespace {

// Advertise reply layout.
constexpr size_t ADV_PRODUCT = 36, ADV_PRODUCT_SIZE = 16;
constexpr size_t ADV_MAC = 56;
constexpr size_t ADV_ONE = 64;
constexpr size_t ADV_IP = 66;
constexpr size_t ADV_VERSION = 72, ADV_VERSION_SIZE = 10;
constexpr size_t ADV_STATUS = 82;
constexpr size_t ADV_DESCRIPTION = 84, ADV_DESCRIPTION_SIZE = 32;
constexpr size_t ADV_HOST = 116, ADV_HOST_SIZE = 16;

constexpr size_t LOCATION_SIZE = 16;
constexpr size_t SERIAL_SIZE = 64;
constexpr size_t IFNAME_MAX = 16;      // with its NUL
constexpr size_t DESCRIPTION_MAX = 64; // with its NUL

constexpr uint8_t CONNECT_FORMAT = 1;
constexpr uint8_t CONNECT_ADDR_LEN = 6;

uint16_t be16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}
void put16(bytes &b, size_t at, uint16_t v) {
    b[at] = uint8_t(v >> 8);
    b[at + 1] = uint8_t(v);
}

// Text of a fixed field: up to its first NUL, never past the field.
std::string fixed_text(const uint8_t *p, size_t size) {
    const void *nul = memchr(p, 0, size);
    size_t n = nul ? size_t(static_cast<const uint8_t *>(nul) - p) : size;
    return std::string(reinterpret_cast<const char *>(p), n);
}

std::string mac_text(const uint8_t *p) {
    char s[18];
    snprintf(s, sizeof s, "%02x:%02x:%02x:%02x:%02x:%02x", p[0], p[1], p[2], p[3], p[4], p[5]);
    return s;
}

std::string ip_text(const uint8_t *p) {
    char s[INET_ADDRSTRLEN];
    snprintf(s, sizeof s, "%u.%u.%u.%u", p[0], p[1], p[2], p[3]);
    return s;
}

// Walks a reply front to back; every read is checked against the end.
class reader {
  public:
    reader(const bytes &b, const char *what) : b_(b), what_(what) {}
    size_t left() const { return b_.size() - at_; }
    const uint8_t *take(size_t n, const char *field) {
        if (left() < n)
            fail(std::string("truncated in ") + field);
        const uint8_t *p = b_.data() + at_;
        at_ += n;
        return p;
    }
    uint8_t u8(const char *field) { return *take(1, field); }
    uint16_t u16(const char *field) { return be16(take(2, field)); }
    // A NUL-terminated text of at most `max` bytes including the NUL.
    std::string text(size_t max, const char *field) {
        size_t limit = std::min(max, left());
        const void *nul = memchr(b_.data() + at_, 0, limit);
        if (!nul) {
            if (limit < max)
                fail(std::string("truncated in ") + field);
            fail(std::string(field) + " is not terminated within " + std::to_string(max) +
                 " bytes");
        }
        size_t n = size_t(static_cast<const uint8_t *>(nul) - (b_.data() + at_));
        std::string s(reinterpret_cast<const char *>(b_.data() + at_), n);
        at_ += n + 1;
        return s;
    }
    [[noreturn]] void fail(const std::string &why) const {
        throw malformed_reply(std::string(what_) + ": " + why + " (at byte " + std::to_string(at_) +
                              " of " + std::to_string(b_.size()) + ")");
    }

  private:
    const bytes &b_;
    const char *what_;
    size_t at_ = 0;
};

} // namespace

// ---- DYP requests and responses ------------------------------------------

request make_request(uint16_t type, std::string_view name, uint16_t offset, uint16_t length,
                     const bytes &data) {
    request r;
    r.type = type;
    r.name = name;
    r.offset = offset;
    r.length = length;
    r.data = data;
    return r;
}

bytes encode_request(const request &req) {
    if (req.name.size() > DYP_NAME_SIZE - 1)
        throw std::invalid_argument("command name longer than 79 bytes");
    if (req.data.size() > DYP_EXEC_DATA_SIZE)
        throw std::invalid_argument("request data longer than 422 bytes");
    bytes b(DYP_REQUEST_HEADER_SIZE + req.data.size(), 0);
    put16(b, DYP_REQ_TYPE, req.type);
    std::copy(req.name.begin(), req.name.end(), b.begin() + DYP_REQ_NAME);
    put16(b, DYP_REQ_OFFSET, req.offset);
    put16(b, DYP_REQ_LENGTH, req.length);
    std::copy(req.data.begin(), req.data.end(), b.begin() + DYP_REQ_DATA);
    return b;
}

response decode_response(const uint8_t *p, size_t n) {
    if (n < DYP_RESPONSE_HEADER_SIZE)
        throw malformed_reply("reply of " + std::to_string(n) +
                              " bytes is shorter than its header");
    if (n > DYP_RESPONSE_MAX)
        throw malformed_reply("reply of " + std::to_string(n) + " bytes exceeds 520");
    response r;
    r.type[0] = p[DYP_RSP_TYPE];
    r.type[1] = p[DYP_RSP_TYPE + 1];
    r.status = be16(p + DYP_RSP_STATUS);
    r.offset = be16(p + DYP_RSP_OFFSET);
    r.length = be16(p + DYP_RSP_LENGTH);
    r.data.assign(p + DYP_RSP_DATA, p + n);
    return r;
}

// ---- Discovery --------------------------------------------------------------

bytes encode_advertise_request() {
    bytes b = encode_request(make_request(DYP_TYPE_ADVERTISE));
    b[DYP_REQ_MARKER] = DYP_ADVERTISE_MARKER0;
    b[DYP_REQ_MARKER + 1] = DYP_ADVERTISE_MARKER1;
    return b;
}

box_info decode_advertise_reply(const uint8_t *p, size_t n) {
    if (n != DYP_ADVERTISE_REPLY_SIZE)
        throw malformed_reply("advertise reply of " + std::to_string(n) + " bytes, expected 164");
    if (p[0] != 0x00 || p[1] != 0x02)
        throw malformed_reply("advertise reply does not start with 00 02");
    if (p[2] != DYP_ADVERTISE_MARKER0 || p[3] != DYP_ADVERTISE_MARKER1)
        throw malformed_reply("advertise reply carries a wrong marker");
    if (be16(p + ADV_ONE) != 1)
        throw malformed_reply("advertise reply: bytes 64-65 are not 1");
    box_info box;
    box.product = fixed_text(p + ADV_PRODUCT, ADV_PRODUCT_SIZE);
    box.mac = mac_text(p + ADV_MAC);
    box.ip = ip_text(p + ADV_IP);
    box.version = fixed_text(p + ADV_VERSION, ADV_VERSION_SIZE);
    box.status = be16(p + ADV_STATUS);
    box.description = fixed_text(p + ADV_DESCRIPTION, ADV_DESCRIPTION_SIZE);
    box.host_name = fixed_text(p + ADV_HOST, ADV_HOST_SIZE);
    return box;
}

std::vector<std::string> status_bits(uint16_t status) {
    // 0x8082 is set by every device server; 0x0001 says a shared interface
    // exists (or was found), 0x0400 carries the driver's flag for it.
    static constexpr struct {
        uint16_t bit;
        const char *name;
    } known[] = {{0x8082, "device-server"}, {0x0001, "present"}, {0x0400, "flagged"}};
    std::vector<std::string> names;
    uint16_t rest = status;
    for (const auto &k : known) {
        if ((status & k.bit) == k.bit) {
            names.push_back(k.name);
            rest &= uint16_t(~k.bit);
        }
    }
    for (unsigned bit = 0; bit < 16; ++bit) {
        if (rest & (1u << bit)) {
            char s[8];
            snprintf(s, sizeof s, "0x%04x", 1u << bit);
            names.push_back(s);
        }
    }
    return names;
}

// ---- Command payloads ---------------------------------------------------------

device_list decode_device_list(const bytes &result, bool extended) {
    const char *what = extended ? "extended device list" : "device list";
    reader in(result, what);
    device_list list;
    list.count = in.u8("count");
    while (in.left() > 0) {
        if (list.entries.size() == list.count)
            in.fail("more entries than the count byte says");
        usb_device d;
        d.name = in.text(IFNAME_MAX, "interface name");
        d.description = in.text(DESCRIPTION_MAX, "description");
        d.holder = ip_text(in.take(4, "holder address"));
        d.status = in.u16("status");
        if (extended)
            in.take(2, "reserved word");
        d.vendor_id = in.u16("vendor id");
        d.product_id = in.u16("product id");
        d.location = fixed_text(in.take(LOCATION_SIZE, "location"), LOCATION_SIZE);
        d.aux1 = in.u8("aux1");
        d.aux2 = in.u8("aux2");
        if (extended)
            d.serial = fixed_text(in.take(SERIAL_SIZE, "serial"), SERIAL_SIZE);
        in.take(4, "reserved tail");
        list.entries.push_back(std::move(d));
    }
    return list;
}

scanner_status decode_scanner_status(const bytes &result) {
    reader in(result, "scanner status");
    scanner_status s;
    s.status = in.u16("status");
    s.holder = ip_text(in.take(4, "holder address"));
    s.holder_mac = mac_text(in.take(6, "holder MAC"));
    s.box_mac = mac_text(in.take(6, "box MAC"));
    s.description = in.text(DESCRIPTION_MAX, "description");
    if (in.left() != 0)
        in.fail("trailing bytes");
    return s;
}

std::vector<std::string> decode_port_names(const bytes &result) {
    reader in(result, "port names");
    unsigned count = in.u8("count");
    std::vector<std::string> names;
    while (in.left() > 0)
        names.push_back(in.text(IFNAME_MAX, "interface name"));
    // The box sends the low 8 bits of the number of names.
    if (names.size() % 256 != count)
        in.fail("count byte " + std::to_string(count) + " but " + std::to_string(names.size()) +
                " names");
    return names;
}

bytes encode_usb_port_query(uint16_t vendor_id, uint16_t product_id, std::string_view location) {
    if (location.size() > LOCATION_SIZE)
        throw std::invalid_argument("location longer than 16 bytes");
    bytes b(4 + LOCATION_SIZE, 0);
    put16(b, 0, vendor_id);
    put16(b, 2, product_id);
    std::copy(location.begin(), location.end(), b.begin() + 4);
    return b;
}

std::string decode_usb_port_name(const bytes &result) {
    reader in(result, "USB port name");
    uint8_t found = in.u8("found flag");
    std::string name;
    if (found == 1)
        name = in.text(IFNAME_MAX, "interface name");
    else if (found != 0)
        in.fail("found flag is " + std::to_string(found));
    if (in.left() != 0)
        in.fail("trailing bytes");
    return name;
}

std::string encode_connect_name(std::string_view command, const connect_params &params) {
    if (params.ifname.empty() || params.ifname.size() >= IFNAME_MAX)
        throw std::invalid_argument("interface name must have 1 to 15 characters");
    if (params.ifname.find('\0') != std::string::npos)
        throw std::invalid_argument("interface name holds a NUL");
    std::string s(command);
    s += ':';
    s += char(CONNECT_FORMAT);
    s += char(CONNECT_ADDR_LEN);
    s.append(reinterpret_cast<const char *>(params.mac), 6);
    s.append(reinterpret_cast<const char *>(&params.ip.s_addr), 4);
    s += params.ifname;
    s += '\0';
    s += char(params.port >> 8);
    s += char(params.port & 0xff);
    s += char(params.options);
    if (s.size() > DYP_NAME_SIZE - 1)
        throw std::invalid_argument("command and parameters exceed 79 bytes");
    return s;
}

bool decode_ok_ng(const bytes &result) {
    static const bytes ok = {'O', 'K', 0}, ng = {'N', 'G', 0};
    if (result == ok)
        return true;
    if (result == ng)
        return false;
    throw malformed_reply("expected \"OK\" or \"NG\" and a NUL, got " +
                          std::to_string(result.size()) + " other bytes");
}

// ---- SKA keep-alive ---------------------------------------------------------------

bytes encode_ska(const std::vector<std::string> &names) {
    bytes b(SKA_HEADER_SIZE, 0);
    for (const auto &name : names) {
        if (name.empty() || name.find('\0') != std::string::npos)
            throw std::invalid_argument("interface names must be non-empty text");
        b.insert(b.end(), name.begin(), name.end());
        b.push_back(0);
    }
    b.push_back(0); // the empty name that ends the list
    // The box acts on the names only when the packet ends in two NULs, so an
    // empty list is padded to the 6-byte minimum.
    if (names.empty())
        b.push_back(0);
    if (b.size() > SKA_BUFFER_SIZE)
        throw std::invalid_argument("keep-alive packet exceeds 4084 bytes");
    put16(b, 0, uint16_t(b.size()));
    put16(b, 2, SKA_MAGIC);
    return b;
}
// ---- Diagnostics -----------------------------------------------------------------

std::string hexdump(const bytes &b) {
    std::string out;
    char s[24];
    for (size_t row = 0; row < b.size(); row += 16) {
        snprintf(s, sizeof s, "%04zx ", row);
        out += s;
        std::string ascii;
        for (size_t i = row; i < row + 16; ++i) {
            if (i < b.size()) {
                snprintf(s, sizeof s, " %02x", b[i]);
                out += s;
                ascii += (b[i] >= 0x20 && b[i] < 0x7f) ? char(b[i]) : '.';
            } else {
                out += "   ";
            }
        }
        out += "  |" + ascii + "|\n";
    }
    return out;
}

} // namespace dyp
