// dypctl as a person runs it: its output and exit status against the
// daemon with the simulated driver (root: network namespaces), against a
// silent box and against a fake box that truncates its replies (loopback).
#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "support/netns.h"

namespace {

struct run_result {
    int status = -1;
    std::string out;
};

// Runs a shell command; standard error joins standard output.
run_result run(const std::string &command) {
    run_result r;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return r;
    char chunk[512];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0)
        r.out.append(chunk, n);
    int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

std::string dypctl(const std::string &args) {
    return std::string(DYPCTL_BINARY) + " " + args;
}

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// ---- a daemon in a namespace of its own ------------------------------------------

// One box: a namespace with `link` at `address`/24, and dypd with the
// simulated driver in a private mount namespace (tmpfs /var/run for its pid
// file, tmpfs /sys/bus for the serial numbers).
class sim_box {
  public:
    sim_box(const std::string &tag, const std::string &hostname, const std::string &product)
        : ns_(tag), hostname_(hostname), product_(product) {
        char dir_template[] = "/tmp/dypctl-e2e-XXXXXX";
        dir_ = mkdtemp(dir_template) ? dir_template : "";
    }
    ~sim_box() {
        if (pid_ > 0) {
            (void)kill(pid_, SIGTERM);
            int status;
            (void)waitpid(pid_, &status, 0);
        }
        if (!dir_.empty())
            (void)run_shell("rm -rf " + dir_);
    }
    sim_box(const sim_box &) = delete;
    sim_box &operator=(const sim_box &) = delete;

    const test_netns &ns() const { return ns_; }
    std::string output() const { return read_file(dir_ + "/dypd.out"); }

    bool start() {
        std::ofstream(dir_ + "/dypd.conf")
            << "product=" << product_ << "\nhostname=" << hostname_ << "\n";
        std::string devices = std::string(DYPTEST_SOURCE_DIR) + "/examples/devices.ini";
        std::string script = "mount -t tmpfs dyprun /var/run && mount -t tmpfs dypsys /sys/bus"
                             " && mkdir -p /sys/bus/usb/devices/1-1.2"
                             " && echo NW410A00017 > /sys/bus/usb/devices/1-1.2/serial"
                             " && exec env LD_PRELOAD=" +
                             std::string(DYPSIM_PRELOAD) +
                             " ASAN_OPTIONS=verify_asan_link_order=0 DYPSIM_DEVICES=" + devices +
                             " " + DYPD_BINARY + " -d -f " + dir_ + "/dypd.conf";
        std::string out = dir_ + "/dypd.out";
        pid_ = fork();
        if (pid_ < 0)
            return false;
        if (pid_ == 0) {
            FILE *f = freopen(out.c_str(), "w", stderr);
            if (f != nullptr)
                (void)dup2(fileno(f), STDOUT_FILENO);
            execlp("ip", "ip", "netns", "exec", ns_.name().c_str(), "unshare", "-m", "sh", "-c",
                   script.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        return true;
    }

    bool alive() {
        int status;
        if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_)
            pid_ = -1;
        return pid_ > 0;
    }

  private:
    test_netns ns_;
    std::string hostname_;
    std::string product_;
    std::string dir_;
    pid_t pid_ = -1;
};

// A host namespace linked to one box by a veth pair: box 192.0.2.1, host 192.0.2.2.
class DypctlDaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        box = std::make_unique<sim_box>("cbox", "ctlbox", "Ctl Scan Hub");
        host = std::make_unique<test_netns>("chost");
        std::string tag = std::to_string(getpid());
        ASSERT_EQ(run_shell("ip link add dypcb" + tag + " netns " + box->ns().name() +
                            " type veth peer name dypch" + tag + " netns " + host->name()),
                  0);
        ASSERT_EQ(box->ns().exec("ip addr add 192.0.2.1/24 brd + dev dypcb" + tag +
                                 " && ip link set dypcb" + tag + " up"),
                  0);
        ASSERT_EQ(host->exec("ip addr add 192.0.2.2/24 brd + dev dypch" + tag +
                             " && ip link set dypch" + tag + " up"),
                  0);
        host_link = "dypch" + tag;
        box_mac = read_mac(box->ns(), "dypcb" + tag);
        ASSERT_TRUE(box->start());
        ASSERT_TRUE(wait_for_boxes(1)) << "daemon did not answer:\n" << box->output();
    }

    void TearDown() override {
        box.reset();
        host.reset();
    }

    static std::string read_mac(const test_netns &ns, const std::string &link) {
        std::string mac =
            run("ip netns exec " + ns.name() + " cat /sys/class/net/" + link + "/address").out;
        return mac.substr(0, 17);
    }

    // Discovery is how a host learns that a box is up: ask until the given
    // number of boxes answer (each attempt waits for the replies themselves).
    bool wait_for_boxes(size_t count) {
        for (int attempt = 0; attempt < 50; ++attempt) {
            auto r = in_host("discover --interface " + host_link + " --timeout 0.2 --json");
            size_t found = 0;
            for (size_t at = r.out.find("\"address\""); at != std::string::npos;
                 at = r.out.find("\"address\"", at + 1))
                ++found;
            if (found >= count)
                return true;
            if (!box->alive())
                return false;
        }
        return false;
    }

    run_result in_host(const std::string &args) {
        return run("ip netns exec " + host->name() + " " + dypctl(args));
    }

    std::unique_ptr<sim_box> box;
    std::unique_ptr<test_netns> host;
    std::string host_link;
    std::string box_mac;
};

TEST_F(DypctlDaemonTest, DiscoverListsTheBoxOnceInBothForms) {
    auto human = in_host("discover --interface " + host_link + " --timeout 0.5");
    ASSERT_EQ(human.status, 0) << human.out;
    EXPECT_TRUE(contains(human.out, "192.0.2.1:19540")) << human.out;
    EXPECT_TRUE(contains(human.out, box_mac)) << human.out;
    EXPECT_TRUE(contains(human.out, "Ctl Scan Hub")) << human.out;
    EXPECT_TRUE(contains(human.out, "ctlbox")) << human.out;
    EXPECT_TRUE(contains(human.out, "Ver 2.2.0")) << human.out;
    EXPECT_TRUE(contains(human.out, "present")) << human.out;

    auto json = in_host("discover --address 192.0.2.255 --timeout 0.5 --json");
    ASSERT_EQ(json.status, 0) << json.out;
    EXPECT_TRUE(contains(json.out, "\"address\":\"192.0.2.1\"")) << json.out;
    EXPECT_TRUE(contains(json.out, "\"ip\":\"192.0.2.1\"")) << json.out;
    EXPECT_TRUE(contains(json.out, "\"mac\":\"" + box_mac + "\"")) << json.out;
    EXPECT_TRUE(contains(json.out, "\"hostname\":\"ctlbox\"")) << json.out;
    EXPECT_TRUE(contains(json.out, "\"device\":\"Northwind Imaging DocuFeed 410\"")) << json.out;
    EXPECT_EQ(json.out.find("\"address\""), json.out.rfind("\"address\"")) << "listed twice:\n"
                                                                           << json.out;
}

TEST_F(DypctlDaemonTest, DevicesShowHolderStatusAndSerial) {
    auto human = in_host("devices 192.0.2.1 --ex");
    ASSERT_EQ(human.status, 0) << human.out;
    EXPECT_TRUE(contains(human.out, "3 interface(s) counted, 3 listed")) << human.out;
    EXPECT_TRUE(contains(human.out, "scanner1")) << human.out;
    EXPECT_TRUE(contains(human.out, "1f3a:0410")) << human.out;
    EXPECT_TRUE(contains(human.out, "192.0.2.20")) << human.out;
    EXPECT_TRUE(contains(human.out, "NW410A00017")) << human.out;

    auto json = in_host("devices 192.0.2.1 --json");
    ASSERT_EQ(json.status, 0) << json.out;
    EXPECT_TRUE(contains(json.out, "\"count\":3")) << json.out;
    EXPECT_TRUE(contains(json.out, "\"name\":\"scanner3\"")) << json.out;
    EXPECT_TRUE(contains(json.out, "\"holder\":\"192.0.2.20\"")) << json.out;
    EXPECT_FALSE(contains(json.out, "\"serial\"")) << "plain list has no serials:\n" << json.out;
}

TEST_F(DypctlDaemonTest, StatusOfKnownAndUnknownInterfaces) {
    auto known = in_host("status 192.0.2.1 scanner3");
    ASSERT_EQ(known.status, 0) << known.out;
    EXPECT_TRUE(contains(known.out, "0x8483")) << known.out;
    EXPECT_TRUE(contains(known.out, "flagged")) << known.out;
    EXPECT_TRUE(contains(known.out, box_mac)) << known.out;

    auto unknown = in_host("status 192.0.2.1 nosuch --json");
    ASSERT_EQ(unknown.status, 0) << unknown.out;
    EXPECT_TRUE(contains(unknown.out, "\"found\":false")) << unknown.out;
    EXPECT_TRUE(contains(unknown.out, "\"status\":32898")) << unknown.out; // 0x8082
    EXPECT_TRUE(contains(unknown.out, "\"description\":\"Not Connected\"")) << unknown.out;
}

TEST_F(DypctlDaemonTest, PortsAndPortNameLookup) {
    auto ports = in_host("ports 192.0.2.1 --json");
    ASSERT_EQ(ports.status, 0) << ports.out;
    EXPECT_EQ(ports.out, "[\"scanner1\",\"scanner2\",\"scanner3\"]\n");

    auto found = in_host("port-name 192.0.2.1 --vid 0x1f3a --pid 0x0410 --location H112");
    EXPECT_EQ(found.status, 0) << found.out;
    EXPECT_EQ(found.out, "scanner1\n");
    auto wrong = in_host("port-name 192.0.2.1 --vid 0x1f3b --pid 0x0410 --location H112 --json");
    EXPECT_EQ(wrong.status, 1) << wrong.out;
    EXPECT_TRUE(contains(wrong.out, "\"found\":false")) << wrong.out;
}

TEST_F(DypctlDaemonTest, ConnectTakesTheDeviceAndDisconnectGivesItBack) {
    auto connect = in_host("connect 192.0.2.1 scanner2");
    ASSERT_EQ(connect.status, 0) << connect.out << box->output();
    EXPECT_EQ(connect.out, "connect scanner2: OK\n");

    auto held = in_host("status 192.0.2.1 scanner2 --json");
    ASSERT_EQ(held.status, 0) << held.out;
    EXPECT_TRUE(contains(held.out, "\"holder\":\"192.0.2.2\"")) << held.out;
    EXPECT_TRUE(contains(held.out, "\"holder_mac\":\"" + read_mac(*host, host_link) + "\""))
        << held.out;

    auto disconnect = in_host("disconnect 192.0.2.1 scanner2 --json");
    EXPECT_EQ(disconnect.status, 0) << disconnect.out;
    EXPECT_EQ(disconnect.out, "{\"interface\":\"scanner2\",\"result\":\"OK\"}\n");
}

TEST_F(DypctlDaemonTest, ConnectToAnUnknownInterfaceIsRefused) {
    auto r = in_host("connect 192.0.2.1 nosuch");
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_EQ(r.out, "connect nosuch: NG\n");
}

TEST_F(DypctlDaemonTest, KeepaliveIsEchoed) {
    auto human = in_host("keepalive 192.0.2.1 scanner1 scanner2 --interval 0.05 --count 2");
    ASSERT_EQ(human.status, 0) << human.out;
    EXPECT_TRUE(contains(human.out, "keep-alive 2 to 192.0.2.1:49235: echoed")) << human.out;
    auto json = in_host("keepalive 192.0.2.1 scanner1 --json");
    ASSERT_EQ(json.status, 0) << json.out;
    EXPECT_TRUE(contains(json.out, "{\"seq\":1,\"echo\":true,")) << json.out;
}

// Two boxes and a host, each linked to one bridge in a namespace of its own.
TEST(DypctlDiscovery, FindsTwoBoxesOnOneBridge) {
    DYP_REQUIRE_ROOT();
    test_netns lan("clan");
    sim_box first("cb1", "boxone", "First Hub");
    sim_box second("cb2", "boxtwo", "Second Hub");
    test_netns host("ch2");
    std::string tag = std::to_string(getpid());
    ASSERT_EQ(lan.exec("ip link add br0 type bridge && ip link set br0 up"), 0);
    struct member {
        const test_netns *ns;
        const char *address;
    } members[] = {{&first.ns(), "192.0.2.11"}, {&second.ns(), "192.0.2.12"}, {&host, "192.0.2.2"}};
    int index = 0;
    for (const auto &m : members) {
        std::string inner = "dypm" + std::to_string(index) + "x" + tag,
                    outer = "dypp" + std::to_string(index) + "x" + tag;
        ++index;
        ASSERT_EQ(run_shell("ip link add " + inner + " netns " + m.ns->name() +
                            " type veth peer name " + outer + " netns " + lan.name()),
                  0);
        ASSERT_EQ(lan.exec("ip link set " + outer + " master br0 && ip link set " + outer + " up"),
                  0);
        ASSERT_EQ(m.ns->exec("ip addr add " + std::string(m.address) + "/24 brd + dev " + inner +
                             " && ip link set " + inner + " up"),
                  0);
    }
    ASSERT_TRUE(first.start());
    ASSERT_TRUE(second.start());

    std::string out;
    int status = -1;
    for (int attempt = 0; attempt < 50; ++attempt) {
        auto r = run("ip netns exec " + host.name() + " " +
                     dypctl("discover --address 192.0.2.255 --timeout 0.3"));
        out = r.out;
        status = r.status;
        if (contains(out, "boxone") && contains(out, "boxtwo"))
            break;
        ASSERT_TRUE(first.alive()) << first.output();
        ASSERT_TRUE(second.alive()) << second.output();
    }
    EXPECT_EQ(status, 0) << out;
    EXPECT_TRUE(contains(out, "192.0.2.11:19540")) << out;
    EXPECT_TRUE(contains(out, "192.0.2.12:19540")) << out;
    EXPECT_TRUE(contains(out, "First Hub")) << out;
    EXPECT_TRUE(contains(out, "Second Hub")) << out;
}

// ---- loopback: a silent box, a lying box, bad command lines ------------------------

// A UDP socket on 127.0.0.1 that answers each datagram through `answer`
// (nothing when it returns an empty vector).
class loopback_box {
  public:
    using answer_fn = std::vector<uint8_t> (*)(const std::vector<uint8_t> &);
    explicit loopback_box(answer_fn answer) : answer_(answer) {
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
    ~loopback_box() {
        uint64_t one = 1;
        EXPECT_EQ(write(stop_, &one, sizeof one), ssize_t(sizeof one));
        thread_.join();
        close(fd_);
        close(stop_);
    }
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }

  private:
    void serve() {
        for (;;) {
            pollfd p[2] = {{fd_, POLLIN, 0}, {stop_, POLLIN, 0}};
            if (poll(p, 2, -1) < 0 || (p[1].revents & POLLIN))
                return;
            std::vector<uint8_t> in(2048);
            sockaddr_in from{};
            socklen_t len = sizeof from;
            ssize_t n =
                recvfrom(fd_, in.data(), in.size(), 0, reinterpret_cast<sockaddr *>(&from), &len);
            if (n < 0)
                continue;
            in.resize(size_t(n));
            auto out = answer_(in);
            if (!out.empty())
                (void)sendto(fd_, out.data(), out.size(), 0, reinterpret_cast<sockaddr *>(&from),
                             len);
        }
    }
    answer_fn answer_;
    int fd_ = -1;
    int stop_ = -1;
    uint16_t port_ = 0;
    std::thread thread_;
};

std::vector<uint8_t> silent(const std::vector<uint8_t> &) {
    return {};
}

// Claims a full 512-byte window but sends only 100 bytes of it.
std::vector<uint8_t> truncating(const std::vector<uint8_t> &req) {
    std::vector<uint8_t> out = {req[0], req[1], 0, 1, 0, 0, 0x02, 0x00};
    out.resize(8 + 100, 0x41);
    return out;
}

TEST(DypctlLoopback, SilentBoxTimesOutWithStatus3) {
    loopback_box box(silent);
    auto r = run(dypctl("devices " + box.host() + " --timeout 0.1 --retries 1"));
    EXPECT_EQ(r.status, 3) << r.out;
    EXPECT_TRUE(contains(r.out, "timeout: no answer from " + box.host() + " after 2 attempt(s)"))
        << r.out;
    auto k = run(dypctl("keepalive " + box.host() + " scanner1 --timeout 0.1 --retries 0"));
    EXPECT_EQ(k.status, 3) << k.out;
}

TEST(DypctlLoopback, TruncatedReplyIsReportedWithStatus4) {
    loopback_box box(truncating);
    auto r = run(dypctl("ports " + box.host() + " --timeout 0.5"));
    EXPECT_EQ(r.status, 4) << r.out;
    EXPECT_TRUE(
        contains(r.out, "malformed reply: window: length field says 512 but 100 bytes came"))
        << r.out;
}

TEST(DypctlLoopback, UsageErrorsExitWith2) {
    for (const char *args :
         {"", "frobnicate", "devices", "status 127.0.0.1", "devices 127.0.0.1 --bogus",
          "devices 127.0.0.1:70000", "port-name 127.0.0.1 --vid 1", "discover --timeout -1",
          "keepalive 127.0.0.1 scanner1 --count 0", "connect 127.0.0.1 sixteencharsxxxx"}) {
        auto r = run(dypctl(args));
        EXPECT_EQ(r.status, 2) << "dypctl " << args << "\n" << r.out;
    }
    auto help = run(dypctl("--help"));
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(contains(help.out, "exit status: 0 success, 1 refused")) << help.out;
}

} // namespace
