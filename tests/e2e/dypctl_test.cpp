// dypctl as a person runs it: its output and exit status against the daemon
// with the simulated driver (root: network namespaces) — hold through a
// daemon restart, inventory over a LAN of ten daemons and a mute box — and
// on loopback against boxes that stay silent, truncate, or answer around
// the question.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "lib/fd.h"
#include "support/dypctl_runner.h"
#include "support/fake_box.h"

namespace {

using nlohmann::json;
using std::chrono::steady_clock;
using packets = std::vector<fake_box::packet>;

// The example devices and scanner4, which trips the selectors and the JSON
// writer: it shares scanner2's ids, and its description holds valid
// multi-byte UTF-8 next to bytes that are not UTF-8 at all.
const char EXTRA_DEVICE[] =
    "\n[scanner4]\nmanufacturer=Caf\xc3\xa9 \xe6\x9d\xb1\nproduct=Bad\xff\xfe"
    "End\nvendor_id=0x2b7c\nproduct_id=0x00c2\nlocation=H115\nserial=DUP-4\n";

class DypctlDaemonTest : public dypctl_bed_test {
  protected:
    DypctlDaemonTest() : dypctl_bed_test(2) {}
    void start_daemons() override { start_box(0, "Ctl Scan Hub", "ctlbox"); }

    void start_box(int box, const std::string &product, const std::string &hostname) {
        auto serials = EXAMPLE_SERIALS;
        serials["1-1.5"] = "DUP-4";
        start_daemon(box, "product=" + product + "\nhostname=" + hostname + "\n",
                     examples + EXTRA_DEVICE, serials, "DYPSIM_LOG=" + sim_log(box));
    }
    std::string sim_log(int box) const { return bed.dir() + "/sim" + std::to_string(box) + ".log"; }
};

TEST_F(DypctlDaemonTest, DiscoverListsEachBoxOnceOnEveryInterface) {
    start_box(1, "Second Hub", "otherbox");
    expect_run(in_host("discover --interface " + bed.host_link() + " --timeout 0.5"), 0,
               {"192.0.2.1:19540", bed.box_mac(0), "Ctl Scan Hub", "ctlbox", "Ver 2.2.0", "present",
                "192.0.2.3:19540", bed.box_mac(1), "Second Hub", "otherbox"});
    // No default route in the host namespace: the request goes out on the
    // bridge's broadcast address all the same, and each box is listed once
    // although it may answer more than one broadcast.
    auto boxes = parsed_json(in_host("discover --json"));
    ASSERT_EQ(boxes.size(), 2u) << boxes;
    EXPECT_NE(boxes[0]["ip"], boxes[1]["ip"]);
    EXPECT_EQ(boxes[0]["device"], "Northwind Imaging DocuFeed 410");
}

TEST_F(DypctlDaemonTest, DevicesPortsStatusAndSelectors) {
    expect_run(in_host("devices 192.0.2.1 --ex"), 0,
               {"4 interface(s) counted, 4 listed", "1f3a:0410", "192.0.2.20", "NW410A00017"});
    EXPECT_EQ(in_host("ports 192.0.2.1 --json").out,
              "[\"scanner1\",\"scanner2\",\"scanner3\",\"scanner4\"]\n");
    // Ids are hexadecimal with or without 0x: 0410 is 0x0410, not octal.
    expect_run(in_host("port-name 192.0.2.1 --vid 1f3a --pid 0410 --location H112"), 0,
               {"scanner1\n"});
    expect_run(in_host("port-name 192.0.2.1 --vid 0x1f3b --pid 0x0410 --location H112 --json"), 1,
               {"\"found\":false"});
    expect_run(in_host("status 192.0.2.1 scanner3"), 0, {"0x8483", "flagged", bed.box_mac(0)});
    // A device the box does not know is a refusal, as for port-name.
    expect_run(in_host("status 192.0.2.1 nosuch --json"), 1,
               {"\"found\":false", "\"status\":32898", "\"description\":\"Not Connected\""});
    // Selectors resolve through the extended list, and never guess.
    expect_run(in_host("status 192.0.2.1 serial:FPS2-88231 --json"), 0,
               {"\"interface\":\"scanner2\"", "\"serial\":\"FPS2-88231\""});
    expect_run(in_host("connect 192.0.2.1 serial:CO7A01X9"), 0, {"connect scanner3: OK"});
    expect_run(in_host("disconnect 192.0.2.1 usb:3C41:7A01"), 0, {"disconnect scanner3: OK"});
    expect_run(in_host("status 192.0.2.1 serial:NOPE"), 1, {"no device matches serial:NOPE"});
    expect_run(in_host("connect 192.0.2.1 usb:2b7c:00c2"), 1,
               {"2 devices match", "scanner4  serial DUP-4  location H115"});
}

TEST_F(DypctlDaemonTest, BoxesByAdvertisedNameAndTwoOfOneName) {
    expect_run(in_host("status CtlBox scanner2"), 0, {"interface   scanner2", bed.box_mac(0)});
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
    const std::string host_mac =
        run_shell_output("ip netns exec " + bed.host().name() + " cat /sys/class/net/" +
                         bed.host_link() + "/address");
    expect_run(in_host("status 192.0.2.1 scanner2 --json"), 0,
               {"\"holder\":\"192.0.2.2\"", "\"holder_mac\":\"" + host_mac.substr(0, 17) + "\""});
    expect_run(in_ns(bed.box(1), "connect 192.0.2.1 scanner2"), 1,
               {"connect scanner2: NG (held by 192.0.2.2)"});
    expect_run(in_host("keepalive 192.0.2.1 scanner2"), 0,
               {"keep-alive 1 to 192.0.2.1:49235: echoed"});
    EXPECT_EQ(in_host("disconnect 192.0.2.1 scanner2 --json").out,
              "{\"interface\":\"scanner2\",\"result\":\"OK\"}\n");
    expect_run(in_host("connect 192.0.2.1 nosuch --json"), 1,
               {"\"result\":\"NG\"", "\"reason\":\"unknown to the box\""});
}

// (dypctl's JSON of every command is parsed by the dissector's test too.)
TEST_F(DypctlDaemonTest, JsonKeepsValidUtf8AndReplacesEachInvalidByte) {
    const std::string description = "Caf\xc3\xa9 \xe6\x9d\xb1 Bad\xef\xbf\xbd\xef\xbf\xbd"
                                    "End";
    auto list = parsed_json(in_host("devices 192.0.2.1 --ex --json"));
    EXPECT_EQ(list["devices"][3]["description"], description) << list;
    EXPECT_EQ(parsed_json(in_host("status 192.0.2.1 scanner4 --json"))["description"], description);
}

// Fast paces, so that a lost device is noticed and retaken within a
// second or two.
const char PACE[] = " --json --interval 0.2 --check 0.3 --timeout 0.3 --retries 1 --retry-max 1";

class DypctlHoldTest : public dypctl_bed_test {
  protected:
    DypctlHoldTest() : dypctl_bed_test(2) {}
    void start_daemons() override { start_daemon(0, "hostname=holdbox\n", examples); }
    void TearDown() override {
        if (hold_pid > 0 && kill(hold_pid, SIGKILL) == 0)
            (void)waitpid(hold_pid, nullptr, 0);
    }

    // Kills every process of the box namespace (the daemon) and reaps it.
    void kill_daemon() {
        std::istringstream pids(run_shell_output("ip netns pids " + bed.box(0).name()));
        for (pid_t pid; pids >> pid; (void)waitpid(pid, nullptr, 0))
            (void)kill(pid, SIGKILL);
    }

    // Starts `dypctl hold ARGS` in the host namespace, its output going to a file.
    void start_hold(const std::string &args) {
        hold_out = bed.dir() + "/hold.out";
        // Each exec keeps the process, so the pid is dypctl's own.
        const std::string command = "exec ip netns exec " + bed.host().name() +
                                    " " DYPTEST_EMULATOR DYPCTL_BINARY " hold 192.0.2.1 " + args +
                                    PACE + " >" + hold_out + " 2>&1";
        if ((hold_pid = fork()) == 0) {
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        ASSERT_GE(hold_pid, 0);
    }

    // The events printed so far, one JSON object per line.
    std::vector<json> events() const {
        std::vector<json> all;
        std::istringstream lines(read_text_file(hold_out));
        for (std::string line; std::getline(lines, line);) {
            auto e = json::parse(line, nullptr, false);
            EXPECT_FALSE(e.is_discarded()) << "not JSON: " << line;
            if (!e.is_discarded())
                all.push_back(e);
        }
        return all;
    }

    // Waits for the first event named `name`; the hold's own waits are
    // bounded, so 20 s is far beyond any of them.
    json await_event(const std::string &name) {
        for (auto end = steady_clock::now() + std::chrono::seconds(20); steady_clock::now() < end;
             std::this_thread::sleep_for(std::chrono::milliseconds(20)))
            for (const auto &e : events())
                if (e["event"] == name)
                    return e;
        ADD_FAILURE() << "no event " << name << " in:\n" << read_text_file(hold_out);
        return json();
    }

    // Interrupts the hold and returns its exit status.
    int interrupt_hold() {
        int status = 0;
        (void)kill(hold_pid, SIGINT);
        (void)waitpid(std::exchange(hold_pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string holder_of(const std::string &device) {
        return parsed_json(in_host("status 192.0.2.1 " + device + " --json"))["holder"];
    }
    std::string hold_out;
    pid_t hold_pid = -1;
};

TEST_F(DypctlHoldTest, KeepsTheDeviceThroughADaemonRestartAndReleasesItOnInterrupt) {
    start_hold("serial:FPS2-88231");
    json e = await_event("connected");
    EXPECT_EQ(json({e["interface"], e["serial"], e["box"]}),
              json({"scanner2", "FPS2-88231", "192.0.2.1"}));
    EXPECT_EQ(holder_of("scanner2"), "192.0.2.2");
    // The daemon dies; it comes back with every device free, and the serial
    // number now under another interface name.
    kill_daemon();
    await_event("lost");
    std::string renamed = examples;
    start_daemon(0, "hostname=holdbox\n",
                 renamed.replace(renamed.find("[scanner2]"), 10, "[scanner7]"));
    e = await_event("reconnected");
    EXPECT_EQ(json({e["interface"], e["holder"]}), json({"scanner7", "192.0.2.2"}));
    EXPECT_EQ(holder_of("scanner7"), "192.0.2.2");
    EXPECT_EQ(interrupt_hold(), 0);
    // One line per change of state, no repeats while the box was away.
    std::vector<std::string> names;
    for (const auto &e : events())
        names.push_back(e["event"]);
    EXPECT_EQ(names, (std::vector<std::string>{"connected", "lost", "box-back", "reconnected",
                                               "released"}))
        << read_text_file(hold_out);
    EXPECT_EQ(holder_of("scanner7"), "0.0.0.0");
}

TEST_F(DypctlHoldTest, WaitsWhileAnotherHostHoldsTheDeviceThenTakesIt) {
    expect_run(in_ns(bed.box(1), "connect 192.0.2.1 scanner3"), 0, {"OK"});
    start_hold("scanner3");
    EXPECT_EQ(await_event("held-by-another")["holder"], "192.0.2.3");
    EXPECT_EQ(holder_of("scanner3"), "192.0.2.3") << "hold must not take it";
    expect_run(in_ns(bed.box(1), "disconnect 192.0.2.1 scanner3"), 0, {"OK"});
    EXPECT_EQ(await_event("connected")["holder"], "192.0.2.2");
    EXPECT_EQ(interrupt_hold(), 0);
}

constexpr int DAEMONS = 10;

class DypctlInventoryTest : public dypctl_bed_test {
  protected:
    DypctlInventoryTest() : dypctl_bed_test(DAEMONS + 1) {}
    void start_daemons() override {
        for (int i = 0; i < DAEMONS; ++i)
            start_daemon(i, "hostname=box" + std::to_string(i) + "\n", examples);
        // The eleventh box: a socket belongs to the namespace it is made in.
        netns_scope inside(bed.box(DAEMONS).name());
        ASSERT_TRUE(inside.ok());
        mute = unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in self{AF_INET, htons(19540), {htonl(INADDR_ANY)}, {}};
        ASSERT_EQ(bind(mute.get(), reinterpret_cast<sockaddr *>(&self), sizeof self), 0);
        mute_box = std::thread([this] { answer_advertise_only(); });
    }
    void TearDown() override {
        stopping = true;
        if (mute_box.joinable())
            mute_box.join();
    }

    // Answers advertise requests as the box "mute"; any other goes unanswered.
    void answer_advertise_only() {
        for (uint8_t in[600]; !stopping;) {
            pollfd p{mute.get(), POLLIN, 0};
            sockaddr_in from{};
            socklen_t size = sizeof from;
            if (poll(&p, 1, 50) <= 0 ||
                recvfrom(mute.get(), in, sizeof in, 0, reinterpret_cast<sockaddr *>(&from), &size) <
                    88 ||
                in[0] != 0 || in[1] != 4)
                continue;
            uint8_t reply[164] = {0x00, 0x02, in[2], in[3]};
            memcpy(reply + 36, "Mute", 4);
            reply[65] = 1;
            memcpy(reply + 116, "mute", 4);
            (void)sendto(mute.get(), reply, sizeof reply, 0, reinterpret_cast<sockaddr *>(&from),
                         size);
        }
    }

    unique_fd mute{-1};
    std::atomic<bool> stopping = false;
    std::thread mute_box;
};

TEST_F(DypctlInventoryTest, ListsEveryDeviceOfEveryBoxAndTheSilentBoxWithItsError) {
    auto run = in_host("inventory --json --timeout " + MANY_BOXES_TIMEOUT +
                       " --retries 1 --parallel 4");
    EXPECT_EQ(run.status, 3) << "a box without its list makes the run incomplete";
    auto doc = parsed_json(run);
    ASSERT_EQ(doc["boxes"].size(), size_t(DAEMONS + 1)) << doc;
    std::set<std::string> devices;
    int mute = 0;
    for (const auto &box : doc["boxes"]) {
        if (box["hostname"] == "mute" && ++mute) {
            EXPECT_FALSE(box.contains("devices"));
            EXPECT_NE(box["error"].get<std::string>().find("no answer from"), std::string::npos)
                << box;
            continue;
        }
        ASSERT_EQ(box["devices"].size(), 3u) << box;
        for (const auto &d : box["devices"])
            devices.insert(box["hostname"].get<std::string>() + "/" +
                           d["interface"].get<std::string>() + "=" +
                           d["serial"].get<std::string>());
        EXPECT_EQ(box["devices"][0]["holder"], "192.0.2.20");
        EXPECT_EQ(box["devices"][0]["vid_pid"], "1f3a:0410");
    }
    EXPECT_EQ(devices.size(), size_t(3 * DAEMONS)) << "each device of each box once";
    EXPECT_EQ(devices.count("box7/scanner2=FPS2-88231"), 1u);
    EXPECT_EQ(mute, 1);

    // The table says the same, one line per device and one for the error.
    expect_run(in_host("inventory --timeout " + MANY_BOXES_TIMEOUT + " --retries 0"), 3,
               {"box9", "192.0.2.19", "scanner3", "3c41:7a01", "CO7A01X9", "F114", "mute",
                "192.0.2.21      error: no answer"});
}

// A box on loopback that never answers.
fake_box::script silence = [](const fake_box::packet &, int) { return packets{}; };

TEST(DypctlLoopback, SilenceExits3AndATruncatedReplyExits4) {
    fake_box silent(silence);
    expect_run(run_dypctl("devices " + silent.host() + " --timeout 0.1 --retries 1"), 3,
               {"timeout: no answer from " + silent.host() + " after 2 attempt(s)"});
    // The window claims 512 bytes but carries 100.
    fake_box truncating([](const fake_box::packet &req, int) {
        fake_box::packet out = {req[0], req[1], 0, 1, 0, 0, 0x02, 0x00};
        out.resize(8 + 100, 0x41);
        return packets{out};
    });
    expect_run(run_dypctl("ports " + truncating.host() + " --timeout 0.5"), 4,
               {"malformed reply: window: length field says 512 but 100 bytes came"});
}

// A UDP socket bound to `ip`:`port` (0: the kernel's choice, put in `port`).
unique_fd udp_bound(const char *ip, uint16_t &port) {
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in a{AF_INET, htons(port), {inet_addr(ip)}, {}};
    socklen_t size = sizeof a;
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&a), size), 0);
    EXPECT_EQ(getsockname(fd.get(), reinterpret_cast<sockaddr *>(&a), &size), 0);
    port = ntohs(a.sin_port);
    return fd;
}

TEST(DypctlLoopback, DatagramsThatDoNotAnswerTheRequestAreSkipped) {
    // The box, a stranger at another address on the box's port, and one at
    // the box's address on another port.
    uint16_t port = 0, other = 0;
    unique_fd box = udp_bound("127.0.0.1", port), other_ip = udp_bound("127.0.0.2", port),
              other_port = udp_bound("127.0.0.1", other);
    dypctl_result r;
    std::thread run([&] {
        r = run_dypctl("ports 127.0.0.1:" + std::to_string(port) +
                       " --json --timeout 1 --retries 0");
    });
    fake_box::packet req(600);
    sockaddr_in host{};
    socklen_t size = sizeof host;
    pollfd p{box.get(), POLLIN, 0};
    if (poll(&p, 1, 10000) == 1 && recvfrom(box.get(), req.data(), req.size(), 0,
                                            reinterpret_cast<sockaddr *>(&host), &size) >= 88) {
        // The answer, a one-window list of port names, comes last: before it
        // the strangers' copies naming u2, and from the box a datagram that is
        // no response, one of another type and one of another offset.
        fake_box::packet answer = {req[0], req[1], 0, 0, req[84], req[85], 0, 4, 1, 'u', '1', 0};
        fake_box::packet stray = answer, wrong_type = answer, wrong_offset = answer;
        stray[10] = '2', wrong_type[1] = 9, wrong_offset[5] ^= 1;
        for (const auto &[fd, packet] : std::vector<std::pair<int, fake_box::packet>>{
                 {other_ip.get(), stray}, {other_port.get(), stray}, {box.get(), {1, 2, 3}},
                 {box.get(), wrong_type}, {box.get(), wrong_offset}, {box.get(), answer}})
            (void)sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&host),
                         size);
    }
    run.join();
    EXPECT_EQ(r.out, "[\"u1\"]\n");
}

TEST(DypctlLoopback, KeepaliveReportsAMissedEchoAndGoesOn) {
    // Echoes the first and third keep-alive, never the second.
    fake_box flaky([](const fake_box::packet &req, int index) {
        return index == 1 ? packets{} : packets{req};
    });
    auto counted =
        run_dypctl("keepalive " + flaky.host() +
                   " scanner1 --count 3 --interval 0.01 --timeout 0.1 --retries 0 --json");
    EXPECT_EQ(counted.status, 0) << counted.out;
    std::string echoes;
    std::istringstream lines(counted.out);
    for (std::string line; std::getline(lines, line);)
        echoes += json::parse(line).at("echo").dump() + " ";
    EXPECT_EQ(echoes, "true false true ") << counted.out;

    fake_box silent(silence);
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
    fake_box echo([](const fake_box::packet &req, int) { return packets{req}; });
    expect_run(run_dypctl("keepalive " + echo.host() + " scanner1 --count 0 --interval 0.05",
                          "timeout --foreground --preserve-status -s INT " +
                              std::to_string(0.6 + START_ALLOWANCE_S) + " "),
               0, {"keep-alive 3 to"});
}

TEST(DypctlLoopback, UsageErrorsExit2) {
    for (const char *args :
         {"", "frobnicate", "devices", "status 127.0.0.1", "devices 127.0.0.1 --bogus",
          "devices 127.0.0.1:70000", "port-name 127.0.0.1 --vid 1", "discover --timeout -1",
          "connect 127.0.0.1 sixteencharsxxxx", "devices 127.0.0.1 --port 5",
          "status 127.0.0.1 scanner1 --count 2", "discover --address 192.0.2",
          "devices 127.0.0.1 --timeout 0", "devices [::1]:19540", "status 127.0.0.1 usb:12345:1",
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
