// The built daemon binary, from the outside: command line, configuration,
// the pid-file lock and the hang-up reload. Every daemon that gets as far as
// the pid file runs in namespaces of its own with a private /var/run.
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <vector>

#include "lib/fd.h"
#include "support/sim_testbed.h"

namespace {

const std::string USAGE = "Usage: dypd [options]\n"
                          " -f config_file : Specifies the name of the config file.\n"
                          "                  (default: /etc/dypd.conf)\n"
                          " -d             : Debug mode. DYPD runs as a non-daemon.\n"
                          " -v             : Show the version number.\n"
                          " -h             : Show this message.\n"
                          " -i ifname      : Set Network Interfaces Name.(ex.\"eth0,!br1,*\")\n";
const std::string VERSION = "dypd version 1.6.2 (DYP Ver 2.2.0)";
const std::string BINARY = DYPD_BINARY;
// Files of this test process; parallel test processes never share them.
const std::string CONF = "/tmp/dypd-e2e-" + std::to_string(getpid()) + ".conf";

struct finished {
    int status;
    std::string out, err;
};

// Runs a shell command to its end, standard output and error captured; then
// removes this process's scratch files.
finished run_to_end(const std::string &command) {
    std::string out = run_shell_output(command + " 2>" + CONF + ".err; echo \"#$?\"");
    size_t mark = out.rfind('#');
    finished run{std::atoi(out.c_str() + mark + 1), out.substr(0, mark),
                 read_text_file(CONF + ".err")};
    (void)run_shell("rm -f " + CONF + " " + CONF + ".err");
    return run;
}

// The daemon in the foreground (-d) with a private /var/run for its pid file.
std::string daemon_script(const std::string &arguments) {
    return "mount -t tmpfs dyprun /var/run && exec " + BINARY + " -d " + arguments;
}

bool send_to(const unique_fd &fd, uint16_t port, const void *bytes, size_t size) {
    sockaddr_in to{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    return sendto(fd.get(), bytes, size, 0, reinterpret_cast<sockaddr *>(&to), sizeof to) ==
           static_cast<ssize_t>(size);
}

// Sends an advertise request to `port` on loopback and returns the product
// name of the reply, or "<no reply>" when none came within `wait_ms`.
std::string advertised_product(const unique_fd &fd, uint16_t port, int wait_ms = 5000) {
    const uint8_t request[88] = {0, 4, 0x95, 0x06};
    pollfd ready{fd.get(), POLLIN, 0};
    if (!send_to(fd, port, request, sizeof request) || poll(&ready, 1, wait_ms) != 1)
        return "<no reply>";
    char reply[600] = {};
    return recv(fd.get(), reply, sizeof reply - 1, 0) == 164 ? reply + 36 : "<bad reply>";
}

} // namespace

TEST(CommandLine, StatusesAndTextsOfTheShortRuns) {
    const struct {
        std::string args, config;
        int status;
        std::string out, err;
    } cases[] = {
        {"-v", "", 0, VERSION + "\n", ""},
        {"-h", "", 0, "", USAGE},
        {"-x", "", 1, "", BINARY + ": invalid option -- 'x'\n" + USAGE},
        {"-v -x", "", 0, VERSION + "\n", ""}, // options act in the order given
        {"-f /nonexistent/dypd.conf -v", "", 1, "",
         "Cannot access the config file /nonexistent/dypd.conf (err: 2)\n"},
        {"-d -f " + CONF, "portnum=19540,99999999999\n", 1, "", "Detected invalid configuration\n"},
    };
    for (const auto &c : cases) {
        std::ofstream(CONF) << c.config;
        finished run = run_to_end(BINARY + " " + c.args);
        EXPECT_EQ(run.status, c.status) << c.args;
        EXPECT_EQ(run.out, c.out) << c.args;
        EXPECT_EQ(run.err, c.err) << c.args;
    }
}

// The settings are printed once the file was applied, before the endpoints
// are built; with several ports and none of them primary that build fails.
TEST(Daemon, DebugModePrintsTheSettingsAndAMissingPrimaryPortFails) {
    DYP_REQUIRE_ROOT();
    std::ofstream(CONF) << "product=Scanner Hub\nhostname=office\nportnum=19540, 0x4c55,19542\n"
                           "ds_port=1\n";
    finished run =
        run_to_end("unshare -m -n sh -c \"" + daemon_script("-i 'lo,!br1,*' -f " + CONF) + "\"");
    EXPECT_EQ(run.status, 256 - EINVAL);
    const std::string rule(32, '-');
    EXPECT_NE(run.err.find(rule + "\nConfig File Path   = " + CONF + "\n" +
                           "Product            = Scanner Hub\n"
                           "Host Name          = office\n"
                           "Bind Interface     = lo,!br1,*\n"
                           "UDP Ports          = 3\n"
                           "   ( 1)UDP Port    = 19540\n"
                           "   ( 2)UDP Port    = 19541\n"
                           "   ( 3)UDP Port    = 19542\n" +
                           rule + "\n"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find(VERSION + " started"), std::string::npos);
    EXPECT_NE(run.err.find("failed to initialize the daemon [-22]"), std::string::npos);
}

// A second instance fails at the pid-file lock; odd datagrams are consumed;
// a hang-up renames the product but keeps the ports the daemon started with.
TEST(Daemon, HoldsThePidFileAndRereadsOnlyTheNamesOnHangUp) {
    DYP_REQUIRE_ROOT();
    sim_testbed bed;
    ASSERT_TRUE(bed.ready());
    const std::string conf = bed.dir() + "/dypd.conf";
    std::ofstream(conf) << "product=First\nportnum=19540,19541\n";
    ASSERT_TRUE(bed.start(daemon_script("-f " + conf), {19540, 19541, 49235})) << bed.output();
    const pid_t daemon = std::atoi(run_shell_output("ip netns pids " + bed.box().name()).c_str());
    ASSERT_GT(daemon, 0);
    const std::string enter = "nsenter -t " + std::to_string(daemon) + " -m -n ";
    const std::string pid_line = std::to_string(daemon) + "\n";
    EXPECT_EQ(run_to_end(enter + "cat /var/run/dypd.pid").out, pid_line);
    finished second = run_to_end(enter + BINARY + " -d -f " + conf);
    EXPECT_EQ(second.status, 256 - EALREADY);
    EXPECT_NE(second.err.find("failed to create a pid file"), std::string::npos) << second.err;
    EXPECT_EQ(run_to_end(enter + "cat /var/run/dypd.pid").out, pid_line);

    netns_scope inside(bed.box().name());
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    for (size_t size : {0, 1, 87, 511, 65000})
        ASSERT_TRUE(send_to(fd, 19541, std::vector<uint8_t>(size, 0xff).data(), size));
    EXPECT_EQ(advertised_product(fd, 19541), "First");
    std::ofstream(conf) << "product=Second\nportnum=19550,19551\nds_port=19550\n";
    // The flag is acted on before the next wait. A signal that lands between
    // that check and the wait is seen one request late, and it then ends no
    // wait with an interruption, so the first reply cannot be relied on.
    ASSERT_EQ(kill(daemon, SIGHUP), 0);
    std::string product = advertised_product(fd, 19541);
    EXPECT_EQ(product == "Second" ? product : advertised_product(fd, 19541), "Second");
    // Replies come within 150 ms; a quiet second means nobody listens.
    EXPECT_EQ(advertised_product(fd, 19550, 1000), "<no reply>");
}
