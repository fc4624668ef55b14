// dypctl as a person runs it: its output and exit status against the daemon
// with the simulated driver (root: network namespaces), and on loopback
// against boxes that stay silent, truncate, or answer around the question.
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/dypctl_runner.h"
#include "support/fake_box.h"

namespace {

using nlohmann::json;

// Devices of the examples plus two that trip the selectors and the JSON
// writer: scanner4 shares scanner2's ids, and its description holds valid
// multi-byte UTF-8 next to bytes that are not UTF-8 at all.
const char EXTRA_DEVICES[] = "\n[scanner4]\nmanufacturer=Caf\xc3\xa9 \xe6\x9d\xb1\n"
                             "product=Bad\xff\xfe"
                             "End\nvendor_id=0x2b7c\nproduct_id=0x00c2\n"
                             "location=H115\nserial=DUP-4\n";

// dypd with the simulated driver in a box namespace, dypctl in the host
// namespace across the link.
class DypctlDaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        ASSERT_TRUE(bed.ready());
        host_link = bed.host_link();
        box_mac = bed.box_mac();
        host_mac = run_shell_output("ip netns exec " + bed.host().name() + " cat /sys/class/net/" +
                                    host_link + "/address")
                       .substr(0, 17);
        devices = bed.dir() + "/devices.ini";
        write_text_file(devices,
                        read_text_file(DYPTEST_SOURCE_DIR "/examples/devices.ini") + EXTRA_DEVICES);
        start_box(0, "Ctl Scan Hub", "ctlbox");
    }

    void start_box(int box, const std::string &product, const std::string &hostname) {
        const std::string conf = bed.dir() + "/dypd" + std::to_string(box) + ".conf";
        write_text_file(conf, "product=" + product + "\nhostname=" + hostname + "\n");
        auto serials = example_serials();
        serials["1-1.5"] = "DUP-4";
        ASSERT_TRUE(bed.start(
            daemon_script_with(conf, devices, serials, "DYPSIM_LOG=" + sim_log(box)), {19540}, box))
            << "no daemon:\n"
            << bed.output(box);
    }

    std::string sim_log(int box) const { return bed.dir() + "/sim" + std::to_string(box) + ".log"; }

    dypctl_result in_host(const std::string &args) {
        return run_dypctl(args, "ip netns exec " + bed.host().name() + " ");
    }
    dypctl_result in_box(int box, const std::string &args) {
        return run_dypctl(args, "ip netns exec " + bed.box(box).name() + " ");
    }

    sim_testbed bed{2};
    std::string host_link, box_mac, host_mac, devices;
};

TEST_F(DypctlDaemonTest, DiscoverListsEachBoxOnceOnEveryInterface) {
    start_box(1, "Second Hub", "otherbox");
    expect_run(in_host("discover --interface " + host_link + " --timeout 0.5"), 0,
               {"192.0.2.1:19540", box_mac, "Ctl Scan Hub", "ctlbox", "Ver 2.2.0", "present",
                "192.0.2.3:19540", bed.box_mac(1), "Second Hub", "otherbox"});
    // No default route in the host namespace: the request goes out on the
    // bridge's broadcast address all the same, and each box is listed once
    // although it may answer more than one broadcast.
    auto boxes = parsed_json(in_host("discover --json"));
    ASSERT_EQ(boxes.size(), 2u) << boxes;
    std::set<std::string> ips;
    for (const auto &b : boxes)
        ips.insert(b["ip"].get<std::string>());
    EXPECT_EQ(ips, (std::set<std::string>{"192.0.2.1", "192.0.2.3"}));
    EXPECT_EQ(boxes[0]["device"], "Northwind Imaging DocuFeed 410");
}

TEST_F(DypctlDaemonTest, DevicesPortsAndStatus) {
    expect_run(in_host("devices 192.0.2.1 --ex"), 0,
               {"4 interface(s) counted, 4 listed", "1f3a:0410", "192.0.2.20", "NW410A00017"});
    EXPECT_EQ(in_host("ports 192.0.2.1 --json").out,
              "[\"scanner1\",\"scanner2\",\"scanner3\",\"scanner4\"]\n");
    // Ids are hexadecimal with or without 0x: 0410 is 0x0410, not octal.
    expect_run(in_host("port-name 192.0.2.1 --vid 1f3a --pid 0410 --location H112"), 0,
               {"scanner1\n"});
    expect_run(in_host("port-name 192.0.2.1 --vid 0x1f3b --pid 0x0410 --location H112 --json"), 1,
               {"\"found\":false"});
    expect_run(in_host("status 192.0.2.1 scanner3"), 0, {"0x8483", "flagged", box_mac});
    // A device the box does not know is a refusal, as for port-name.
    expect_run(in_host("status 192.0.2.1 nosuch --json"), 1,
               {"\"found\":false", "\"status\":32898", "\"description\":\"Not Connected\""});
}

TEST_F(DypctlDaemonTest, SelectorsResolveByNameSerialOrIdsAndNeverGuess) {
    auto by_serial = parsed_json(in_host("status 192.0.2.1 serial:FPS2-88231 --json"));
    EXPECT_EQ(by_serial["interface"], "scanner2");
    EXPECT_EQ(by_serial["serial"], "FPS2-88231");
    expect_run(in_host("status 192.0.2.1 usb:3c41:7a01"), 0, {"interface   scanner3"});
    expect_run(in_host("connect 192.0.2.1 serial:CO7A01X9"), 0, {"connect scanner3: OK"});
    expect_run(in_host("disconnect 192.0.2.1 usb:3C41:7A01"), 0, {"disconnect scanner3: OK"});
    expect_run(in_host("status 192.0.2.1 serial:NOPE"), 1,
               {"no device matches serial:NOPE on 192.0.2.1"});
    expect_run(in_host("connect 192.0.2.1 usb:2b7c:00c2"), 1,
               {"2 devices match usb:2b7c:00c2", "scanner2  serial FPS2-88231  location H113",
                "scanner4  serial DUP-4  location H115"});
    EXPECT_EQ(in_host("status 192.0.2.1 usb:12345:1").status, 2);
}

TEST_F(DypctlDaemonTest, BoxesByAdvertisedNameAndTwoOfOneName) {
    expect_run(in_host("status CtlBox scanner2"), 0, {"interface   scanner2", box_mac});
    expect_run(in_host("devices CTLBOX --interface " + host_link), 0, {"4 interface(s)"});
    start_box(1, "Twin", "ctlbox");
    expect_run(in_host("ports ctlbox"), 1,
               {"2 boxes are named \"ctlbox\"", "ctlbox at 192.0.2.1", "ctlbox at 192.0.2.3"});
    // Neither a box's name nor one the resolver knows.
    auto unknown = in_host("ports nosuchbox.invalid --address 192.0.2.255");
    expect_run(unknown, 5, {"cannot resolve \"nosuchbox.invalid\""});
    EXPECT_EQ(unknown.out.find("--help"), std::string::npos) << unknown.out;
}

TEST_F(DypctlDaemonTest, ConnectSaysWhyTheBoxRefusedAndSendsDecimalPorts) {
    EXPECT_EQ(in_host("connect 192.0.2.1 scanner2 --port 010").out, "connect scanner2: OK\n");
    EXPECT_NE(read_text_file(sim_log(0)).find("connect_ex name=scanner2 host=192.0.2.2:10 "),
              std::string::npos)
        << read_text_file(sim_log(0));
    expect_run(in_host("status 192.0.2.1 scanner2 --json"), 0,
               {"\"holder\":\"192.0.2.2\"", "\"holder_mac\":\"" + host_mac + "\""});
    expect_run(in_box(1, "connect 192.0.2.1 scanner2"), 1,
               {"connect scanner2: NG (held by 192.0.2.2)"});
    expect_run(in_host("keepalive 192.0.2.1 scanner2"), 0,
               {"keep-alive 1 to 192.0.2.1:49235: echoed"});
    EXPECT_EQ(in_host("disconnect 192.0.2.1 scanner2 --json").out,
              "{\"interface\":\"scanner2\",\"result\":\"OK\"}\n");
    expect_run(in_host("connect 192.0.2.1 nosuch --json"), 1,
               {"\"result\":\"NG\"", "\"reason\":\"unknown to the box\""});
}

TEST_F(DypctlDaemonTest, JsonOfEveryCommandParsesAndIsUtf8) {
    const std::string good = "Caf\xc3\xa9 \xe6\x9d\xb1 ";
    const std::string replaced = "Bad\xef\xbf\xbd\xef\xbf\xbd"
                                 "End"; // U+FFFD twice
    auto list = parsed_json(in_host("devices 192.0.2.1 --ex --json"));
    ASSERT_EQ(list["devices"].size(), 4u) << list;
    EXPECT_EQ(list["devices"][3]["description"], good + replaced);
    EXPECT_EQ(parsed_json(in_host("devices 192.0.2.1 --json"))["count"], 4);
    EXPECT_EQ(parsed_json(in_host("status 192.0.2.1 scanner4 --json"))["description"],
              good + replaced);
    EXPECT_EQ(parsed_json(in_host("port-name 192.0.2.1 --vid 2b7c --pid c2 --location H115 "
                                  "--json"))["name"],
              "scanner4");
    EXPECT_EQ(parsed_json(in_host("ports 192.0.2.1 --json")).size(), 4u);
    EXPECT_EQ(parsed_json(in_host("connect 192.0.2.1 scanner4 --json"))["result"], "OK");
    EXPECT_EQ(parsed_json(in_host("keepalive 192.0.2.1 scanner4 --json"))["echo"], true);
    EXPECT_EQ(parsed_json(in_host("disconnect 192.0.2.1 scanner4 --json"))["result"], "OK");
    EXPECT_EQ(parsed_json(in_host("discover --json")).size(), 1u);
}

// A box on loopback that answers each request with `replies` first, then
// the right answer: a one-window list of port names.
std::vector<fake_box::packet> noise_then_answer(const fake_box::packet &req) {
    fake_box::packet answer = {req[0], req[1], 0, 0, req[84], req[85], 0, 4, 1, 'u', '1', 0};
    fake_box::packet wrong_type = answer, wrong_offset = answer;
    wrong_type[1] = 9;
    wrong_offset[5] ^= 1;
    return {{1, 2, 3}, wrong_type, wrong_offset, answer};
}

TEST(DypctlLoopback, SilenceExits3AndATruncatedReplyExits4) {
    fake_box silent([](const fake_box::packet &, int) { return std::vector<fake_box::packet>{}; });
    expect_run(run_dypctl("devices " + silent.host() + " --timeout 0.1 --retries 1"), 3,
               {"timeout: no answer from " + silent.host() + " after 2 attempt(s)"});
    // The window claims 512 bytes but carries 100.
    fake_box truncating([](const fake_box::packet &req, int) {
        fake_box::packet out = {req[0], req[1], 0, 1, 0, 0, 0x02, 0x00};
        out.resize(8 + 100, 0x41);
        return std::vector<fake_box::packet>{out};
    });
    expect_run(run_dypctl("ports " + truncating.host() + " --timeout 0.5"), 4,
               {"malformed reply: window: length field says 512 but 100 bytes came"});
}

TEST(DypctlLoopback, DatagramsThatDoNotAnswerTheRequestAreSkipped) {
    fake_box noisy([](const fake_box::packet &req, int) {
        return req[1] == 3 ? std::vector<fake_box::packet>{} : noise_then_answer(req);
    });
    EXPECT_EQ(run_dypctl("ports " + noisy.host() + " --json --timeout 0.5 --retries 0").out,
              "[\"u1\"]\n");
}

TEST(DypctlLoopback, KeepaliveReportsAMissedEchoAndGoesOn) {
    // Echoes the first and third keep-alive, never the second.
    fake_box flaky([](const fake_box::packet &req, int index) {
        return index == 1 ? std::vector<fake_box::packet>{} : std::vector<fake_box::packet>{req};
    });
    auto counted = run_dypctl("keepalive " + flaky.host() +
                              " scanner1 --count 3 --interval 0.01 "
                              "--timeout 0.1 --retries 0 --json");
    EXPECT_EQ(counted.status, 0) << counted.out;
    std::vector<bool> echoes;
    std::istringstream lines(counted.out);
    for (std::string line; std::getline(lines, line);)
        echoes.push_back(json::parse(line).at("echo").get<bool>());
    EXPECT_EQ(echoes, (std::vector<bool>{true, false, true})) << counted.out;

    fake_box silent([](const fake_box::packet &, int) { return std::vector<fake_box::packet>{}; });
    expect_run(run_dypctl("keepalive " + silent.host() + " scanner1 --timeout 0.1 --retries 0"), 3,
               {"keep-alive 1 to " + silent.host() + ": no echo"});
    // Under --json every failure is a JSON object as well, also one that ends the run.
    auto failed = run_dypctl("keepalive " + silent.host() +
                             " serial:X --json --timeout 0.1 --retries 0 2>/dev/null");
    EXPECT_EQ(failed.status, 3);
    EXPECT_EQ(parsed_json(failed)["exit_status"], 3);
    // --count 0 runs until interrupted, and an interrupt is a normal end.
    // --foreground: otherwise timeout signals its whole process group as
    // well, and the second SIGINT rightly ends dypctl at once (status 130).
    fake_box echo(
        [](const fake_box::packet &req, int) { return std::vector<fake_box::packet>{req}; });
    auto endless = run_dypctl("keepalive " + echo.host() + " scanner1 --count 0 --interval 0.05",
                              "timeout --foreground --preserve-status -s INT " +
                                  std::to_string(0.6 + START_ALLOWANCE_S) + " ");
    expect_run(endless, 0, {"keep-alive 3 to"});
}

TEST(DypctlLoopback, UsageErrorsExit2) {
    for (const char *args :
         {"", "frobnicate", "devices", "status 127.0.0.1", "devices 127.0.0.1 --bogus",
          "devices 127.0.0.1:70000", "port-name 127.0.0.1 --vid 1", "discover --timeout -1",
          "connect 127.0.0.1 sixteencharsxxxx", "devices 127.0.0.1 --port 5",
          "status 127.0.0.1 scanner1 --count 2", "discover --address 192.0.2",
          "devices 127.0.0.1 --timeout 0", "devices [::1]:19540", "ports ::1",
          "port-name 127.0.0.1 --vid 1g --pid 1 --location H1",
          "connect 127.0.0.1 scanner1 --port 0x10", "connect 127.0.0.1 scanner1 --mac 1:2:3",
          "inventory --parallel 0"})
        EXPECT_EQ(run_dypctl(args).status, 2) << "dypctl " << args;
    expect_run(run_dypctl("devices 127.0.0.1 --timout=2"), 2, {"did you mean --timeout?"});
    expect_run(run_dypctl("ports ::1"), 2, {"IPv4 only"});
    expect_run(run_dypctl("--help"), 0, {"exit status: 0 success, 1 refused", "hold", "inventory"});
    expect_run(run_dypctl("hold --help"), 0, {"--retry-max", "--check", "--interval"});
    expect_run(run_dypctl("--version"), 0, {"dypctl 1."});
}

} // namespace
