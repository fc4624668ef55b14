// The host client library: packet and payload codecs, and the exchanges
// against a scripted fake box on 127.0.0.1.
#include "dypclient.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

using dyp::bytes;

namespace {

bytes text_bytes(const std::string &s) {
    return bytes(s.begin(), s.end());
}

void put16(bytes &b, uint16_t v) {
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}

// A box that answers every datagram with what the script returns.
class fake_box {
  public:
    using script = std::function<std::vector<bytes>(const bytes &request, int index)>;

    explicit fake_box(script s) : script_(std::move(s)) {
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        stop_ = eventfd(0, EFD_CLOEXEC);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        socklen_t len = sizeof a;
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len), 0);
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~fake_box() {
        uint64_t one = 1;
        EXPECT_EQ(write(stop_, &one, sizeof one), ssize_t(sizeof one));
        thread_.join();
        close(fd_);
        close(stop_);
    }
    dyp::endpoint endpoint() const { return dyp::parse_endpoint("127.0.0.1", port_); }
    uint16_t port() const { return port_; }
    std::vector<bytes> requests() {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

  private:
    void serve() {
        for (;;) {
            pollfd p[2] = {{fd_, POLLIN, 0}, {stop_, POLLIN, 0}};
            if (poll(p, 2, -1) < 0 || (p[1].revents & POLLIN))
                return;
            bytes in(65536);
            sockaddr_in from{};
            socklen_t len = sizeof from;
            ssize_t n =
                recvfrom(fd_, in.data(), in.size(), 0, reinterpret_cast<sockaddr *>(&from), &len);
            if (n < 0)
                continue;
            in.resize(size_t(n));
            int index;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.push_back(in);
                index = int(requests_.size()) - 1;
            }
            for (const auto &reply : script_(in, index))
                (void)sendto(fd_, reply.data(), reply.size(), 0,
                             reinterpret_cast<sockaddr *>(&from), len);
        }
    }

    script script_;
    int fd_ = -1;
    int stop_ = -1;
    uint16_t port_ = 0;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<bytes> requests_;
};

uint16_t req_type(const bytes &r) {
    return uint16_t(r[0] << 8 | r[1]);
}
uint16_t req_offset(const bytes &r) {
    return uint16_t(r[84] << 8 | r[85]);
}
uint16_t req_length(const bytes &r) {
    return uint16_t(r[86] << 8 | r[87]);
}

bytes response(const bytes &req, uint16_t status, uint16_t offset, uint16_t length,
               const bytes &data) {
    bytes b = {req[0], req[1]};
    put16(b, status);
    put16(b, offset);
    put16(b, length);
    b.insert(b.end(), data.begin(), data.end());
    return b;
}

// Serves `result` the way the box serves a GET command.
std::vector<bytes> serve_windows(const bytes &result, const bytes &req) {
    uint16_t off = req_offset(req), len = std::min<uint16_t>(req_length(req), 512);
    if (req_type(req) == 3)
        return {response(req, 0, 0, 0, {})};
    bool more = size_t(off) + len < result.size();
    uint16_t n = more ? len : uint16_t(result.size() - off);
    return {
        response(req, more ? 1 : 0, off, n, bytes(result.begin() + off, result.begin() + off + n))};
}

dyp::transfer_options fast() {
    dyp::transfer_options o;
    o.timeout_ms = 200;
    o.retries = 2;
    return o;
}

bytes advertise_reply() {
    bytes b(164, 0);
    b[1] = 0x02;
    b[2] = 0x95;
    b[3] = 0x06;
    memcpy(&b[36], "Scanbox", 7);
    const uint8_t mac[6] = {0x02, 0x00, 0x5e, 0x10, 0x20, 0x30};
    memcpy(&b[56], mac, 6);
    b[65] = 1;
    const uint8_t ip[4] = {192, 0, 2, 10};
    memcpy(&b[66], ip, 4);
    memcpy(&b[72], "Ver 2.2.0", 9);
    b[82] = 0x84;
    b[83] = 0x83;
    memcpy(&b[84], "Flatbed scanner", 15);
    memcpy(&b[116], "box1", 4);
    return b;
}

// One entry of a device list, laid out as the box writes it.
bytes device_entry(const std::string &name, const std::string &desc, bool ex,
                   const std::string &serial = "") {
    bytes b = text_bytes(name);
    b.push_back(0);
    bytes d = text_bytes(desc);
    b.insert(b.end(), d.begin(), d.end());
    b.push_back(0);
    const uint8_t holder[4] = {192, 0, 2, 1};
    b.insert(b.end(), holder, holder + 4);
    put16(b, 0x8483);
    if (ex)
        put16(b, 0);
    put16(b, 0x04b8);
    put16(b, 0x0142);
    bytes loc(16, 0);
    memcpy(loc.data(), "H12M", 4);
    b.insert(b.end(), loc.begin(), loc.end());
    b.push_back(7);
    b.push_back(9);
    if (ex) {
        bytes s(64, 0);
        memcpy(s.data(), serial.data(), std::min<size_t>(64, serial.size()));
        b.insert(b.end(), s.begin(), s.end());
    }
    b.insert(b.end(), 4, 0);
    return b;
}

} // namespace

// ---- request and response headers ---------------------------------------------

TEST(DypclientRequest, LaysOutTypeNameOffsetLengthAndData) {
    bytes b = dyp::encode_request(dyp::make_request(2, "GET X", 0x1234, 0x0200, {0xaa, 0xbb}));
    ASSERT_EQ(b.size(), 90u);
    EXPECT_EQ(b[0], 0x00);
    EXPECT_EQ(b[1], 0x02);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&b[4])), "GET X");
    EXPECT_EQ(b[84], 0x12);
    EXPECT_EQ(b[85], 0x34);
    EXPECT_EQ(b[86], 0x02);
    EXPECT_EQ(b[87], 0x00);
    EXPECT_EQ(b[88], 0xaa);
    EXPECT_EQ(b[89], 0xbb);
}

TEST(DypclientRequest, RefusesNamesAndDataThatDoNotFit) {
    EXPECT_NO_THROW(dyp::encode_request(dyp::make_request(1, std::string(79, 'A'))));
    EXPECT_THROW(dyp::encode_request(dyp::make_request(1, std::string(80, 'A'))),
                 std::invalid_argument);
    EXPECT_THROW(dyp::encode_request(dyp::make_request(1, "X", 0, 0, bytes(423))),
                 std::invalid_argument);
}

TEST(DypclientRequest, AdvertiseCarriesTheLittleEndianMarker) {
    bytes b = dyp::encode_advertise_request();
    ASSERT_EQ(b.size(), 88u);
    EXPECT_EQ(b[0], 0x00);
    EXPECT_EQ(b[1], 0x04);
    EXPECT_EQ(b[2], 0x95);
    EXPECT_EQ(b[3], 0x06);
}

TEST(DypclientResponse, RejectsShortAndOversizedDatagrams) {
    bytes b(7, 0);
    EXPECT_THROW(dyp::decode_response(b.data(), b.size()), dyp::malformed_reply);
    b.resize(521);
    EXPECT_THROW(dyp::decode_response(b.data(), b.size()), dyp::malformed_reply);
    b.resize(11);
    b[1] = 2;
    b[3] = 1;
    b[7] = 3;
    auto r = dyp::decode_response(b.data(), b.size());
    EXPECT_EQ(r.type[1], 2);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.length, 3);
    EXPECT_EQ(r.data.size(), 3u);
}

// ---- advertise replies ------------------------------------------------------------

TEST(DypclientAdvertise, DecodesEveryField) {
    bytes b = advertise_reply();
    auto box = dyp::decode_advertise_reply(b.data(), b.size());
    EXPECT_EQ(box.product, "Scanbox");
    EXPECT_EQ(box.mac, "02:00:5e:10:20:30");
    EXPECT_EQ(box.ip, "192.0.2.10");
    EXPECT_EQ(box.version, "Ver 2.2.0");
    EXPECT_EQ(box.status, 0x8483);
    EXPECT_EQ(box.description, "Flatbed scanner");
    EXPECT_EQ(box.host_name, "box1");
}

TEST(DypclientAdvertise, UnterminatedTextStopsAtTheFieldEnd) {
    bytes b = advertise_reply();
    memset(&b[36], 'P', 16);
    memset(&b[116], 'H', 16);
    b[132] = 'X'; // beyond the host name field
    auto box = dyp::decode_advertise_reply(b.data(), b.size());
    EXPECT_EQ(box.product, std::string(16, 'P'));
    EXPECT_EQ(box.host_name, std::string(16, 'H'));
}

TEST(DypclientAdvertise, RejectsWrongSizeMarkerOrConstant) {
    bytes b = advertise_reply();
    EXPECT_THROW(dyp::decode_advertise_reply(b.data(), 163), dyp::malformed_reply);
    bytes swapped = b;
    std::swap(swapped[2], swapped[3]);
    EXPECT_THROW(dyp::decode_advertise_reply(swapped.data(), swapped.size()), dyp::malformed_reply);
    bytes one = b;
    one[65] = 2;
    EXPECT_THROW(dyp::decode_advertise_reply(one.data(), one.size()), dyp::malformed_reply);
    bytes type = b;
    type[1] = 0x04;
    EXPECT_THROW(dyp::decode_advertise_reply(type.data(), type.size()), dyp::malformed_reply);
}

TEST(DypclientStatus, NamesKnownBitsAndShowsTheRest) {
    EXPECT_EQ(dyp::status_bits(0x8483),
              (std::vector<std::string>{"device-server", "present", "flagged"}));
    EXPECT_EQ(dyp::status_bits(0x8082), (std::vector<std::string>{"device-server"}));
    // A partial 0x8082 is not the device-server pattern.
    EXPECT_EQ(dyp::status_bits(0x0082), (std::vector<std::string>{"0x0002", "0x0080"}));
}

// ---- command payloads -----------------------------------------------------------------

TEST(DypclientDeviceList, DecodesPlainAndExtendedEntries) {
    bytes plain = {2};
    for (auto &e : {device_entry("usb1", "Scanner A", false), device_entry("usb2", "", false)})
        plain.insert(plain.end(), e.begin(), e.end());
    auto list = dyp::decode_device_list(plain, false);
    EXPECT_EQ(list.count, 2u);
    ASSERT_EQ(list.entries.size(), 2u);
    EXPECT_EQ(list.entries[0].name, "usb1");
    EXPECT_EQ(list.entries[0].description, "Scanner A");
    EXPECT_EQ(list.entries[0].holder, "192.0.2.1");
    EXPECT_EQ(list.entries[0].status, 0x8483);
    EXPECT_EQ(list.entries[0].vendor_id, 0x04b8);
    EXPECT_EQ(list.entries[0].product_id, 0x0142);
    EXPECT_EQ(list.entries[0].location, "H12M");
    EXPECT_EQ(list.entries[0].aux1, 7);
    EXPECT_EQ(list.entries[0].aux2, 9);
    EXPECT_EQ(list.entries[1].description, "");

    bytes ex = {1};
    bytes e = device_entry("usb1", "Scanner A", true, std::string(64, 'S'));
    ex.insert(ex.end(), e.begin(), e.end());
    auto exlist = dyp::decode_device_list(ex, true);
    ASSERT_EQ(exlist.entries.size(), 1u);
    EXPECT_EQ(exlist.entries[0].serial, std::string(64, 'S'));
    EXPECT_EQ(exlist.entries[0].vendor_id, 0x04b8);
}

TEST(DypclientDeviceList, CountMayExceedEntriesButNeverFallShort) {
    bytes b = {3};
    bytes e = device_entry("usb1", "A", false);
    b.insert(b.end(), e.begin(), e.end());
    EXPECT_EQ(dyp::decode_device_list(b, false).entries.size(), 1u);
    b[0] = 0;
    EXPECT_THROW(dyp::decode_device_list(b, false), dyp::malformed_reply);
    EXPECT_THROW(dyp::decode_device_list({}, false), dyp::malformed_reply);
    EXPECT_EQ(dyp::decode_device_list({0}, false).entries.size(), 0u);
}

TEST(DypclientDeviceList, EveryTruncationIsReported) {
    for (bool ex : {false, true}) {
        bytes b = {1};
        bytes e = device_entry("usb1", "Scanner", ex, "SN1");
        b.insert(b.end(), e.begin(), e.end());
        ASSERT_NO_THROW(dyp::decode_device_list(b, ex));
        for (size_t n = 2; n < b.size(); ++n)
            EXPECT_THROW(dyp::decode_device_list(bytes(b.begin(), b.begin() + n), ex),
                         dyp::malformed_reply)
                << "cut at " << n << (ex ? " (ex)" : "");
    }
}

TEST(DypclientDeviceList, OverlongTextsAreRejected) {
    bytes b = {1};
    bytes e = device_entry(std::string(16, 'n'), "A", false);
    b.insert(b.end(), e.begin(), e.end());
    EXPECT_THROW(dyp::decode_device_list(b, false), dyp::malformed_reply);
    bytes d = {1};
    bytes e2 = device_entry("usb1", std::string(64, 'd'), false);
    d.insert(d.end(), e2.begin(), e2.end());
    EXPECT_THROW(dyp::decode_device_list(d, false), dyp::malformed_reply);
}

TEST(DypclientScannerStatus, DecodesFoundAndUnknownInterfaces) {
    bytes b = {0x80, 0x82};
    b.insert(b.end(), 10, 0);
    const uint8_t mac[6] = {2, 0, 0, 0, 0, 9};
    b.insert(b.end(), mac, mac + 6);
    bytes t = text_bytes("Not Connected");
    b.insert(b.end(), t.begin(), t.end());
    b.push_back(0);
    ASSERT_EQ(b.size(), 32u);
    auto s = dyp::decode_scanner_status(b);
    EXPECT_EQ(s.status, 0x8082);
    EXPECT_EQ(s.holder, "0.0.0.0");
    EXPECT_EQ(s.box_mac, "02:00:00:00:00:09");
    EXPECT_EQ(s.description, "Not Connected");

    EXPECT_THROW(dyp::decode_scanner_status(bytes(b.begin(), b.end() - 1)), dyp::malformed_reply);
    EXPECT_THROW(dyp::decode_scanner_status(bytes(b.begin(), b.begin() + 18)),
                 dyp::malformed_reply);
    bytes trailing = b;
    trailing.push_back(1);
    EXPECT_THROW(dyp::decode_scanner_status(trailing), dyp::malformed_reply);
}

TEST(DypclientPortNames, CountByteIsTheLowEightBits) {
    bytes b = {2, 'u', '1', 0, 'u', '2', 0};
    EXPECT_EQ(dyp::decode_port_names(b), (std::vector<std::string>{"u1", "u2"}));
    bytes many = {44};
    for (int i = 0; i < 300; ++i) {
        bytes n = text_bytes("p" + std::to_string(i));
        many.insert(many.end(), n.begin(), n.end());
        many.push_back(0);
    }
    EXPECT_EQ(dyp::decode_port_names(many).size(), 300u);
    b[0] = 3;
    EXPECT_THROW(dyp::decode_port_names(b), dyp::malformed_reply);
    EXPECT_THROW(dyp::decode_port_names({1, 'u', '1'}), dyp::malformed_reply);
}

TEST(DypclientUsbPortName, QueryAndAnswer) {
    bytes q = dyp::encode_usb_port_query(0x04b8, 0x0142, "H12M");
    ASSERT_EQ(q.size(), 20u);
    EXPECT_EQ(q[0], 0x04);
    EXPECT_EQ(q[1], 0xb8);
    EXPECT_EQ(q[2], 0x01);
    EXPECT_EQ(q[3], 0x42);
    EXPECT_EQ(q[4], 'H');
    EXPECT_EQ(q[8], 0);
    EXPECT_THROW(dyp::encode_usb_port_query(1, 2, std::string(17, 'L')), std::invalid_argument);

    EXPECT_EQ(dyp::decode_usb_port_name({1, 'u', 's', 'b', '1', 0}), "usb1");
    EXPECT_EQ(dyp::decode_usb_port_name({0}), "");
    EXPECT_THROW(dyp::decode_usb_port_name({2}), dyp::malformed_reply);
    EXPECT_THROW(dyp::decode_usb_port_name({1, 'u'}), dyp::malformed_reply);
    EXPECT_THROW(dyp::decode_usb_port_name({0, 0}), dyp::malformed_reply);
    EXPECT_THROW(dyp::decode_usb_port_name({}), dyp::malformed_reply);
}

TEST(DypclientConnect, ParameterBlockFollowsTheColon) {
    dyp::connect_params p;
    const uint8_t mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    memcpy(p.mac, mac, 6);
    inet_pton(AF_INET, "192.0.2.1", &p.ip);
    p.ifname = "usb1";
    p.port = 5000;
    p.options = 3;
    std::string s = dyp::encode_connect_name("EXEC SCANNER CONNECT", p);
    size_t colon = s.find(':');
    ASSERT_EQ(colon, 20u);
    const std::string block = s.substr(colon);
    ASSERT_EQ(block.size(), 17u + 4);
    EXPECT_EQ(block[1], 1);
    EXPECT_EQ(block[2], 6);
    EXPECT_EQ(memcmp(block.data() + 3, mac, 6), 0);
    EXPECT_EQ(uint8_t(block[9]), 192);
    EXPECT_EQ(uint8_t(block[12]), 1);
    EXPECT_EQ(block.substr(13, 5), std::string("usb1\0", 5));
    EXPECT_EQ(uint8_t(block[18]), 5000 >> 8);
    EXPECT_EQ(uint8_t(block[19]), 5000 & 0xff);
    EXPECT_EQ(block[20], 3);
    // The whole name field still fits the request.
    EXPECT_NO_THROW(dyp::encode_request(dyp::make_request(1, s)));
}

TEST(DypclientConnect, RefusesInterfaceNamesThatCannotTravel) {
    dyp::connect_params p;
    p.ifname = std::string(16, 'x');
    EXPECT_THROW(dyp::encode_connect_name("EXEC SCANNER CONNECT", p), std::invalid_argument);
    p.ifname = "";
    EXPECT_THROW(dyp::encode_connect_name("EXEC SCANNER CONNECT", p), std::invalid_argument);
}

TEST(DypclientConnect, OkNgAndNothingElse) {
    EXPECT_TRUE(dyp::decode_ok_ng({'O', 'K', 0}));
    EXPECT_FALSE(dyp::decode_ok_ng({'N', 'G', 0}));
    EXPECT_THROW(dyp::decode_ok_ng({'O', 'K'}), dyp::malformed_reply);
    EXPECT_THROW(dyp::decode_ok_ng({}), dyp::malformed_reply);
}

TEST(DypclientSka, LengthMagicNamesAndTheEmptyName) {
    EXPECT_EQ(dyp::encode_ska({}), (bytes{0x00, 0x06, 'K', 'A', 0, 0}));
    EXPECT_EQ(dyp::encode_ska({"usb1", "u2"}),
              (bytes{0x00, 0x0d, 'K', 'A', 'u', 's', 'b', '1', 0, 'u', '2', 0, 0}));
    EXPECT_THROW(dyp::encode_ska({""}), std::invalid_argument);
}

TEST(DypclientEndpoint, HostWithAndWithoutPort) {
    EXPECT_EQ(dyp::parse_endpoint("192.0.2.5", 19540).text(), "192.0.2.5:19540");
    EXPECT_EQ(dyp::parse_endpoint("192.0.2.5:77", 19540).text(), "192.0.2.5:77");
    EXPECT_THROW(dyp::parse_endpoint("192.0.2.5:0", 1), std::invalid_argument);
    EXPECT_THROW(dyp::parse_endpoint("192.0.2.5:x", 1), std::invalid_argument);
    EXPECT_THROW(dyp::parse_endpoint(":5", 1), std::invalid_argument);
}

// ---- exchanges against a fake box ---------------------------------------------------

TEST(DypclientTransfer, ReadsEveryWindowThenEnds) {
    bytes result(1200);
    for (size_t i = 0; i < result.size(); ++i)
        result[i] = uint8_t(i * 7);
    fake_box box([&](const bytes &req, int) { return serve_windows(result, req); });
    EXPECT_EQ(dyp::transfer_read(box.endpoint(), "GET USB_DEVICE_LIST", {}, fast()), result);
    auto reqs = box.requests();
    ASSERT_EQ(reqs.size(), 4u);
    EXPECT_EQ(req_type(reqs[0]), 1);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&reqs[0][4])), "GET USB_DEVICE_LIST");
    EXPECT_EQ(req_length(reqs[0]), 512);
    EXPECT_EQ(req_type(reqs[1]), 2);
    EXPECT_EQ(req_offset(reqs[1]), 512);
    EXPECT_EQ(req_offset(reqs[2]), 1024);
    EXPECT_EQ(req_type(reqs[3]), 3);
}

TEST(DypclientTransfer, SendsQueryDataWithTheStart) {
    fake_box box([](const bytes &req, int) { return serve_windows({0}, req); });
    bytes query = dyp::encode_usb_port_query(1, 2, "S2M");
    EXPECT_EQ(dyp::transfer_read(box.endpoint(), "GET USB_PORT_NAME", query, fast()), bytes{0});
    auto reqs = box.requests();
    ASSERT_GE(reqs.size(), 1u);
    EXPECT_EQ(bytes(reqs[0].begin() + 88, reqs[0].end()), query);
}

TEST(DypclientTransfer, ResendsAPacketWhoseAnswerWasLost) {
    bytes result(600, 0x5a);
    fake_box box([&](const bytes &req, int index) {
        return index == 1 ? std::vector<bytes>{} : serve_windows(result, req); // first DATA lost
    });
    EXPECT_EQ(dyp::transfer_read(box.endpoint(), "GET X", {}, fast()), result);
    auto reqs = box.requests();
    ASSERT_GE(reqs.size(), 3u);
    EXPECT_EQ(reqs[1], reqs[2]);
}

TEST(DypclientTransfer, IgnoresLateAnswersToAnotherOffset) {
    bytes result(600, 0x11);
    fake_box box([&](const bytes &req, int) {
        auto replies = serve_windows(result, req);
        if (req_type(req) == 2) // a stale copy of the first window arrives first
            replies.insert(replies.begin(), response(req, 1, 0, 4, {9, 9, 9, 9}));
        return replies;
    });
    EXPECT_EQ(dyp::transfer_read(box.endpoint(), "GET X", {}, fast()), result);
}

TEST(DypclientTransfer, SilentBoxTimesOutAfterEveryRetry) {
    fake_box box([](const bytes &, int) { return std::vector<bytes>{}; });
    EXPECT_THROW(dyp::transfer_read(box.endpoint(), "GET X", {}, fast()), dyp::timeout_error);
    EXPECT_EQ(box.requests().size(), 3u); // one send and two retries
}

TEST(DypclientTransfer, TruncatedWindowIsMalformed) {
    fake_box box([](const bytes &req, int) {
        return std::vector<bytes>{response(req, 1, 0, 512, bytes(100, 1))};
    });
    EXPECT_THROW(dyp::transfer_read(box.endpoint(), "GET X", {}, fast()), dyp::malformed_reply);
}

TEST(DypclientTransfer, EmptyWindowClaimingMoreIsMalformed) {
    fake_box box([](const bytes &req, int) {
        return std::vector<bytes>{response(req, 1, req_offset(req), 0, {})};
    });
    EXPECT_THROW(dyp::transfer_read(box.endpoint(), "GET X", {}, fast()), dyp::malformed_reply);
}

TEST(DypclientTransfer, HeaderShorterThanEightBytesIsMalformed) {
    fake_box box([](const bytes &req, int) {
        return std::vector<bytes>{bytes(req.begin(), req.begin() + 5)};
    });
    EXPECT_THROW(dyp::transfer_read(box.endpoint(), "GET X", {}, fast()), dyp::malformed_reply);
}

TEST(DypclientTransfer, UnansweredEndDoesNotSpoilTheResult) {
    fake_box box([](const bytes &req, int) {
        return req_type(req) == 3 ? std::vector<bytes>{} : serve_windows({1, 2, 3}, req);
    });
    EXPECT_EQ(dyp::transfer_read(box.endpoint(), "GET X", {}, fast()), (bytes{1, 2, 3}));
}

TEST(DypclientExec, ResultComesWithTheStartReply) {
    fake_box box([](const bytes &req, int) {
        if (req_type(req) == 3)
            return std::vector<bytes>{response(req, 0, 0, 0, {})};
        return std::vector<bytes>{response(req, 0, 0, 3, {'O', 'K', 0})};
    });
    EXPECT_EQ(dyp::transfer_exec(box.endpoint(), "EXEC SCANNER CONNECT:x", fast()),
              (bytes{'O', 'K', 0}));
    auto reqs = box.requests();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[0].size(), 88u);
    EXPECT_EQ(req_type(reqs[1]), 3);
}

TEST(DypclientExec, ResultWithWrongOffsetIsMalformed) {
    fake_box box([](const bytes &req, int) {
        return std::vector<bytes>{response(req, 0, 4, 3, {'O', 'K', 0})};
    });
    EXPECT_THROW(dyp::transfer_exec(box.endpoint(), "EXEC X", fast()), dyp::malformed_reply);
}

TEST(DypclientKeepalive, EchoIsCheckedByteForByte) {
    fake_box echo([](const bytes &req, int) { return std::vector<bytes>{req}; });
    EXPECT_NO_THROW(dyp::keepalive_once(echo.endpoint(), {"usb1"}, fast()));
    fake_box altered([](const bytes &req, int) {
        bytes b = req;
        b[4] ^= 1;
        return std::vector<bytes>{b};
    });
    EXPECT_THROW(dyp::keepalive_once(altered.endpoint(), {"usb1"}, fast()), dyp::malformed_reply);
    fake_box silent([](const bytes &, int) { return std::vector<bytes>{}; });
    EXPECT_THROW(dyp::keepalive_once(silent.endpoint(), {"usb1"}, fast()), dyp::timeout_error);
}

TEST(DypclientDiscover, KeepsDistinctBoxesAndReportsBadReplies) {
    fake_box box([](const bytes &req, int) {
        bytes truncated = advertise_reply();
        truncated.resize(100);
        return std::vector<bytes>{advertise_reply(), advertise_reply(), truncated, bytes{}};
    });
    dyp::discover_options o;
    o.broadcast = "127.0.0.1";
    o.port = box.port();
    o.timeout_ms = 300;
    std::vector<std::string> problems;
    auto boxes = dyp::discover(o, problems);
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes[0].address, "127.0.0.1");
    EXPECT_EQ(boxes[0].port, box.port());
    EXPECT_EQ(boxes[0].product, "Scanbox");
    ASSERT_EQ(problems.size(), 2u);
    EXPECT_NE(problems[0].find("100 bytes"), std::string::npos);
    EXPECT_NE(problems[1].find("empty"), std::string::npos);
    auto reqs = box.requests();
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(reqs[0], dyp::encode_advertise_request());
}
