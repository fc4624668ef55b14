// dypctl as a person runs it: its output and exit status against the daemon
// with the simulated driver (root: network namespaces), and on loopback
// against a silent box and a box that truncates its replies.
#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <string>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "support/fake_box.h"
#include "support/sim_testbed.h"

namespace {

struct run_result {
    int status = -1;
    std::string out;
};

// Runs dypctl with `args` (after `prefix`); standard error joins standard output.
run_result dypctl(const std::string &args, const std::string &prefix = "") {
    run_result r;
    FILE *pipe = popen((prefix + DYPTEST_EMULATOR DYPCTL_BINARY " " + args + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return r;
    char chunk[512];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        r.out.append(chunk, n);
    int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

void expect_run(const run_result &r, int status, std::initializer_list<std::string> parts) {
    EXPECT_EQ(r.status, status) << r.out;
    for (const auto &part : parts)
        EXPECT_NE(r.out.find(part), std::string::npos) << "no \"" << part << "\" in:\n" << r.out;
}

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
        start_box(0, "Ctl Scan Hub", "ctlbox");
    }

    void start_box(int box, const std::string &product, const std::string &hostname) {
        const std::string conf = bed.dir() + "/dypd" + std::to_string(box) + ".conf";
        std::ofstream(conf) << "product=" << product << "\nhostname=" << hostname << "\n";
        ASSERT_TRUE(bed.start(sim_testbed::daemon_script(conf), {19540}, box)) << "no daemon:\n"
                                                                               << bed.output(box);
    }

    run_result in_host(const std::string &args) {
        return dypctl(args, "ip netns exec " + bed.host().name() + " ");
    }

    sim_testbed bed{2};
    std::string host_link, box_mac, host_mac;
};

TEST_F(DypctlDaemonTest, DiscoverListsEachBoxOnce) {
    start_box(1, "Second Hub", "otherbox");
#ifdef DYPTEST_QEMU_BIG_ENDIAN
    // Under qemu-user for a big-endian target dypctl finds no usable
    // broadcast address of the interface (not yet run down; the same
    // broadcast by address works), so the link's broadcast is named.
    const std::string to = "--address 192.0.2.255";
#else
    const std::string to = "--interface " + host_link;
#endif
    expect_run(in_host("discover " + to + " --timeout 0.5"), 0,
               {"192.0.2.1:19540", box_mac, "Ctl Scan Hub", "ctlbox", "Ver 2.2.0", "present",
                "192.0.2.3:19540", bed.box_mac(1), "Second Hub", "otherbox"});
    auto json = in_host("discover --address 192.0.2.255 --timeout 0.5 --json");
    expect_run(json, 0,
               {"\"ip\":\"192.0.2.1\"", "\"mac\":\"" + box_mac + "\"", "\"ip\":\"192.0.2.3\"",
                "\"device\":\"Northwind Imaging DocuFeed 410\""});
    // One entry per box, however many of its answers came.
    size_t boxes = 0;
    for (size_t at = 0; (at = json.out.find("\"address\"", at)) != std::string::npos; ++at)
        ++boxes;
    EXPECT_EQ(boxes, 2u) << json.out;
}

TEST_F(DypctlDaemonTest, DevicesPortsAndStatus) {
    expect_run(in_host("devices 192.0.2.1 --ex"), 0,
               {"3 interface(s) counted, 3 listed", "1f3a:0410", "192.0.2.20", "NW410A00017"});
    EXPECT_EQ(in_host("ports 192.0.2.1 --json").out, "[\"scanner1\",\"scanner2\",\"scanner3\"]\n");
    expect_run(in_host("port-name 192.0.2.1 --vid 0x1f3a --pid 0x0410 --location H112"), 0,
               {"scanner1\n"});
    expect_run(in_host("port-name 192.0.2.1 --vid 0x1f3b --pid 0x0410 --location H112 --json"), 1,
               {"\"found\":false"});
    expect_run(in_host("status 192.0.2.1 scanner3"), 0, {"0x8483", "flagged", box_mac});
    expect_run(in_host("status 192.0.2.1 nosuch --json"), 0,
               {"\"found\":false", "\"status\":32898", "\"description\":\"Not Connected\""});
}

TEST_F(DypctlDaemonTest, ConnectHoldsTheDeviceUntilDisconnect) {
    EXPECT_EQ(in_host("connect 192.0.2.1 scanner2").out, "connect scanner2: OK\n");
    expect_run(in_host("status 192.0.2.1 scanner2 --json"), 0,
               {"\"holder\":\"192.0.2.2\"", "\"holder_mac\":\"" + host_mac + "\""});
    expect_run(in_host("keepalive 192.0.2.1 scanner2 --interval 0.05 --count 2"), 0,
               {"keep-alive 2 to 192.0.2.1:49235: echoed"});
    EXPECT_EQ(in_host("disconnect 192.0.2.1 scanner2 --json").out,
              "{\"interface\":\"scanner2\",\"result\":\"OK\"}\n");
    auto refused = in_host("connect 192.0.2.1 nosuch");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "connect nosuch: NG\n");
}

TEST(DypctlLoopback, SilenceExits3AndATruncatedReplyExits4) {
    fake_box silent([](const fake_box::packet &, int) { return std::vector<fake_box::packet>{}; });
    expect_run(dypctl("devices " + silent.host() + " --timeout 0.1 --retries 1"), 3,
               {"timeout: no answer from " + silent.host() + " after 2 attempt(s)"});
    // The window claims 512 bytes but carries 100.
    fake_box truncating([](const fake_box::packet &req, int) {
        fake_box::packet out = {req[0], req[1], 0, 1, 0, 0, 0x02, 0x00};
        out.resize(8 + 100, 0x41);
        return std::vector<fake_box::packet>{out};
    });
    expect_run(dypctl("ports " + truncating.host() + " --timeout 0.5"), 4,
               {"malformed reply: window: length field says 512 but 100 bytes came"});
}

TEST(DypctlLoopback, UsageErrorsExit2) {
    for (const char *args :
         {"", "frobnicate", "devices", "status 127.0.0.1", "devices 127.0.0.1 --bogus",
          "devices 127.0.0.1:70000", "port-name 127.0.0.1 --vid 1", "discover --timeout -1",
          "keepalive 127.0.0.1 scanner1 --count 0", "connect 127.0.0.1 sixteencharsxxxx"})
        EXPECT_EQ(dypctl(args).status, 2) << "dypctl " << args;
    expect_run(dypctl("--help"), 0, {"exit status: 0 success, 1 refused"});
}

} // namespace
