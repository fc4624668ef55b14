// The host client library's codecs against the byte layouts; the exchanges'
// happy paths run against the daemon in the dypctl end-to-end tests.
#include "dypclient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <numeric>

#include "support/fake_box.h"

using dyp::bytes;

namespace {
bytes cat(std::initializer_list<bytes> parts) {
    bytes all;
    for (const bytes &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// The text padded with NULs to a field of `size` bytes.
bytes text(const std::string &s, size_t size) {
    bytes b(s.begin(), s.end());
    b.resize(size, 0);
    return b;
}

const bytes advertise_reply =
    cat({bytes{0x00, 0x02, 0x95, 0x06}, bytes(32), text("Scanbox", 20),
         bytes{0x02, 0x00, 0x5e, 0x10, 0x20, 0x30, 0, 0, 0, 1, 192, 0, 2, 10, 0, 0},
         text("Ver 2.2.0", 10), bytes{0x84, 0x83}, text("Flatbed scanner", 32), text("box1", 48)});

// A device list whose count byte says `count`, with one entry as the box writes it.
bytes device_list(uint8_t count, const std::string &name, const std::string &desc, bool ex) {
    return cat({bytes{count}, text(name, name.size() + 1), text(desc, desc.size() + 1),
                bytes{192, 0, 2, 1, 0x84, 0x83}, bytes(ex ? 2 : 0), bytes{0x04, 0xb8, 0x01, 0x42},
                text("H12M", 16), bytes{7, 9}, text(ex ? "serial" : "", ex ? 64 : 0), bytes(4)});
}
} // namespace

TEST(DypclientEncode, RequestsAndPayloadsFollowTheByteLayouts) {
    EXPECT_EQ(dyp::encode_request(dyp::make_request(2, "GET X", 0x1234, 0x0200, {0xaa, 0xbb})),
              cat({{0, 2, 0, 0}, text("GET X", 80), {0x12, 0x34, 0x02, 0x00, 0xaa, 0xbb}}));
    EXPECT_EQ(dyp::encode_advertise_request(), cat({{0, 4, 0x95, 0x06}, bytes(84)}));
    const dyp::connect_params p = {
        {2, 0x11, 0x22, 0x33, 0x44, 0x55}, {htonl(0xc0000201)}, "usb1", 5000, 3};
    EXPECT_EQ(dyp::encode_connect_name("EXEC SCANNER CONNECT", p),
              std::string(
                  "EXEC SCANNER CONNECT:\1\6\2\x11\x22\x33\x44\x55\xc0\0\2\1usb1\0\x13\x88\3", 41));
    EXPECT_EQ(dyp::encode_ska({"usb1", "u2"}),
              (bytes{0x00, 0x0d, 'K', 'A', 'u', 's', 'b', '1', 0, 'u', '2', 0, 0}));
    EXPECT_EQ(dyp::encode_ska({}), (bytes{0x00, 0x06, 'K', 'A', 0, 0})) << "padded to six";
}

TEST(DypclientDecode, FieldsAtTheirOffsetsAndTextsCutAtTheFieldEnd) {
    bytes adv = advertise_reply;
    std::iota(adv.begin() + 116, adv.end(), 'A'); // a 16-byte host name field, then reserved
    auto box = dyp::decode_advertise_reply(adv.data(), adv.size());
    EXPECT_EQ(box.product + "|" + box.mac + "|" + box.ip + "|" + box.host_name,
              "Scanbox|02:00:5e:10:20:30|192.0.2.10|ABCDEFGHIJKLMNOP");
    auto e =
        dyp::decode_device_list(device_list(3, "usb1", "Scanner A", false), false).entries.at(0);
    EXPECT_EQ(e.name + "|" + e.description + "|" + e.holder + "|" + e.location,
              "usb1|Scanner A|192.0.2.1|H12M");
    EXPECT_EQ((std::array<int, 5>{e.status, e.vendor_id, e.product_id, e.aux1, e.aux2}),
              (std::array<int, 5>{0x8483, 0x04b8, 0x0142, 7, 9}));
}

TEST(DypclientDecode, CutOrCorruptRepliesAreRefused) {
    using decoder = void (*)(const bytes &);
    decoder adv = [](const bytes &b) { (void)dyp::decode_advertise_reply(b.data(), b.size()); };
    decoder list = [](const bytes &b) { (void)dyp::decode_device_list(b, false); };
    decoder list_ex = [](const bytes &b) { (void)dyp::decode_device_list(b, true); };
    decoder status = [](const bytes &b) { (void)dyp::decode_scanner_status(b); };
    decoder names = [](const bytes &b) { (void)dyp::decode_port_names(b); };
    // Whole payloads, refused when cut anywhere but after a list's count byte...
    const std::pair<decoder, bytes> whole[] = {
        {adv, advertise_reply},
        {list, device_list(1, "usb1", "", false)},
        {list_ex, device_list(1, "usb1", "", true)},
        {status, cat({bytes(18), text("Not Connected", 14)})},
        {names, {2, 'u', '1', 0, 'u', '2', 0}}};
    for (const auto &[decode, payload] : whole) {
        EXPECT_NO_THROW(decode(payload));
        for (size_t n = (decode == list || decode == list_ex) ? 2 : 0; n < payload.size(); ++n)
            EXPECT_THROW(decode(bytes(payload.begin(), payload.begin() + n)), dyp::malformed_reply)
                << n << " of " << payload.size() << " bytes";
    }
    // ...and corrupt ones, refused as they stand.
    bytes swapped_marker = advertise_reply;
    std::swap(swapped_marker[2], swapped_marker[3]);
    const std::pair<decoder, bytes> corrupt[] = {
        {adv, swapped_marker},
        {list, device_list(0, "usb1", "", false)}, // more entries than counted
        {list, device_list(1, std::string(16, 'n'), "", false)},
        {names, {3, 'u', '1', 0, 'u', '2', 0}}};
    for (const auto &[decode, payload] : corrupt)
        EXPECT_THROW(decode(payload), dyp::malformed_reply) << payload.size() << " bytes";
}

TEST(DypclientTransfer, SkipsAStaleWindowAndResendsOnSilence) {
    bytes result(600);
    std::iota(result.begin(), result.end(), 0);
    const bytes data = dyp::encode_request(dyp::make_request(2, "", 512, 512));
    fake_box box([&](const bytes &req, int index) -> std::vector<bytes> {
        bytes first = cat({{0, req[1], 0, 1, 0, 0, 2, 0}, bytes(&result[0], &result[512])});
        if (index == 0)
            return {first};
        EXPECT_EQ(req, index < 3 ? data : dyp::encode_request(dyp::make_request(3)));
        if (index != 2) // the first answer to DATA and the answer to END are lost
            return {};
        return {first, cat({{0, 2, 0, 0, 2, 0, 0, 88}, bytes(result.begin() + 512, result.end())})};
    });
    EXPECT_EQ(dyp::transfer_read(dyp::parse_endpoint(box.host(), 1), "GET X", {}, {200, 2}),
              result);
}

// Picking devices and boxes runs end to end in dypctl_test; here the texts
// that must be refused before any exchange.
TEST(DypclientParse, MalformedSelectorsAndEndpointsAreRefused) {
    EXPECT_EQ(dyp::parse_selector("usbscan").by, dyp::device_selector::kind::name);
    for (const char *bad :
         {"", "serial:", "usb:1f3a", "usb:1f3a:", "usb:12345:1", "usb:xy:1", "sixteencharsxxxx"})
        EXPECT_THROW((void)dyp::parse_selector(bad), std::invalid_argument) << bad;
    auto hp = dyp::split_host_port("box:010", 1);
    EXPECT_EQ(hp.host + ":" + std::to_string(hp.port), "box:10") << "ports are decimal";
    EXPECT_EQ(dyp::split_host_port("box", 49235).port, 49235);
    for (const char *bad :
         {"::1", "[::1]:19540", "fe80::1", "box:0", "box:65536", "box:0x10", ":19540", "box:"})
        EXPECT_THROW((void)dyp::split_host_port(bad, 1), std::invalid_argument) << bad;
}
