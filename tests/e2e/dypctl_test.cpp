// dypctl as a person runs it: its output and exit status against the daemon
// with the simulated driver (root: network namespaces), and on loopback
// against a silent box and a box that truncates its replies.
#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/fake_box.h"
#include "support/netns.h"

namespace {

struct run_result {
    int status = -1;
    std::string out;
};

// Runs dypctl with `args` (after `prefix`); standard error joins standard output.
run_result dypctl(const std::string &args, const std::string &prefix = "") {
    run_result r;
    FILE *pipe = popen((prefix + DYPCTL_BINARY + " " + args + " 2>&1").c_str(), "r");
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

// A box namespace linked by a veth pair to a host namespace (box 192.0.2.1,
// host 192.0.2.2), and dypd with the simulated driver in the box under a
// private mount namespace (tmpfs /var/run for its pid file, tmpfs /sys/bus
// for the serial numbers).
class DypctlDaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        box_ = std::make_unique<test_netns>("cbox");
        host_ = std::make_unique<test_netns>("chost");
        const std::string tag = std::to_string(getpid()), box_link = "dypcb" + tag;
        host_link = "dypch" + tag;
        ASSERT_EQ(run_shell("ip link add " + box_link + " netns " + box_->name() +
                            " type veth peer name " + host_link + " netns " + host_->name()),
                  0);
        ASSERT_EQ(link_up(*box_, box_link, "192.0.2.1"), 0);
        ASSERT_EQ(link_up(*host_, host_link, "192.0.2.2"), 0);
        box_mac = mac_of(*box_, box_link);
        host_mac = mac_of(*host_, host_link);
        start_daemon();
        ASSERT_TRUE(wait_for_box()) << "daemon did not answer:\n"
                                    << run_shell_output("cat " + out_);
    }

    void TearDown() override {
        if (pid_ > 0) {
            (void)kill(pid_, SIGTERM);
            (void)waitpid(pid_, nullptr, 0);
        }
        (void)unlink(out_.c_str());
    }

    static int link_up(const test_netns &ns, const std::string &link, const std::string &ip) {
        return ns.exec("ip addr add " + ip + "/24 brd + dev " + link + " && ip link set " + link +
                       " up");
    }

    static std::string mac_of(const test_netns &ns, const std::string &link) {
        return run_shell_output("ip netns exec " + ns.name() + " cat /sys/class/net/" + link +
                                "/address")
            .substr(0, 17);
    }

    void start_daemon() {
        const std::string script =
            "mount -t tmpfs dyprun /var/run && mount -t tmpfs dypsys /sys/bus"
            " && mkdir -p /sys/bus/usb/devices/1-1.2"
            " && echo NW410A00017 > /sys/bus/usb/devices/1-1.2/serial"
            " && printf 'product=Ctl Scan Hub\\nhostname=ctlbox\\n' > /var/run/dypd.conf"
            " && exec env LD_PRELOAD=" DYPSIM_PRELOAD " ASAN_OPTIONS=verify_asan_link_order=0"
            " DYPSIM_DEVICES=" DYPTEST_SOURCE_DIR "/examples/devices.ini " DYPD_BINARY
            " -d -f /var/run/dypd.conf";
        pid_ = fork();
        if (pid_ == 0) {
            FILE *f = freopen(out_.c_str(), "w", stderr);
            if (f != nullptr)
                (void)dup2(fileno(f), STDOUT_FILENO);
            execlp("ip", "ip", "netns", "exec", box_->name().c_str(), "unshare", "-m", "sh", "-c",
                   script.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
    }

    // Discovery is how a host learns that a box is up: ask until it answers
    // (each attempt waits for the replies themselves).
    bool wait_for_box() {
        for (int attempt = 0; attempt < 50; ++attempt) {
            if (in_host("discover --interface " + host_link + " --timeout 0.2").status == 0)
                return true;
            if (pid_ <= 0 || waitpid(pid_, nullptr, WNOHANG) != 0)
                return false;
        }
        return false;
    }

    run_result in_host(const std::string &args) {
        return dypctl(args, "ip netns exec " + host_->name() + " ");
    }

    std::string host_link, box_mac, host_mac;

  private:
    std::unique_ptr<test_netns> box_, host_;
    std::string out_ = "/tmp/dypctl-e2e-" + std::to_string(getpid()) + ".out";
    pid_t pid_ = -1;
};

TEST_F(DypctlDaemonTest, DiscoverListsTheBoxOnce) {
    expect_run(in_host("discover --interface " + host_link + " --timeout 0.5"), 0,
               {"192.0.2.1:19540", box_mac, "Ctl Scan Hub", "ctlbox", "Ver 2.2.0", "present"});
    auto json = in_host("discover --address 192.0.2.255 --timeout 0.5 --json");
    expect_run(json, 0,
               {"\"ip\":\"192.0.2.1\"", "\"mac\":\"" + box_mac + "\"",
                "\"device\":\"Northwind Imaging DocuFeed 410\""});
    EXPECT_EQ(json.out.find("\"address\""), json.out.rfind("\"address\"")) << json.out;
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
