// The Wireshark dissector tools/wireshark/dyp.lua as tshark runs it.
//
// A live session: scripts/make-example-capture.sh runs every dypctl
// command against dypd with the simulated driver and records the host's
// link (root: network namespaces); every decoded field must equal what
// dypctl reported (its decoding is checked against the byte layouts in its
// own test) and what the simulated driver received. Hand-made datagrams:
// each malformed one is flagged with its expert info, none breaks the
// dissector.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/netns.h"
#include "support/sim_testbed.h"

namespace {

using json = nlohmann::json;
using bytes = std::vector<uint8_t>;
using strings = std::vector<std::string>;
using namespace std::literals;

// One dissected frame: each field tshark found with all its occurrences.
struct frame {
    std::map<std::string, strings> fields;

    bool has(const std::string &name) const { return fields.count(name) != 0; }
    strings all(const std::string &name) const { return has(name) ? fields.at(name) : strings{}; }
    std::string one(const std::string &name) const { return has(name) ? fields.at(name)[0] : ""; }
    unsigned long number(const std::string &name) const {
        return has(name) ? std::strtoul(one(name).c_str(), nullptr, 0) : ~0ul;
    }
};

struct dissection {
    std::string errors; // tshark's standard error, less its warning about root
    std::vector<frame> frames;
};

#define DISSECTOR DYPTEST_SOURCE_DIR "/tools/wireshark/dyp.lua"

// Runs tshark with the dissector over `capture`, asking for every field the
// dissector registers (its expert infos among them) and tshark's own marks
// of trouble.
dissection tshark(const std::string &capture, const std::string &options = "") {
    static const std::string fields =
        run_shell_output("tshark -G fields -X lua_script:" DISSECTOR
                         " 2>/dev/null | cut -f3 | grep -E '^(dyp|ska)[.]'"
                         " | sed 's/^/-e /' | tr '\\n' ' '");
    const std::string errors = "/tmp/dyp-tshark-" + std::to_string(getpid()) + ".err";
    json doc =
        json::parse(run_shell_output("tshark -n -r " + capture + " -X lua_script:" DISSECTOR " " +
                                     options + " -T json " + fields +
                                     "-e frame.number -e udp.srcport -e udp.length -e _ws.expert "
                                     "-e _ws.lua.error -e _ws.malformed 2>" +
                                     errors),
                    nullptr, false);
    dissection d{run_shell_output("grep -v 'Running as user' " + errors + "; rm -f " + errors), {}};
    for (const auto &packet : doc.is_array() ? doc : json::array()) {
        d.frames.emplace_back();
        for (const auto &[name, values] : packet["_source"]["layers"].items())
            d.frames.back().fields[name] = values.get<strings>();
    }
    return d;
}

#define DYP_REQUIRE_TSHARK()                                                                       \
    do {                                                                                           \
        if (run_shell("command -v tshark >/dev/null 2>&1") != 0)                                   \
            GTEST_SKIP() << "needs tshark (scripts/test.sh installs it)";                          \
    } while (0)

// A value as text: numbers in decimal whether tshark wrote them in hex or
// dypctl as JSON numbers, truth values as tshark's 1 and 0.
std::string canonical(const json &value) {
    if (value.is_boolean())
        return value.get<bool>() ? "1" : "0";
    if (value.is_number())
        return std::to_string(value.get<unsigned long>());
    std::string text = value.get<std::string>();
    char *end = nullptr;
    unsigned long number = std::strtoul(text.c_str(), &end, 0);
    return !text.empty() && *end == '\0' ? std::to_string(number) : text;
}

// Expects the `i`-th occurrence of each field of `f` to equal the value
// that `truth` gives its paired key.
void expect_fields(const frame &f, const json &truth,
                   const std::map<std::string, std::string> &pairs, size_t i = 0) {
    for (const auto &[field, key] : pairs) {
        auto values = f.all(field);
        EXPECT_EQ(i < values.size() ? canonical(values[i]) : "(none)", canonical(truth.at(key)))
            << field << " #" << i;
    }
}

// ---- a session of every command ---------------------------------------------

// The capture script's output (OUT of make-example-capture.sh), made once for
// the whole binary, and the capture dissected.
class LiveSession : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        char dir_template[] = "/tmp/dyp-capture-XXXXXX";
        if (geteuid() != 0 || mkdtemp(dir_template) == nullptr)
            return;
        dir_ = dir_template;
        // The sanitizer build's daemon takes the simulator by LD_PRELOAD.
        script_status_ = run_shell("ASAN_OPTIONS=verify_asan_link_order=0 " DYPTEST_SOURCE_DIR
                                   "/scripts/make-example-capture.sh --build " DYPTEST_BUILD_DIR
                                   " --out " + dir_ + " >" + dir_ + "/script.out 2>&1");
        if (script_status_ == 0)
            session_ = tshark(dir_ + "/capture.pcapng");
    }
    static void TearDownTestSuite() { run_shell("rm -rf " + dir_); }

    void SetUp() override {
        DYP_REQUIRE_ROOT();
        DYP_REQUIRE_TSHARK();
        ASSERT_EQ(script_status_, 0) << read_text_file(dir_ + "/script.out");
        ASSERT_EQ(session_.errors, "");
        ASSERT_FALSE(session_.frames.empty());
    }

    static json reported(const std::string &step) {
        return json::parse(read_text_file(dir_ + "/" + step + ".json"));
    }
    // The requests the simulated driver received whose line starts with
    // `kind`, each as its key=value pairs.
    static std::vector<json> driver_requests(const std::string &kind) {
        std::vector<json> found;
        std::istringstream log(read_text_file(dir_ + "/dypsim.log"));
        for (std::string line, word; std::getline(log, line);) {
            std::istringstream words(line);
            if (!(words >> word) || word != kind)
                continue;
            found.emplace_back(json::object());
            while (words >> word)
                if (auto eq = word.find('='); eq != std::string::npos)
                    found.back()[word.substr(0, eq)] = word.substr(eq + 1);
        }
        return found;
    }

    // The frames that carry `field` and whose `filter` field (if any) is `value`.
    static std::vector<frame> frames_with(const std::string &field, const std::string &filter = "",
                                          const std::string &value = "") {
        std::vector<frame> found;
        for (const auto &f : session_.frames)
            if (f.has(field) && (filter.empty() || f.one(filter) == value))
                found.push_back(f);
        return found;
    }
    // The replies that complete a result of `command`, in capture order.
    static std::vector<frame> results_of(const std::string &command) {
        return frames_with("dyp.result.length", "dyp.command", command);
    }
    static const frame &by_number(const std::string &number) {
        return session_.frames.at(std::stoul(number) - 1);
    }
    // The START request that opened the transfer `reply` belongs to.
    static const frame &start_of(const frame &reply) {
        return by_number(reply.one("dyp.request_in"));
    }

    inline static std::string dir_;
    inline static int script_status_ = -1;
    inline static dissection session_;
};

// Each field of a device list entry and dypctl's key for it.
const std::map<std::string, std::string> DEVICE_FIELDS = {
    {"dyp.dev.name", "name"},           {"dyp.dev.description", "description"},
    {"dyp.dev.holder", "holder"},       {"dyp.dev.status", "status"},
    {"dyp.dev.vid", "vendor_id"},       {"dyp.dev.pid", "product_id"},
    {"dyp.dev.location", "location"},   {"dyp.dev.aux1", "aux1"},
    {"dyp.dev.aux2", "aux2"},           {"dyp.flag.flagged", "flagged"}};

TEST_F(LiveSession, EveryFrameDecodesWithoutExpertInfoOrLuaError) {
    for (const auto &f : session_.frames) {
        SCOPED_TRACE("frame " + f.one("frame.number"));
        for (const char *failure : {"_ws.expert", "_ws.lua.error", "_ws.malformed"})
            EXPECT_FALSE(f.has(failure)) << f.one(failure);
        EXPECT_TRUE(f.has("dyp.type") || f.has("dyp.adv.product") || f.has("ska.magic"));
        // Every transfer was followed: each response knows its command.
        EXPECT_TRUE(!f.has("dyp.status") || f.has("dyp.command"));
    }
}

TEST_F(LiveSession, DeviceListsAreReassembledAcrossWindowsAsDypctlSays) {
    for (bool ex : {false, true}) {
        const std::string command = ex ? "GET USB_DEVICE_LIST_EX" : "GET USB_DEVICE_LIST";
        SCOPED_TRACE(command);
        auto results = results_of(command);
        ASSERT_EQ(results.size(), 1u);
        const frame &r = results[0];
        // The device file makes both lists longer than one window; each
        // window is a reply of this transfer, the last one this frame.
        auto windows = r.all("dyp.result.window");
        ASSERT_GE(windows.size(), 2u);
        EXPECT_EQ(windows.back(), r.one("frame.number"));
        for (const auto &w : windows)
            EXPECT_EQ(by_number(w).one("dyp.command"), command) << "window " << w;
        EXPECT_EQ(start_of(r).one("dyp.command"), command);

        json list = reported(ex ? "devices-ex" : "devices");
        expect_fields(r, list, {{"dyp.dev.count", "count"}});
        ASSERT_EQ(r.all("dyp.dev.name").size(), list["devices"].size());
        // Only the extended list carries serials.
        EXPECT_EQ(r.all("dyp.dev.serial").size(), ex ? list["devices"].size() : 0);
        auto fields = DEVICE_FIELDS;
        if (ex)
            fields["dyp.dev.serial"] = "serial";
        for (size_t i = 0; i < list["devices"].size(); ++i) {
            json d = list["devices"][i];
            d["flagged"] = (d["status"].get<unsigned>() & 0x0400) != 0; // the driver's flag bit
            expect_fields(r, d, fields, i);
        }
    }
}

TEST_F(LiveSession, ScannerStatusRepliesAnswerTheirOwnRequest) {
    auto results = results_of("GET SCANNER_STATUS");
    const strings steps = {"status-scanner1", "status-unknown", "status-scanner2"};
    // The last one is dypctl's own: a refused connect reads the status to say why.
    ASSERT_EQ(results.size(), steps.size() + 1);
    json refused = reported("connect-refused");
    EXPECT_EQ(start_of(results.back()).one("dyp.scanner.ifname"), refused["interface"]);
    EXPECT_EQ("held by " + results.back().one("dyp.scanner.holder"), refused["reason"]);
    for (size_t i = 0; i < steps.size(); ++i) {
        SCOPED_TRACE(steps[i]);
        json s = reported(steps[i]);
        expect_fields(start_of(results[i]), s, {{"dyp.scanner.ifname", "interface"}});
        expect_fields(results[i], s,
                      {{"dyp.scanner.status", "status"}, {"dyp.flag.present", "found"},
                       {"dyp.scanner.holder", "holder"}, {"dyp.scanner.box_mac", "box_mac"},
                       {"dyp.scanner.holder_mac", "holder_mac"},
                       {"dyp.scanner.description", "description"}});
    }
}

TEST_F(LiveSession, PortNamesAndUsbPortQueriesMatchTheDevices) {
    auto ports = results_of("GET SCANNER PORT_NAME");
    ASSERT_EQ(ports.size(), 1u);
    json names = reported("ports");
    EXPECT_EQ(json(ports[0].all("dyp.ports.name")), names);
    EXPECT_EQ(ports[0].number("dyp.ports.count"), names.size());

    // The query that found a device names that device's ids and location.
    auto queries = results_of("GET USB_PORT_NAME");
    ASSERT_EQ(queries.size(), 2u);
    json found = reported("port-name"), devices = reported("devices")["devices"];
    expect_fields(queries[0], found,
                  {{"dyp.usbport.found", "found"}, {"dyp.usbport.name", "name"}});
    auto named = std::find_if(devices.begin(), devices.end(),
                              [&](const json &d) { return d["name"] == found["name"]; });
    ASSERT_NE(named, devices.end());
    expect_fields(start_of(queries[0]), *named,
                  {{"dyp.query.vid", "vendor_id"}, {"dyp.query.pid", "product_id"},
                   {"dyp.query.location", "location"}});
    EXPECT_FALSE(reported("port-name-none")["found"].get<bool>());
    EXPECT_EQ(queries[1].one("dyp.usbport.found"), "0");
    EXPECT_FALSE(queries[1].has("dyp.usbport.name"));
    EXPECT_NE(start_of(queries[1]).number("dyp.query.pid"), (*named)["product_id"]);
}

TEST_F(LiveSession, ConnectParametersAreWhatTheDriverReceived) {
    auto connects = results_of("EXEC SCANNER CONNECT");
    auto driver = driver_requests("connect_ex");
    const strings steps = {"connect", "connect-refused"};
    ASSERT_EQ(connects.size(), steps.size());
    ASSERT_EQ(driver.size(), steps.size());
    for (size_t i = 0; i < steps.size(); ++i) {
        SCOPED_TRACE(steps[i]);
        const frame &start = start_of(connects[i]);
        json got = driver[i], said = reported(steps[i]);
        got["result"] = got["result"] == "0" ? "OK" : "NG";
        expect_fields(start, got, {{"dyp.connect.ifname", "name"}, {"dyp.connect.mac", "mac"},
                                   {"dyp.connect.options.b0", "opt_b0"},
                                   {"dyp.connect.options.b1", "opt_b1"}});
        expect_fields(connects[i], got, {{"dyp.exec.result", "result"}});
        expect_fields(start, said, {{"dyp.connect.ifname", "interface"}});
        expect_fields(connects[i], said, {{"dyp.exec.result", "result"}});
        // The box puts 19540 in place of a zero port.
        unsigned long port = start.number("dyp.connect.port");
        EXPECT_EQ(start.one("dyp.connect.ip") + ":" + std::to_string(port ? port : 19540),
                  got["host"]);
    }

    auto disconnects = results_of("EXEC SCANNER DISCONNECT");
    auto released = driver_requests("disconnect");
    ASSERT_EQ(disconnects.size(), 1u);
    ASSERT_EQ(released.size(), 1u);
    const frame &start = start_of(disconnects[0]);
    EXPECT_EQ(start.one("dyp.connect.ifname"), released[0]["name"]);
    EXPECT_EQ(start.one("dyp.connect.ip") + ":19540", released[0]["host"]);
    EXPECT_FALSE(start.has("dyp.connect.port")); // a disconnect carries none
    expect_fields(disconnects[0], reported("disconnect"), {{"dyp.exec.result", "result"}});
}

TEST_F(LiveSession, AdvertiseRepliesOfBothPortsAreDecodedFieldByField) {
    for (const auto &[step, port] : {std::pair{"discover", "19540"}, {"discover-19541", "19541"}}) {
        SCOPED_TRACE(step);
        json boxes = reported(step);
        auto replies = frames_with("dyp.adv.product", "udp.srcport", port);
        ASSERT_EQ(boxes.size(), 1u);
        ASSERT_EQ(replies.size(), 1u);
        expect_fields(replies[0], boxes[0],
                      {{"dyp.adv.product", "product"}, {"dyp.adv.hostname", "hostname"},
                       {"dyp.adv.mac", "mac"}, {"dyp.adv.ip", "ip"}, {"dyp.adv.version", "version"},
                       {"dyp.adv.status", "status"}, {"dyp.adv.description", "device"}});
    }
}

TEST_F(LiveSession, KeepAliveAndItsEchoNameWhatTheDriverGot) {
    auto alive = driver_requests("keep_alive");
    ASSERT_EQ(alive.size(), 1u);
    strings names;
    std::istringstream list(alive[0]["names"].get<std::string>());
    for (std::string name; std::getline(list, name, ',');)
        names.push_back(name);
    auto packets = frames_with("ska.magic");
    ASSERT_EQ(packets.size(), 2u);
    for (size_t i = 0; i < packets.size(); ++i) {
        EXPECT_EQ(packets[i].one("ska.echo"), i == 0 ? "0" : "1");
        EXPECT_EQ(packets[i].all("ska.name"), names);
        EXPECT_EQ(packets[i].number("ska.length"), packets[i].number("udp.length") - 8);
        EXPECT_EQ(packets[i].number("ska.magic"), 0x4B41u);
    }
}

// ---- hand-made datagrams ------------------------------------------------------

template <typename T> std::vector<T> operator+(std::vector<T> a, const std::vector<T> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
bytes be16(size_t v) { return {uint8_t(v >> 8), uint8_t(v)}; }
bytes text(const std::string &s) { return bytes(s.begin(), s.end()); }
bytes zeros(size_t n) { return bytes(n, 0); }
bytes first(bytes b, size_t n) {
    b.resize(n);
    return b;
}

// Between a port of the box (192.0.2.10) and one of the host (192.0.2.20),
// chosen when the datagram is written.
struct datagram {
    bool from_box;
    bytes payload;
    uint16_t box_port = 19540;
};

// A request: the 88-byte header (its name field of 80 bytes) and `data`.
bytes request(unsigned type, const std::string &name, size_t offset = 0, size_t length = 512,
              const bytes &data = {}, unsigned marker = 0) {
    bytes field = text(name.substr(0, 80));
    field.resize(80);
    return be16(type) + be16(marker) + field + be16(offset) + be16(length) + data;
}
datagram ask(const std::string &name, size_t offset = 0, size_t length = 512,
             const bytes &data = {}) {
    return {false, request(1, name, offset, length, data)};
}
datagram answer(unsigned type, unsigned status, size_t offset, size_t length, const bytes &data) {
    return {true, be16(type) + be16(status) + be16(offset) + be16(length) + data};
}
datagram result(const bytes &data) { return answer(1, 0, 0, data.size(), data); }
datagram ska(size_t length, unsigned magic, const std::string &names) {
    return {false, be16(length) + be16(magic) + text(names), 49235};
}
// The name field of a connect request: ':' and the parameter block.
std::string connect_block(char format, const std::string &ifname) {
    return "EXEC SCANNER CONNECT:" + std::string{format, 6} +
           std::string("\x02\x00\x5e\x00\x53\x14\xc0\x00\x02\x14", 10) + ifname;
}

// Writes a pcap file (link type raw IP, little-endian) of IPv4/UDP packets,
// each datagram with its host port; checksums are left 0 (tshark checks none
// by default).
void write_pcap(const std::string &path,
                const std::vector<std::pair<datagram, size_t>> &datagrams) {
    std::ofstream out(path, std::ios::binary);
    auto le32 = [&](size_t v) {
        for (int i = 0; i < 4; ++i)
            out.put(char(v >> 8 * i));
    };
    for (size_t v : {0xa1b2c3d4u, 0x00040002u, 0u, 0u, 65535u, 101u})
        le32(v);
    size_t second = 1700000000;
    for (const auto &[d, host_port] : datagrams) {
        const bytes box = {192, 0, 2, 10}, host = {192, 0, 2, 20};
        bytes f = bytes{0x45, 0} + be16(28 + d.payload.size()) + bytes{0, 0, 0, 0, 64, 17, 0, 0} +
                  (d.from_box ? box + host + be16(d.box_port) + be16(host_port)
                              : host + box + be16(host_port) + be16(d.box_port)) +
                  be16(8 + d.payload.size()) + zeros(2) + d.payload;
        for (size_t v : {second++, size_t(0), f.size(), f.size()})
            le32(v);
        out.write(reinterpret_cast<const char *>(f.data()), std::streamsize(f.size()));
    }
}

// Writes the datagrams, each transfer from a host port of its own, and
// dissects them.
dissection dissect(const std::vector<std::vector<datagram>> &transfers,
                   const std::string &options = "") {
    std::vector<std::pair<datagram, size_t>> all;
    for (size_t i = 0; i < transfers.size(); ++i)
        for (const auto &d : transfers[i])
            all.push_back({d, 40000 + i});
    const std::string path = "/tmp/dyp-datagrams-" + std::to_string(getpid()) + ".pcap";
    write_pcap(path, all);
    dissection d = tshark(path, options);
    std::remove(path.c_str());
    EXPECT_EQ(d.frames.size(), all.size()) << d.errors;
    return d;
}

// A datagram, the well-formed ones it needs before it (a START for a reply),
// and the expert info it must raise (dyp.expert.* or ska.expert.*), or, at
// the edge of what is well-formed, must not raise.
struct flagged_case {
    std::string what;
    std::vector<datagram> lead;
    datagram d;
    std::string expert;
    bool flagged = true;
};

TEST(MalformedDatagrams, EachIsFlaggedWithItsExpertInfoAndNoneBreaksTheDissector) {
    DYP_REQUIRE_TSHARK();
    auto started = [](const std::string &command) { return std::vector{ask(command)}; };
    const auto names = started("GET SCANNER PORT_NAME"), list = started("GET USB_DEVICE_LIST");
    // A 164-byte advertise reply, its product name (36-51) of `fill`, `one` at 65.
    auto adv = [](uint8_t fill, uint8_t one) {
        return bytes{0, 2, 0x95, 0x06} + zeros(32) + bytes(16, fill) + zeros(13) + bytes{one} +
               zeros(98);
    };
    const std::string s20(20, 's'), s15(15, 's'), s60(60, 's');
    const std::vector<flagged_case> cases = {
        // Requests that the box drops or refuses.
        {"one byte", {}, {false, {1}}, "short"},
        {"87 bytes", {}, {false, first(list[0].payload, 87)}, "short"},
        {"511 bytes", {}, ask("GET USB_PORT_NAME", 0, 512, zeros(423)), "oversize"},
        {"type 0", {}, {false, request(0, "")}, "bad_type"},
        {"type 5", {}, {false, request(5, "")}, "bad_type"},
        {"marker big-endian", {}, {false, request(4, "", 0, 512, {}, 0x0695)}, "bad_marker"},
        {"80 characters of name", {}, ask(std::string(80, 'G')), "unterminated"},
        {"unknown command", {}, ask("GET FIRMWARE"), "unknown_command"},
        {"window past 65536", {}, ask("GET USB_DEVICE_LIST", 65400, 512), "window"},
        {"past 65536 once cut to 512", {}, ask("GET USB_DEVICE_LIST", 65025, 1000), "window"},
        {"at 65536 once cut to 512", {}, ask("GET USB_DEVICE_LIST", 65024, 1000), "window", false},
        {"connect with format 2", {}, ask(connect_block(2, std::string("s1\0", 3))), "params"},
        {"connect without its block", {}, ask("EXEC SCANNER CONNECT"), "params"},
        {"connect name without end", {}, ask(connect_block(1, s60)), "unterminated"},
        {"port query of 4 bytes", {}, ask("GET USB_PORT_NAME", 0, 512, bytes(4, 1)), "params"},
        {"port query without data", {}, ask("GET USB_PORT_NAME"), "params"},
        {"status of a 20-character name", {}, ask("GET SCANNER_STATUS:" + s20), "cut"},
        {"status of a 15-character name", {}, ask("GET SCANNER_STATUS:" + s15), "cut", false},
        // Responses whose lengths do not add up.
        {"5-byte response", {}, {true, {0, 1, 0, 0, 0}}, "short"},
        {"reply to nothing", {}, answer(1, 0, 0, 1, {0}), "no_start"},
        {"length 20, 10 bytes", names, answer(1, 0, 0, 20, zeros(10)), "length"},
        {"521 bytes", names, answer(1, 1, 0, 513, zeros(513)), "oversize"},
        {"window past 65536", names, answer(2, 0, 65530, 10, zeros(10)), "window"},
        {"window ending at 65536", names, answer(2, 0, 65526, 10, zeros(10)), "window", false},
        {"more follows, nothing came", names, answer(1, 1, 0, 0, {}), "empty_window"},
        {"status 7", names, answer(1, 7, 0, 1, {0}), "bad_status"},
        {"window at 512 missing", {list[0], answer(1, 1, 0, 512, zeros(512))},
         answer(2, 0, 1024, 10, zeros(10)), "gap"},
        {"advertise reply of 100 bytes", {}, {true, first(adv(0, 1), 100)}, "advertise"},
        {"product name without NUL", {}, {true, adv('P', 1)}, "advertise"},
        {"bytes 64-65 not 1", {}, {true, adv(0, 2)}, "advertise"},
        // Results that do not decode.
        {"list ends inside an entry", started("GET USB_DEVICE_LIST_EX"),
         result(bytes{2} + text(std::string("scanner1\0desc\0\xc0\x00", 16))), "truncated"},
        {"name of 20 characters", list, result(bytes{1} + text(s20)), "unterminated"},
        {"status with trailing bytes", started("GET SCANNER_STATUS:s1"),
         result(zeros(18) + text(std::string("Not Connected\0trailing", 22))), "trailing"},
        {"count 3, one name", names, result(bytes{3} + text(std::string("scanner1\0", 9))),
         "count"},
        {"empty device list", list, result({}), "truncated"},
        {"found flag 2", started("GET USB_PORT_NAME"), result({2}), "bad_result"},
        {"exec answer MAYBE", started(connect_block(1, std::string("s1\0\0\0\0", 6))),
         result(text("MAYBE")), "bad_result"},
        // Keep-alives that the box ignores or does not act on.
        {"4 bytes", {}, ska(4, 0x4B41, ""), "short"},
        {"length 10, 12 bytes", {}, ska(10, 0x4B41, std::string("abcdef\0\0", 8)), "length"},
        {"magic AK", {}, ska(6, 0x414B, std::string("\0\0", 2)), "magic"},
        {"name without NUL", {}, ska(7, 0x4B41, "abc"), "unterminated"},
        {"names not closed", {}, ska(8, 0x4B41, std::string("abc\0", 4)), "no_end"},
        {"name of 16 characters", {}, ska(22, 0x4B41, std::string(16, 'n') + "\0\0"s), "cut"},
        {"name of 15 characters", {}, ska(21, 0x4B41, s15 + "\0\0"s), "cut", false},
        {"bytes after the empty name", {}, ska(12, 0x4B41, "ab\0\0xy\0\0"s), "trailing"},
        {"4085 bytes", {}, ska(4085, 0x4B41, std::string(4081, '\0')), "oversize"},
    };
    std::vector<std::vector<datagram>> transfers;
    for (const auto &c : cases)
        transfers.push_back(c.lead + std::vector{c.d});
    dissection d = dissect(transfers);
    EXPECT_EQ(d.errors, "");
    for (const auto &f : d.frames)
        for (const char *failure : {"_ws.lua.error", "dyp.expert.internal", "ska.expert.internal"})
            EXPECT_FALSE(f.has(failure)) << "frame " << f.one("frame.number");
    for (size_t i = 0, at = 0; i < cases.size() && at + cases[i].lead.size() < d.frames.size();
         ++i) {
        at += cases[i].lead.size() + 1;
        auto expert =
            (cases[i].d.box_port == 49235 ? "ska.expert." : "dyp.expert.") + cases[i].expert;
        EXPECT_EQ(d.frames[at - 1].has(expert), cases[i].flagged)
            << cases[i].what << (cases[i].flagged ? ": no " : ": ") << expert;
    }
}

TEST(DissectorPreferences, ExtraPortsAreDecodedOnlyWhenConfigured) {
    DYP_REQUIRE_TSHARK();
    datagram query = ask("GET SCANNER PORT_NAME"),
             reply = result(bytes{1} + text("scanner1"s + '\0'));
    query.box_port = reply.box_port = 5000;
    dissection plain = dissect({{query, reply}});
    dissection extra = dissect({{query, reply}}, "-o dyp.extra_ports:4000,5000-5001");
    ASSERT_EQ(plain.frames.size(), 2u) << plain.errors;
    ASSERT_EQ(extra.frames.size(), 2u) << extra.errors;
    EXPECT_FALSE(plain.frames[1].has("dyp.command"));
    // Port 5000 is then a DYP port: the reply is told apart by its source.
    EXPECT_EQ(extra.frames[0].one("dyp.command"), "GET SCANNER PORT_NAME");
    EXPECT_EQ(extra.frames[1].one("dyp.command"), "GET SCANNER PORT_NAME");
    EXPECT_EQ(extra.frames[1].all("dyp.ports.name"), strings{"scanner1"});
}

} // namespace
