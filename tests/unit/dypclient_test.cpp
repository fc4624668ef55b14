// The host client library: packet and payload codecs, and the exchanges
// against a scripted fake box on 127.0.0.1.
#include "dypclient.h"

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <numeric>

#include <gtest/gtest.h>

#include "support/fake_box.h"

using dyp::bytes;
using replies = std::vector<bytes>;

namespace {

void append(bytes &b, std::initializer_list<uint8_t> more) {
    b.insert(b.end(), more);
}
void append_text(bytes &b, const std::string &s, size_t field) {
    b.insert(b.end(), s.begin(), s.end());
    b.insert(b.end(), field - s.size(), 0);
}

uint16_t field16(const bytes &r, size_t at) {
    return uint16_t(r[at] << 8 | r[at + 1]);
}

// A response header echoing the request's type; `length` defaults to the data's size.
bytes response(const bytes &req, uint16_t status, uint16_t offset, const bytes &data,
               int length = -1) {
    bytes b = {req[0], req[1]};
    for (int v : {int(status), int(offset), length < 0 ? int(data.size()) : length})
        append(b, {uint8_t(v >> 8), uint8_t(v)});
    b.insert(b.end(), data.begin(), data.end());
    return b;
}

// Serves `result` in windows the way the box serves a GET command.
replies serve_windows(const bytes &result, const bytes &req) {
    if (req[1] == 3)
        return {response(req, 0, 0, {})};
    size_t off = field16(req, 84), len = std::min<size_t>(field16(req, 86), 512);
    bool more = off + len < result.size();
    size_t n = more ? len : result.size() - off;
    return {response(req, more, uint16_t(off), bytes(&result[off], &result[off] + n))};
}

dyp::endpoint at(const fake_box &box) {
    return dyp::parse_endpoint(box.host(), 1);
}

const dyp::transfer_options fast = {200, 2};

bytes advertise_reply() {
    bytes b = {0x00, 0x02, 0x95, 0x06};
    b.resize(36, 0);
    append_text(b, "Scanbox", 20);
    append(b, {0x02, 0x00, 0x5e, 0x10, 0x20, 0x30, 0, 0, 0, 1, 192, 0, 2, 10, 0, 0});
    append_text(b, "Ver 2.2.0", 10);
    append(b, {0x84, 0x83});
    append_text(b, "Flatbed scanner", 32);
    append_text(b, "box1", 48);
    return b;
}

// A device list of `count` with one entry, laid out as the box writes it.
bytes device_list(uint8_t count, const std::string &name, const std::string &desc, bool ex) {
    bytes b = {count};
    b.insert(b.end(), name.begin(), name.end());
    b.push_back(0);
    b.insert(b.end(), desc.begin(), desc.end());
    append(b, {0, 192, 0, 2, 1, 0x84, 0x83});
    if (ex)
        append(b, {0, 0});
    append(b, {0x04, 0xb8, 0x01, 0x42});
    append_text(b, "H12M", 16);
    append(b, {7, 9});
    if (ex)
        append_text(b, std::string(64, 'S'), 64);
    b.insert(b.end(), 4, 0);
    return b;
}

} // namespace

TEST(DypclientCodec, RequestLaysOutTypeNameOffsetLengthAndData) {
    bytes want = {0x00, 0x02, 0, 0, 'G', 'E', 'T', ' ', 'X'};
    want.resize(84, 0);
    append(want, {0x12, 0x34, 0x02, 0x00, 0xaa, 0xbb});
    EXPECT_EQ(dyp::encode_request(dyp::make_request(2, "GET X", 0x1234, 0x0200, {0xaa, 0xbb})),
              want);
    EXPECT_NO_THROW(dyp::encode_request(dyp::make_request(1, std::string(79, 'A'))));
    EXPECT_THROW(dyp::encode_request(dyp::make_request(1, std::string(80, 'A'))),
                 std::invalid_argument);
    EXPECT_THROW(dyp::encode_request(dyp::make_request(1, "X", 0, 0, bytes(423))),
                 std::invalid_argument);
    bytes advertise = dyp::encode_advertise_request();
    ASSERT_EQ(advertise.size(), 88u);
    EXPECT_EQ(bytes(advertise.begin(), advertise.begin() + 4), (bytes{0x00, 0x04, 0x95, 0x06}));
}

TEST(DypclientCodec, ResponseMustHoldAHeaderAndAtMostOneWindow) {
    bytes b(521, 0); // the fields are read by every exchange below
    EXPECT_THROW(dyp::decode_response(b.data(), 7), dyp::malformed_reply);
    EXPECT_NO_THROW(dyp::decode_response(b.data(), 520));
    EXPECT_THROW(dyp::decode_response(b.data(), 521), dyp::malformed_reply);
}

TEST(DypclientAdvertise, DecodesEveryFieldAndStopsTextsAtTheFieldEnd) {
    bytes b = advertise_reply();
    auto box = dyp::decode_advertise_reply(b.data(), b.size());
    EXPECT_EQ(box.product + "|" + box.mac + "|" + box.ip + "|" + box.version + "|" +
                  box.description + "|" + box.host_name,
              "Scanbox|02:00:5e:10:20:30|192.0.2.10|Ver 2.2.0|Flatbed scanner|box1");
    EXPECT_EQ(box.status, 0x8483);

    memset(&b[36], 'P', 16);
    memset(&b[116], 'H', 48); // the host name field is 16 bytes, the rest reserved
    box = dyp::decode_advertise_reply(b.data(), b.size());
    EXPECT_EQ(box.product, std::string(16, 'P'));
    EXPECT_EQ(box.host_name, std::string(16, 'H'));
}

TEST(DypclientAdvertise, RejectsWrongSizeTypeMarkerOrConstant) {
    const bytes good = advertise_reply();
    EXPECT_THROW(dyp::decode_advertise_reply(good.data(), 163), dyp::malformed_reply);
    for (auto [at, value] : {std::pair{1, 0x04}, {2, 0x06}, {3, 0x95}, {65, 2}}) {
        bytes b = good;
        b[size_t(at)] = uint8_t(value);
        EXPECT_THROW(dyp::decode_advertise_reply(b.data(), b.size()), dyp::malformed_reply)
            << "byte " << at;
    }
}

TEST(DypclientAdvertise, StatusBitsNameTheDeviceServerPatternOnlyWhole) {
    using names = std::vector<std::string>;
    EXPECT_EQ(dyp::status_bits(0x8483), (names{"device-server", "present", "flagged"}));
    EXPECT_EQ(dyp::status_bits(0x8082), (names{"device-server"}));
    EXPECT_EQ(dyp::status_bits(0x0082), (names{"0x0002", "0x0080"}));
}

TEST(DypclientDeviceList, DecodesPlainAndExtendedEntries) {
    for (bool ex : {false, true}) {
        auto list = dyp::decode_device_list(device_list(3, "usb1", "Scanner A", ex), ex);
        EXPECT_EQ(list.count, 3u); // the count may exceed the entries sent
        ASSERT_EQ(list.entries.size(), 1u);
        const auto &e = list.entries[0];
        EXPECT_EQ(e.name + "|" + e.description + "|" + e.holder + "|" + e.location + "|" + e.serial,
                  "usb1|Scanner A|192.0.2.1|H12M|" + (ex ? std::string(64, 'S') : ""));
        EXPECT_EQ((std::array<int, 5>{e.status, e.vendor_id, e.product_id, e.aux1, e.aux2}),
                  (std::array<int, 5>{0x8483, 0x04b8, 0x0142, 7, 9}));
    }
    EXPECT_EQ(dyp::decode_device_list({0}, false).entries.size(), 0u);
}

TEST(DypclientDeviceList, RejectsTruncationsShortCountsAndOverlongTexts) {
    for (bool ex : {false, true}) {
        bytes b = device_list(1, "usb1", "", ex);
        for (size_t n = 0; n < b.size(); ++n)
            if (n != 1) // a count alone is whole: it may exceed the entries sent
                EXPECT_THROW(dyp::decode_device_list(bytes(b.begin(), b.begin() + n), ex),
                             dyp::malformed_reply)
                    << "cut at " << n << (ex ? " (ex)" : "");
    }
    for (const bytes &bad :
         {device_list(0, "usb1", "A", false), device_list(1, std::string(16, 'n'), "A", false),
          device_list(1, "u", std::string(64, 'd'), false)})
        EXPECT_THROW(dyp::decode_device_list(bad, false), dyp::malformed_reply);
}

TEST(DypclientScannerStatus, DecodesExactlyThirtyTwoBytes) {
    bytes b = {0x80, 0x82, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 2, 0, 0, 0, 0, 9};
    append_text(b, "Not Connected", 14);
    auto s = dyp::decode_scanner_status(b);
    EXPECT_EQ(s.status, 0x8082);
    EXPECT_EQ(s.holder + "|" + s.holder_mac + "|" + s.box_mac + "|" + s.description,
              "0.0.0.0|01:02:03:04:05:06|02:00:00:00:00:09|Not Connected");
    for (size_t n : {18u, 31u, 33u}) {
        bytes cut = b;
        cut.resize(n, 1);
        EXPECT_THROW(dyp::decode_scanner_status(cut), dyp::malformed_reply) << n << " bytes";
    }
}

TEST(DypclientPortNames, CountByteIsTheLowEightBitsOfTheNames) {
    EXPECT_EQ(dyp::decode_port_names({2, 'u', '1', 0, 'u', '2', 0}),
              (std::vector<std::string>{"u1", "u2"}));
    bytes many = {300 & 0xff};
    for (int i = 0; i < 300; ++i)
        append(many, {'p', 0});
    EXPECT_EQ(dyp::decode_port_names(many).size(), 300u);
    EXPECT_THROW(dyp::decode_port_names({3, 'u', '1', 0, 'u', '2', 0}), dyp::malformed_reply);
    EXPECT_THROW(dyp::decode_port_names({1, 'u', '1'}), dyp::malformed_reply);
}

TEST(DypclientUsbPortName, QueryAndAnswer) {
    bytes want = {0x04, 0xb8, 0x01, 0x42};
    append_text(want, "H12M", 16);
    EXPECT_EQ(dyp::encode_usb_port_query(0x04b8, 0x0142, "H12M"), want);
    EXPECT_THROW(dyp::encode_usb_port_query(1, 2, std::string(17, 'L')), std::invalid_argument);

    EXPECT_EQ(dyp::decode_usb_port_name({1, 'u', 's', 'b', '1', 0}), "usb1");
    EXPECT_EQ(dyp::decode_usb_port_name({0}), "");
    for (const bytes &bad : {bytes{2}, bytes{1, 'u'}, bytes{0, 0}, bytes{}})
        EXPECT_THROW(dyp::decode_usb_port_name(bad), dyp::malformed_reply) << bad.size();
}

TEST(DypclientConnect, ParameterBlockFollowsTheColon) {
    dyp::connect_params p = {{0x02, 0x11, 0x22, 0x33, 0x44, 0x55}, {}, "usb1", 5000, 3};
    inet_pton(AF_INET, "192.0.2.1", &p.ip);
    std::string want = "EXEC SCANNER CONNECT:";
    want += std::string("\x01\x06\x02\x11\x22\x33\x44\x55\xc0\x00\x02\x01usb1\0\x13\x88\x03", 20);
    EXPECT_EQ(dyp::encode_connect_name("EXEC SCANNER CONNECT", p), want);
    EXPECT_NO_THROW(dyp::encode_request(dyp::make_request(1, want)));
    for (const char *ifname : {"", "sixteencharsxxxx"}) {
        p.ifname = ifname;
        EXPECT_THROW(dyp::encode_connect_name("EXEC SCANNER CONNECT", p), std::invalid_argument);
    }
    EXPECT_TRUE(dyp::decode_ok_ng({'O', 'K', 0}));
    EXPECT_FALSE(dyp::decode_ok_ng({'N', 'G', 0}));
    EXPECT_THROW(dyp::decode_ok_ng({'O', 'K'}), dyp::malformed_reply);
}

TEST(DypclientSka, LengthMagicNamesAndTheEmptyName) {
    EXPECT_EQ(dyp::encode_ska({}), (bytes{0x00, 0x06, 'K', 'A', 0, 0}));
    EXPECT_EQ(dyp::encode_ska({"usb1", "u2"}),
              (bytes{0x00, 0x0d, 'K', 'A', 'u', 's', 'b', '1', 0, 'u', '2', 0, 0}));
    EXPECT_THROW(dyp::encode_ska({""}), std::invalid_argument);
}

TEST(DypclientTransfer, ReadsEveryWindowWithTheQueryThenEnds) {
    bytes result(1200);
    std::iota(result.begin(), result.end(), 0); // wraps: a misplaced window shows
    fake_box box([&](const bytes &req, int) { return serve_windows(result, req); });
    bytes query = {1, 2, 3};
    EXPECT_EQ(dyp::transfer_read(at(box), "GET USB_DEVICE_LIST", query, fast), result);
    auto reqs = box.requests();
    ASSERT_EQ(reqs.size(), 4u);
    EXPECT_EQ(reqs[0],
              dyp::encode_request(dyp::make_request(1, "GET USB_DEVICE_LIST", 0, 512, query)));
    EXPECT_EQ(reqs[1], dyp::encode_request(dyp::make_request(2, "", 512, 512)));
    EXPECT_EQ(field16(reqs[2], 84), 1024);
    EXPECT_EQ(reqs[3][1], 3);
}

TEST(DypclientTransfer, SurvivesLostStaleAndUnansweredEndPackets) {
    bytes result(600, 0x5a);
    fake_box box([&](const bytes &req, int index) {
        if (index == 1 || req[1] == 3) // the first DATA answer and the END answer are lost
            return replies{};
        auto out = serve_windows(result, req);
        if (req[1] == 2) // a stale copy of the first window arrives first
            out.insert(out.begin(), response(req, 1, 0, {9, 9, 9, 9}));
        return out;
    });
    EXPECT_EQ(dyp::transfer_read(at(box), "GET X", {}, fast), result);
    auto reqs = box.requests();
    ASSERT_GE(reqs.size(), 3u);
    EXPECT_EQ(reqs[1], reqs[2]);
}

TEST(DypclientTransfer, SilentBoxTimesOutAfterEveryRetry) {
    fake_box box([](const bytes &, int) { return replies{}; });
    EXPECT_THROW(dyp::transfer_read(at(box), "GET X", {}, fast), dyp::timeout_error);
    EXPECT_EQ(box.requests().size(), 3u); // one send and two retries
}

TEST(DypclientTransfer, BadWindowsAreMalformed) {
    using answer = bytes (*)(const bytes &);
    for (answer bad : {
             +[](const bytes &req) { return response(req, 1, 0, bytes(100, 1), 512); },
             +[](const bytes &req) { return response(req, 1, 0, {}); }, // claims more, gives none
             +[](const bytes &req) { return bytes(req.begin(), req.begin() + 5); },
         }) {
        fake_box box([bad](const bytes &req, int) { return replies{bad(req)}; });
        EXPECT_THROW(dyp::transfer_read(at(box), "GET X", {}, fast), dyp::malformed_reply);
    }
}

TEST(DypclientExec, ResultComesWithTheStartReplyAtOffsetZero) {
    fake_box box([](const bytes &req, int) {
        return replies{response(req, 0, 0, req[1] == 3 ? bytes{} : bytes{'O', 'K', 0})};
    });
    EXPECT_EQ(dyp::transfer_exec(at(box), "EXEC X", fast), (bytes{'O', 'K', 0}));
    auto reqs = box.requests();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[0].size(), 88u);
    EXPECT_EQ(reqs[1][1], 3);

    fake_box shifted([](const bytes &req, int) { return replies{response(req, 0, 4, {'O'})}; });
    EXPECT_THROW(dyp::transfer_exec(at(shifted), "EXEC X", fast), dyp::malformed_reply);
}

TEST(DypclientKeepalive, EchoIsCheckedByteForByte) {
    fake_box echo([](const bytes &req, int) { return replies{req}; });
    EXPECT_NO_THROW(dyp::keepalive_once(at(echo), {"usb1"}, fast));
    fake_box altered([](const bytes &req, int) {
        bytes b = req;
        b[4] ^= 1;
        return replies{b};
    });
    EXPECT_THROW(dyp::keepalive_once(at(altered), {"usb1"}, fast), dyp::malformed_reply);
}

TEST(DypclientDiscover, KeepsDistinctBoxesAndReportsBadReplies) {
    fake_box box([](const bytes &, int) {
        bytes truncated = advertise_reply();
        truncated.resize(100);
        return replies{advertise_reply(), advertise_reply(), truncated, bytes{}};
    });
    dyp::discover_options o{.broadcast = "127.0.0.1", .port = box.port(), .timeout_ms = 300};
    std::vector<std::string> problems;
    auto boxes = dyp::discover(o, problems);
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes[0].address + ":" + std::to_string(boxes[0].port), box.host());
    ASSERT_EQ(problems.size(), 2u);
    EXPECT_NE(problems[0].find("100 bytes"), std::string::npos);
    EXPECT_NE(problems[1].find("empty"), std::string::npos);
    EXPECT_EQ(box.requests(), std::vector<bytes>{dyp::encode_advertise_request()});
}
