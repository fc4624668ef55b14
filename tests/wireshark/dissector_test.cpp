// The Wireshark dissector tools/wireshark/dyp.lua as tshark runs it.
//
// A live session: scripts/make-example-capture.sh runs every dypctl
// command against dypd with the simulated driver and records the host's
// link (root: network namespaces); every decoded field must equal what
// dypctl reported, what the simulator's device file holds and what the
// simulated driver received. Hand-made datagrams: each malformed one is
// flagged with its expert info, and no input raises a Lua error.
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "device_file.h"
#include "support/netns.h"
#include "support/sim_testbed.h"

namespace {

using json = nlohmann::json;
using bytes = std::vector<uint8_t>;

const std::string DISSECTOR = DYPTEST_SOURCE_DIR "/tools/wireshark/dyp.lua";

// One dissected frame: each requested field with all its occurrences.
struct frame {
    std::map<std::string, std::vector<std::string>> fields;

    bool has(const std::string &name) const { return fields.count(name) != 0; }
    std::vector<std::string> all(const std::string &name) const {
        auto it = fields.find(name);
        return it == fields.end() ? std::vector<std::string>{} : it->second;
    }
    std::string one(const std::string &name) const {
        auto values = all(name);
        return values.empty() ? "" : values[0];
    }
    unsigned long number(const std::string &name, size_t i = 0) const {
        auto values = all(name);
        return i < values.size() ? std::strtoul(values[i].c_str(), nullptr, 0) : ~0ul;
    }
};

struct dissection {
    int status = -1;
    std::string errors; // tshark's standard error, less its warning about root
    std::vector<frame> frames;
};

// Runs tshark with the dissector over `capture`, asking for `fields`.
dissection tshark(const std::string &capture, const std::vector<std::string> &fields,
                  const std::string &options = "") {
    static int calls = 0;
    const std::string out = "/tmp/dyp-tshark-" + std::to_string(getpid()) + "-" +
                            std::to_string(++calls);
    std::string command = "tshark -n -r " + capture + " -X lua_script:" + DISSECTOR + " " +
                          options + " -T json";
    for (const auto &f : fields)
        command += " -e " + f;
    dissection d;
    d.status = run_shell(command + " >" + out + ".json 2>" + out + ".err");
    std::istringstream errors(read_text_file(out + ".err"));
    for (std::string line; std::getline(errors, line);)
        if (line.find("Running as user") == std::string::npos)
            d.errors += line + "\n";
    json doc = json::parse(read_text_file(out + ".json"), nullptr, false);
    std::remove((out + ".json").c_str());
    std::remove((out + ".err").c_str());
    if (!doc.is_array())
        return d;
    for (const auto &packet : doc) {
        frame f;
        for (const auto &[name, values] : packet["_source"]["layers"].items())
            for (const auto &v : values)
                f.fields[name].push_back(v.get<std::string>());
        d.frames.push_back(f);
    }
    return d;
}

bool tshark_missing() {
    return run_shell("command -v tshark >/dev/null 2>&1") != 0;
}

#define DYP_REQUIRE_TSHARK()                                                                       \
    do {                                                                                           \
        if (tshark_missing())                                                                      \
            GTEST_SKIP() << "needs tshark (scripts/test.sh installs it)";                          \
    } while (0)

// ---- a session of every command ---------------------------------------------

const std::vector<std::string> SESSION_FIELDS = {
    "frame.number", "udp.srcport", "udp.length", "_ws.expert", "_ws.lua.error", "_ws.malformed",
    "dyp.type", "dyp.command", "dyp.status", "dyp.request_in", "dyp.result.length",
    "dyp.result.window", "dyp.adv.product", "dyp.adv.hostname", "dyp.adv.mac", "dyp.adv.ip",
    "dyp.adv.version", "dyp.adv.status", "dyp.adv.description", "dyp.dev.count", "dyp.dev.name",
    "dyp.dev.description", "dyp.dev.holder", "dyp.dev.status", "dyp.dev.vid", "dyp.dev.pid",
    "dyp.dev.location", "dyp.dev.aux1", "dyp.dev.aux2", "dyp.dev.serial", "dyp.flag.flagged",
    "dyp.flag.present", "dyp.scanner.ifname", "dyp.scanner.status", "dyp.scanner.holder",
    "dyp.scanner.holder_mac", "dyp.scanner.box_mac", "dyp.scanner.description",
    "dyp.ports.count", "dyp.ports.name", "dyp.query.vid", "dyp.query.pid", "dyp.query.location",
    "dyp.usbport.found", "dyp.usbport.name", "dyp.connect.mac", "dyp.connect.ip",
    "dyp.connect.ifname", "dyp.connect.port", "dyp.connect.options.b0",
    "dyp.connect.options.b1", "dyp.exec.result", "ska.length", "ska.magic", "ska.name",
    "ska.echo"};

// The capture script's output (OUT of make-example-capture.sh), made once for
// the whole binary, and the capture dissected.
class LiveSession : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (geteuid() != 0 || tshark_missing())
            return;
        char dir_template[] = "/tmp/dyp-capture-XXXXXX";
        if (mkdtemp(dir_template) == nullptr)
            return;
        dir_ = dir_template;
        // The sanitizer build's daemon takes the simulator by LD_PRELOAD.
        script_status_ = run_shell("ASAN_OPTIONS=verify_asan_link_order=0 " DYPTEST_SOURCE_DIR
                                   "/scripts/make-example-capture.sh --build " DYPTEST_BUILD_DIR
                                   " --out " + dir_ + " >" + dir_ + "/script.out 2>&1");
        if (script_status_ == 0)
            session_ = tshark(dir_ + "/capture.pcapng", SESSION_FIELDS);
    }
    static void TearDownTestSuite() {
        if (!dir_.empty())
            run_shell("rm -rf " + dir_);
    }

    void SetUp() override {
        DYP_REQUIRE_ROOT();
        DYP_REQUIRE_TSHARK();
        ASSERT_EQ(script_status_, 0) << read_text_file(dir_ + "/script.out");
        ASSERT_EQ(session_.status, 0) << session_.errors;
        ASSERT_FALSE(session_.frames.empty());
    }

    static json reported(const std::string &step) {
        return json::parse(read_text_file(dir_ + "/" + step + ".json"));
    }

    static std::vector<sim_device> device_file() {
        sim_driver driver;
        std::string error;
        EXPECT_EQ(sim_load_devices((dir_ + "/devices.ini").c_str(), driver, error), 0) << error;
        return driver.devices;
    }

    // The requests the simulated driver received whose line starts with
    // `kind`, each as its key=value pairs.
    static std::vector<std::map<std::string, std::string>> driver_requests(const std::string &kind) {
        std::vector<std::map<std::string, std::string>> found;
        std::istringstream log(read_text_file(dir_ + "/dypsim.log"));
        for (std::string line; std::getline(log, line);) {
            std::istringstream words(line);
            std::string word;
            if (!(words >> word) || word != kind)
                continue;
            std::map<std::string, std::string> pairs;
            while (words >> word)
                if (auto eq = word.find('='); eq != std::string::npos)
                    pairs[word.substr(0, eq)] = word.substr(eq + 1);
            found.push_back(pairs);
        }
        return found;
    }

    // The replies that complete a result of `command`, in capture order.
    static std::vector<frame> results_of(const std::string &command) {
        std::vector<frame> found;
        for (const auto &f : session_.frames)
            if (f.one("dyp.command") == command && f.has("dyp.result.length"))
                found.push_back(f);
        return found;
    }

    static const frame &by_number(unsigned long number) {
        static const frame none;
        for (const auto &f : session_.frames)
            if (f.number("frame.number") == number)
                return f;
        return none;
    }

    // The START request that opened the transfer `reply` belongs to.
    static const frame &start_of(const frame &reply) { return by_number(reply.number("dyp.request_in")); }

    static std::string dir_;
    static int script_status_;
    static dissection session_;
};

std::string LiveSession::dir_;
int LiveSession::script_status_ = -1;
dissection LiveSession::session_;

std::string holder_of(const sim_device &d) {
    if (!d.held)
        return "0.0.0.0";
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, d.host_addr.data() + 4, text, sizeof text);
    return text;
}

// A value as text, numbers in decimal whether tshark wrote them in hex or
// dypctl as JSON numbers.
std::string canonical(const json &value) {
    if (value.is_number())
        return std::to_string(value.get<unsigned long>());
    std::string text = value.get<std::string>();
    char *end = nullptr;
    unsigned long number = std::strtoul(text.c_str(), &end, 0);
    return !text.empty() && *end == '\0' ? std::to_string(number) : text;
}
std::string canonical(unsigned long number) {
    return std::to_string(number);
}

// Each field of a device list entry: tshark's name, dypctl's key, and the
// value the device file gives it (none for the description, which the
// daemon composes, or for the status word; its flag bit is checked apart).
const std::vector<std::tuple<std::string, std::string, std::function<std::string(const sim_device &)>>>
    DEVICE_COLUMNS = {
        {"dyp.dev.name", "name", [](const sim_device &d) { return d.name; }},
        {"dyp.dev.description", "description", nullptr},
        {"dyp.dev.holder", "holder", holder_of},
        {"dyp.dev.status", "status", nullptr},
        {"dyp.dev.vid", "vendor_id", [](const sim_device &d) { return canonical(d.vendor_id); }},
        {"dyp.dev.pid", "product_id", [](const sim_device &d) { return canonical(d.product_id); }},
        {"dyp.dev.location", "location", [](const sim_device &d) { return d.location; }},
        {"dyp.dev.aux1", "aux1", [](const sim_device &d) { return canonical(d.aux1); }},
        {"dyp.dev.aux2", "aux2", [](const sim_device &d) { return canonical(d.aux2); }},
        // A serial fills its 64 bytes at most.
        {"dyp.dev.serial", "serial", [](const sim_device &d) { return d.serial.substr(0, 64); }},
};

TEST_F(LiveSession, EveryFrameDecodesWithoutExpertInfoOrLuaError) {
    EXPECT_EQ(session_.errors, "");
    for (const auto &f : session_.frames) {
        SCOPED_TRACE("frame " + f.one("frame.number"));
        EXPECT_FALSE(f.has("_ws.expert")) << f.one("_ws.expert");
        EXPECT_FALSE(f.has("_ws.lua.error"));
        EXPECT_FALSE(f.has("_ws.malformed"));
        EXPECT_TRUE(f.has("dyp.type") || f.has("dyp.adv.product") || f.has("ska.magic"));
        // Every transfer was followed: each response knows its command.
        if (f.has("dyp.status"))
            EXPECT_TRUE(f.has("dyp.command"));
    }
}

TEST_F(LiveSession, DeviceListsAreReassembledAcrossWindowsAsDypctlAndTheDeviceFileSay) {
    const auto file = device_file();
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
            EXPECT_EQ(by_number(std::stoul(w)).one("dyp.command"), command) << "window " << w;
        EXPECT_EQ(start_of(r).one("dyp.command"), command);

        json list = reported(ex ? "devices-ex" : "devices");
        EXPECT_EQ(r.number("dyp.dev.count"), list["count"].get<unsigned long>());
        ASSERT_EQ(list["devices"].size(), file.size());
        EXPECT_EQ(r.all("dyp.dev.serial").size(), ex ? file.size() : 0u);
        for (const auto &[field, key, in_file] : DEVICE_COLUMNS) {
            if (key == "serial" && !ex)
                continue;
            SCOPED_TRACE(field);
            ASSERT_EQ(r.all(field).size(), file.size());
            for (size_t i = 0; i < file.size(); ++i) {
                EXPECT_EQ(canonical(r.all(field)[i]), canonical(list["devices"][i][key])) << i;
                if (in_file)
                    EXPECT_EQ(canonical(r.all(field)[i]), in_file(file[i])) << i;
            }
        }
        for (size_t i = 0; i < file.size(); ++i)
            EXPECT_EQ(r.all("dyp.flag.flagged")[i], file[i].status_flag ? "1" : "0") << i;
    }
}

TEST_F(LiveSession, ScannerStatusRepliesAnswerTheirOwnRequest) {
    auto results = results_of("GET SCANNER_STATUS");
    const std::vector<std::string> steps = {"status-scanner1", "status-unknown", "status-scanner2"};
    // The last one is dypctl's own: a refused connect reads the status to say why.
    ASSERT_EQ(results.size(), steps.size() + 1);
    json refused = reported("connect-refused");
    EXPECT_EQ(start_of(results.back()).one("dyp.scanner.ifname"), refused["interface"]);
    EXPECT_EQ("held by " + results.back().one("dyp.scanner.holder"), refused["reason"]);
    for (size_t i = 0; i < steps.size(); ++i) {
        SCOPED_TRACE(steps[i]);
        json s = reported(steps[i]);
        const frame &r = results[i];
        EXPECT_EQ(start_of(r).one("dyp.scanner.ifname"), s["interface"]);
        EXPECT_EQ(r.number("dyp.scanner.status"), s["status"].get<unsigned long>());
        EXPECT_EQ(r.one("dyp.flag.present"), s["found"].get<bool>() ? "1" : "0");
        EXPECT_EQ(r.one("dyp.scanner.holder"), s["holder"]);
        EXPECT_EQ(r.one("dyp.scanner.holder_mac"), s["holder_mac"]);
        EXPECT_EQ(r.one("dyp.scanner.box_mac"), s["box_mac"]);
        EXPECT_EQ(r.one("dyp.scanner.description"), s["description"]);
    }
}

TEST_F(LiveSession, PortNamesAndUsbPortQueriesMatchTheDevices) {
    const auto file = device_file();
    auto ports = results_of("GET SCANNER PORT_NAME");
    ASSERT_EQ(ports.size(), 1u);
    json names = reported("ports");
    ASSERT_EQ(names.size(), file.size());
    EXPECT_EQ(ports[0].number("dyp.ports.count"), file.size());
    ASSERT_EQ(ports[0].all("dyp.ports.name").size(), file.size());
    for (size_t i = 0; i < file.size(); ++i) {
        EXPECT_EQ(ports[0].all("dyp.ports.name")[i], names[i]);
        EXPECT_EQ(ports[0].all("dyp.ports.name")[i], file[i].name);
    }

    auto queries = results_of("GET USB_PORT_NAME");
    ASSERT_EQ(queries.size(), 2u);
    json found = reported("port-name");
    ASSERT_TRUE(found["found"].get<bool>());
    EXPECT_EQ(queries[0].one("dyp.usbport.found"), "1");
    EXPECT_EQ(queries[0].one("dyp.usbport.name"), found["name"]);
    // The query that found a device names that device's ids and location.
    const frame &query = start_of(queries[0]);
    const sim_device *named = nullptr;
    for (const auto &d : file)
        if (d.name == found["name"])
            named = &d;
    ASSERT_NE(named, nullptr);
    EXPECT_EQ(query.number("dyp.query.vid"), named->vendor_id);
    EXPECT_EQ(query.number("dyp.query.pid"), named->product_id);
    EXPECT_EQ(query.one("dyp.query.location"), named->location);

    EXPECT_FALSE(reported("port-name-none")["found"].get<bool>());
    EXPECT_EQ(queries[1].one("dyp.usbport.found"), "0");
    EXPECT_FALSE(queries[1].has("dyp.usbport.name"));
    EXPECT_NE(start_of(queries[1]).number("dyp.query.pid"), named->product_id);
}

TEST_F(LiveSession, ConnectParametersAreWhatTheDriverReceived) {
    auto connects = results_of("EXEC SCANNER CONNECT");
    auto driver = driver_requests("connect_ex");
    const std::vector<std::string> steps = {"connect", "connect-refused"};
    ASSERT_EQ(connects.size(), steps.size());
    ASSERT_EQ(driver.size(), steps.size());
    for (size_t i = 0; i < steps.size(); ++i) {
        SCOPED_TRACE(steps[i]);
        const frame &start = start_of(connects[i]);
        auto &got = driver[i];
        EXPECT_EQ(start.one("dyp.connect.ifname"), got["name"]);
        EXPECT_EQ(start.one("dyp.connect.ifname"), reported(steps[i])["interface"]);
        EXPECT_EQ(start.one("dyp.connect.mac"), got["mac"]);
        // The box puts 19540 in place of a zero port.
        unsigned long port = start.number("dyp.connect.port");
        EXPECT_EQ(start.one("dyp.connect.ip") + ":" + std::to_string(port ? port : 19540),
                  got["host"]);
        EXPECT_EQ(start.one("dyp.connect.options.b0"), got["opt_b0"]);
        EXPECT_EQ(start.one("dyp.connect.options.b1"), got["opt_b1"]);
        EXPECT_EQ(connects[i].one("dyp.exec.result"), reported(steps[i])["result"]);
        EXPECT_EQ(connects[i].one("dyp.exec.result"), got["result"] == "0" ? "OK" : "NG");
    }

    auto disconnects = results_of("EXEC SCANNER DISCONNECT");
    auto released = driver_requests("disconnect");
    ASSERT_EQ(disconnects.size(), 1u);
    ASSERT_EQ(released.size(), 1u);
    const frame &start = start_of(disconnects[0]);
    EXPECT_EQ(start.one("dyp.connect.ifname"), released[0]["name"]);
    EXPECT_EQ(start.one("dyp.connect.ip") + ":19540", released[0]["host"]);
    EXPECT_FALSE(start.has("dyp.connect.port")); // a disconnect carries none
    EXPECT_EQ(disconnects[0].one("dyp.exec.result"), reported("disconnect")["result"]);
}

TEST_F(LiveSession, AdvertiseRepliesOfBothPortsAreDecodedFieldByField) {
    for (const auto &[step, port] : {std::pair{"discover", "19540"}, {"discover-19541", "19541"}}) {
        SCOPED_TRACE(step);
        json boxes = reported(step);
        ASSERT_EQ(boxes.size(), 1u);
        const json &b = boxes[0];
        std::vector<frame> replies;
        for (const auto &f : session_.frames)
            if (f.has("dyp.adv.product") && f.one("udp.srcport") == port)
                replies.push_back(f);
        ASSERT_EQ(replies.size(), 1u);
        const frame &r = replies[0];
        EXPECT_EQ(r.one("dyp.adv.product"), b["product"]);
        EXPECT_EQ(r.one("dyp.adv.hostname"), b["hostname"]);
        EXPECT_EQ(r.one("dyp.adv.mac"), b["mac"]);
        EXPECT_EQ(r.one("dyp.adv.ip"), b["ip"]);
        EXPECT_EQ(r.one("dyp.adv.version"), b["version"]);
        EXPECT_EQ(r.number("dyp.adv.status"), b["status"].get<unsigned long>());
        EXPECT_EQ(r.one("dyp.adv.description"), b["device"]);
    }
}

TEST_F(LiveSession, KeepAliveAndItsEchoNameWhatTheDriverGot) {
    auto alive = driver_requests("keep_alive");
    ASSERT_EQ(alive.size(), 1u);
    std::vector<std::string> names;
    std::istringstream list(alive[0]["names"]);
    for (std::string name; std::getline(list, name, ',');)
        names.push_back(name);
    std::vector<frame> packets;
    for (const auto &f : session_.frames)
        if (f.has("ska.magic"))
            packets.push_back(f);
    ASSERT_EQ(packets.size(), 2u);
    for (size_t i = 0; i < packets.size(); ++i) {
        const frame &p = packets[i];
        EXPECT_EQ(p.one("ska.echo"), i == 0 ? "0" : "1");
        EXPECT_EQ(p.all("ska.name"), names);
        EXPECT_EQ(p.number("ska.length"), p.number("udp.length") - 8);
        EXPECT_EQ(p.number("ska.magic"), 0x4B41u);
    }
}

// ---- hand-made datagrams ------------------------------------------------------

constexpr uint16_t HOST_PORT = 40000;
const uint8_t BOX_IP[4] = {192, 0, 2, 10};
const uint8_t HOST_IP[4] = {192, 0, 2, 20};

struct datagram {
    bool from_box; // else from the host
    uint16_t box_port;
    uint16_t host_port;
    bytes payload;
};

void put16(bytes &b, size_t at, uint16_t v) {
    b[at] = uint8_t(v >> 8);
    b[at + 1] = uint8_t(v);
}

void append16(bytes &b, uint16_t v) {
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}

void append(bytes &b, const std::string &s) {
    b.insert(b.end(), s.begin(), s.end());
}

// A DYP request of the 88-byte header and `data`.
bytes request(uint16_t type, const std::string &name, uint16_t offset = 0, uint16_t length = 512,
              const bytes &data = {}) {
    bytes b(88, 0);
    put16(b, 0, type);
    std::copy(name.begin(), name.begin() + std::min<size_t>(name.size(), 80), b.begin() + 4);
    put16(b, 84, offset);
    put16(b, 86, length);
    b.insert(b.end(), data.begin(), data.end());
    return b;
}

bytes response(uint16_t type, uint16_t status, uint16_t offset, uint16_t length, const bytes &data) {
    bytes b;
    append16(b, type);
    append16(b, status);
    append16(b, offset);
    append16(b, length);
    b.insert(b.end(), data.begin(), data.end());
    return b;
}

// The name field of a connect request: ':' and the parameter block.
std::string connect_block(uint8_t format, const std::string &ifname) {
    std::string s = "EXEC SCANNER CONNECT:";
    s += char(format);
    s += char(6);
    s += std::string("\x02\x00\x5e\x00\x53\x14", 6);
    s += std::string("\xc0\x00\x02\x14", 4);
    return s + ifname;
}

bytes ska_packet(uint16_t length, uint16_t magic, const std::string &names) {
    bytes b;
    append16(b, length);
    append16(b, magic);
    append(b, names);
    return b;
}

uint16_t ip_checksum(const uint8_t *p, size_t n) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < n; i += 2)
        sum += uint32_t(p[i] << 8 | p[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return uint16_t(~sum);
}

// Writes a pcap file of IPv4/UDP packets (link type raw IP).
void write_pcap(const std::string &path, const std::vector<datagram> &datagrams) {
    std::ofstream out(path, std::ios::binary);
    auto u32 = [&](uint32_t v) { out.write(reinterpret_cast<const char *>(&v), 4); };
    auto u16 = [&](uint16_t v) { out.write(reinterpret_cast<const char *>(&v), 2); };
    u32(0xa1b2c3d4); // host order, as the format allows
    u16(2);
    u16(4);
    u32(0);
    u32(0);
    u32(65535);
    u32(101); // raw IP
    uint32_t second = 1700000000;
    for (const auto &d : datagrams) {
        bytes ip(20, 0);
        ip[0] = 0x45;
        put16(ip, 2, uint16_t(20 + 8 + d.payload.size()));
        ip[8] = 64;
        ip[9] = 17; // UDP
        std::copy(d.from_box ? BOX_IP : HOST_IP, (d.from_box ? BOX_IP : HOST_IP) + 4, ip.begin() + 12);
        std::copy(d.from_box ? HOST_IP : BOX_IP, (d.from_box ? HOST_IP : BOX_IP) + 4, ip.begin() + 16);
        put16(ip, 10, ip_checksum(ip.data(), ip.size()));
        bytes udp(8, 0); // checksum 0: none
        put16(udp, 0, d.from_box ? d.box_port : d.host_port);
        put16(udp, 2, d.from_box ? d.host_port : d.box_port);
        put16(udp, 4, uint16_t(8 + d.payload.size()));
        bytes f = ip;
        f.insert(f.end(), udp.begin(), udp.end());
        f.insert(f.end(), d.payload.begin(), d.payload.end());
        u32(second++);
        u32(0);
        u32(uint32_t(f.size()));
        u32(uint32_t(f.size()));
        out.write(reinterpret_cast<const char *>(f.data()), std::streamsize(f.size()));
    }
}

// A datagram and the expert info it must raise, or, for a datagram at the
// edge of what is well-formed, must not raise.
struct malformed_case {
    std::string what;
    datagram d;
    std::string expert;
    bool flagged = true;
};

datagram to_box(const bytes &payload, uint16_t host_port = HOST_PORT, uint16_t box_port = 19540) {
    return {false, box_port, host_port, payload};
}
datagram from_box(const bytes &payload, uint16_t host_port = HOST_PORT, uint16_t box_port = 19540) {
    return {true, box_port, host_port, payload};
}

// Runs the cases through tshark, each case's datagram preceded by the
// well-formed `lead` datagrams it needs (a START for a reply), and checks
// that the case's frame carries its expert info (or not) and that no frame
// made the dissector fail.
void expect_flagged(const std::vector<std::pair<std::vector<datagram>, malformed_case>> &cases) {
    std::vector<datagram> all;
    std::vector<size_t> last_frame;
    std::vector<std::string> fields = {"frame.number", "_ws.lua.error", "dyp.expert.internal",
                                       "ska.expert.internal"};
    for (const auto &[lead, c] : cases) {
        all.insert(all.end(), lead.begin(), lead.end());
        all.push_back(c.d);
        last_frame.push_back(all.size());
        fields.push_back(c.expert);
    }
    const std::string path = "/tmp/dyp-malformed-" + std::to_string(getpid()) + ".pcap";
    write_pcap(path, all);
    dissection d = tshark(path, fields);
    std::remove(path.c_str());
    ASSERT_EQ(d.status, 0) << d.errors;
    EXPECT_EQ(d.errors, "");
    ASSERT_EQ(d.frames.size(), all.size());
    for (const auto &f : d.frames) {
        EXPECT_FALSE(f.has("_ws.lua.error")) << "frame " << f.one("frame.number");
        EXPECT_FALSE(f.has("dyp.expert.internal")) << "frame " << f.one("frame.number");
        EXPECT_FALSE(f.has("ska.expert.internal")) << "frame " << f.one("frame.number");
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        const auto &c = cases[i].second;
        EXPECT_EQ(d.frames[last_frame[i] - 1].has(c.expert), c.flagged)
            << c.what << (c.flagged ? ": no " : ": ") << c.expert;
    }
}

TEST(MalformedDatagrams, RequestsThatTheBoxDropsOrRefusesAreFlagged) {
    DYP_REQUIRE_TSHARK();
    bytes start = request(1, "GET USB_DEVICE_LIST");
    bytes bad_marker = request(4, "");
    bad_marker[2] = 0x06;
    bad_marker[3] = 0x95;
    expect_flagged({
        {{}, {"one byte", to_box({0x01}), "dyp.expert.short"}},
        {{}, {"87 bytes", to_box(bytes(start.begin(), start.end() - 1)), "dyp.expert.short"}},
        {{}, {"511 bytes", to_box(request(1, "GET USB_PORT_NAME", 0, 512, bytes(423, 0))),
              "dyp.expert.oversize"}},
        {{}, {"type 0", to_box(request(0, "")), "dyp.expert.bad_type"}},
        {{}, {"type 5", to_box(request(5, "")), "dyp.expert.bad_type"}},
        {{}, {"marker written big-endian", to_box(bad_marker), "dyp.expert.bad_marker"}},
        {{}, {"80 characters of name", to_box(request(1, std::string(80, 'G'))),
              "dyp.expert.unterminated"}},
        {{}, {"unknown command", to_box(request(1, "GET FIRMWARE")), "dyp.expert.unknown_command"}},
        {{}, {"window past 65536", to_box(request(1, "GET USB_DEVICE_LIST", 65400, 512)),
              "dyp.expert.window"}},
        {{}, {"window past 65536 once cut to 512",
              to_box(request(1, "GET USB_DEVICE_LIST", 65025, 1000)), "dyp.expert.window"}},
        {{}, {"window ending at 65536 once cut to 512",
              to_box(request(1, "GET USB_DEVICE_LIST", 65024, 1000)), "dyp.expert.window", false}},
        {{}, {"connect with format 2", to_box(request(1, connect_block(2, std::string("s1\0", 3)))),
              "dyp.expert.params"}},
        {{}, {"connect without its block", to_box(request(1, "EXEC SCANNER CONNECT")),
              "dyp.expert.params"}},
        {{}, {"connect name running to the field's end",
              to_box(request(1, connect_block(1, std::string(60, 'n')))), "dyp.expert.unterminated"}},
        {{}, {"port query of 4 bytes", to_box(request(1, "GET USB_PORT_NAME", 0, 512, bytes(4, 1))),
              "dyp.expert.params"}},
        {{}, {"port query without data", to_box(request(1, "GET USB_PORT_NAME")), "dyp.expert.params"}},
        {{}, {"status of a 20-character interface",
              to_box(request(1, "GET SCANNER_STATUS:" + std::string(20, 'x'))), "dyp.expert.cut"}},
        {{}, {"status of a 15-character interface",
              to_box(request(1, "GET SCANNER_STATUS:" + std::string(15, 'x'))), "dyp.expert.cut",
              false}},
    });
}

TEST(MalformedDatagrams, ResponsesWhoseLengthsDoNotAddUpAreFlagged) {
    DYP_REQUIRE_TSHARK();
    // Each transfer from its own host port, so that the cases stay apart.
    auto started = [](const std::string &command, uint16_t port) {
        return std::vector<datagram>{to_box(request(1, command), port)};
    };
    bytes full(512, 0x11);
    bytes adv(164, 0);
    adv[1] = 2;
    adv[2] = 0x95;
    adv[3] = 0x06;
    adv[65] = 1;
    bytes adv_unterminated = adv;
    std::fill(adv_unterminated.begin() + 36, adv_unterminated.begin() + 52, 'P');
    bytes adv_not_one = adv;
    adv_not_one[65] = 2;
    expect_flagged({
        {{}, {"5-byte response", from_box({0, 1, 0, 0, 0}), "dyp.expert.short"}},
        {{}, {"reply to nothing", from_box(response(1, 0, 0, 1, {0}), 40100), "dyp.expert.no_start"}},
        {started("GET SCANNER PORT_NAME", 40101),
         {"length 20, 10 bytes", from_box(response(1, 0, 0, 20, bytes(10, 0)), 40101),
          "dyp.expert.length"}},
        {started("GET SCANNER PORT_NAME", 40102),
         {"521 bytes", from_box(response(1, 1, 0, 513, bytes(513, 0)), 40102), "dyp.expert.oversize"}},
        {started("GET SCANNER PORT_NAME", 40103),
         {"window past 65536", from_box(response(2, 0, 65530, 10, bytes(10, 0)), 40103),
          "dyp.expert.window"}},
        {started("GET SCANNER PORT_NAME", 40107),
         {"window ending at 65536", from_box(response(2, 0, 65526, 10, bytes(10, 0)), 40107),
          "dyp.expert.window", false}},
        {started("GET SCANNER PORT_NAME", 40104),
         {"more follows, nothing came", from_box(response(1, 1, 0, 0, {}), 40104),
          "dyp.expert.empty_window"}},
        {started("GET SCANNER PORT_NAME", 40105),
         {"status 7", from_box(response(1, 7, 0, 1, {0}), 40105), "dyp.expert.bad_status"}},
        {{to_box(request(1, "GET USB_DEVICE_LIST"), 40106),
          from_box(response(1, 1, 0, 512, full), 40106)},
         {"window at 512 missing", from_box(response(2, 0, 1024, 10, bytes(10, 0)), 40106),
          "dyp.expert.gap"}},
        {{}, {"advertise reply of 100 bytes", from_box(bytes(adv.begin(), adv.begin() + 100)),
              "dyp.expert.advertise"}},
        {{}, {"product name without NUL", from_box(adv_unterminated), "dyp.expert.advertise"}},
        {{}, {"bytes 64-65 not 1", from_box(adv_not_one), "dyp.expert.advertise"}},
    });
}

TEST(MalformedDatagrams, ResultsThatDoNotDecodeAreFlagged) {
    DYP_REQUIRE_TSHARK();
    auto exchange = [](const std::string &command, uint16_t port, const bytes &result) {
        return std::pair{std::vector<datagram>{to_box(request(1, command), port)},
                         from_box(response(1, 0, 0, uint16_t(result.size()), result), port)};
    };
    bytes cut_entry = {2};
    append(cut_entry, std::string("scanner1\0desc\0\xc0\x00", 16));
    bytes long_name = {1};
    append(long_name, std::string(20, 'n'));
    bytes status(18, 0);
    append(status, std::string("Not Connected\0trailing", 22));
    bytes ports = {3};
    append(ports, std::string("scanner1\0", 9));
    std::vector<std::pair<std::vector<datagram>, malformed_case>> cases;
    auto add = [&](const std::string &what, const std::string &command, uint16_t port,
                   const bytes &result, const std::string &expert) {
        auto [lead, reply] = exchange(command, port, result);
        cases.push_back({lead, {what, reply, expert}});
    };
    add("list ends inside an entry", "GET USB_DEVICE_LIST_EX", 40201, cut_entry, "dyp.expert.truncated");
    add("name of 20 characters", "GET USB_DEVICE_LIST", 40202, long_name, "dyp.expert.unterminated");
    add("status with trailing bytes", "GET SCANNER_STATUS:s1", 40203, status, "dyp.expert.trailing");
    add("count 3, one name", "GET SCANNER PORT_NAME", 40204, ports, "dyp.expert.count");
    add("empty device list", "GET USB_DEVICE_LIST", 40205, {}, "dyp.expert.truncated");
    add("found flag 2", "GET USB_PORT_NAME", 40206, {2}, "dyp.expert.bad_result");
    add("exec answer MAYBE", connect_block(1, std::string("s1\0\0\0\0", 6)), 40207,
        {'M', 'A', 'Y', 'B', 'E'}, "dyp.expert.bad_result");
    expect_flagged(cases);
}

TEST(MalformedDatagrams, KeepAlivesThatTheBoxIgnoresOrDoesNotActOnAreFlagged) {
    DYP_REQUIRE_TSHARK();
    auto ska = [](const bytes &payload) { return to_box(payload, HOST_PORT, 49235); };
    expect_flagged({
        {{}, {"4 bytes", ska({0, 4, 'K', 'A'}), "ska.expert.short"}},
        {{}, {"length 10, 12 bytes", ska(ska_packet(10, 0x4B41, std::string("abcdef\0\0", 8))),
              "ska.expert.length"}},
        {{}, {"magic AK", ska(ska_packet(6, 0x414B, std::string("\0\0", 2))), "ska.expert.magic"}},
        {{}, {"name without NUL", ska(ska_packet(7, 0x4B41, "abc")), "ska.expert.unterminated"}},
        {{}, {"names not closed", ska(ska_packet(8, 0x4B41, std::string("abc\0", 4))),
              "ska.expert.no_end"}},
        {{}, {"name of 16 characters", ska(ska_packet(22, 0x4B41, std::string(16, 'n') + std::string(2, '\0'))),
              "ska.expert.cut"}},
        {{}, {"name of 15 characters", ska(ska_packet(21, 0x4B41, std::string(15, 'n') + std::string(2, '\0'))),
              "ska.expert.cut", false}},
        {{}, {"bytes after the empty name",
              ska(ska_packet(12, 0x4B41, std::string("ab\0\0xy\0\0", 8))), "ska.expert.trailing"}},
        {{}, {"4085 bytes", ska(ska_packet(4085, 0x4B41, std::string(4081, '\0'))),
              "ska.expert.oversize"}},
    });
}

TEST(DissectorPreferences, ExtraPortsAreDecodedOnlyWhenConfigured) {
    DYP_REQUIRE_TSHARK();
    const std::string path = "/tmp/dyp-ports-" + std::to_string(getpid()) + ".pcap";
    write_pcap(path, {to_box(request(1, "GET SCANNER PORT_NAME"), HOST_PORT, 5000),
                      from_box(response(1, 0, 0, 10, {1, 's', 'c', 'a', 'n', 'n', 'e', 'r', '1', 0}),
                               HOST_PORT, 5000)});
    dissection plain = tshark(path, {"dyp.command", "dyp.ports.name"});
    dissection extra = tshark(path, {"dyp.command", "dyp.ports.name"}, "-o dyp.extra_ports:4000,5000-5001");
    std::remove(path.c_str());
    ASSERT_EQ(plain.status, 0) << plain.errors;
    ASSERT_EQ(extra.status, 0) << extra.errors;
    ASSERT_EQ(plain.frames.size(), 2u);
    ASSERT_EQ(extra.frames.size(), 2u);
    EXPECT_FALSE(plain.frames[1].has("dyp.command"));
    // Port 5000 is then a DYP port: the reply is told apart by its source.
    EXPECT_EQ(extra.frames[0].one("dyp.command"), "GET SCANNER PORT_NAME");
    EXPECT_EQ(extra.frames[1].one("dyp.command"), "GET SCANNER PORT_NAME");
    EXPECT_EQ(extra.frames[1].all("dyp.ports.name"), std::vector<std::string>{"scanner1"});
}

} // namespace
