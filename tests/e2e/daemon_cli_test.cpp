// The built daemon binary from the outside. A daemon that gets as far as the
// pid file runs in namespaces of its own with a private /var/run.
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>

#include "dypclient.h"
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
// The command that runs it (under the emulator when built for another ISA).
const std::string DYPD = DYPTEST_EMULATOR DYPD_BINARY;
// A file of this test process; parallel test processes never share it.
const std::string CONF = "/tmp/dypd-e2e-" + std::to_string(getpid()) + ".conf";

// The product name the box advertises on `port` of loopback.
std::string advertised_product(uint16_t port) {
    std::vector<std::string> problems;
    auto boxes = dyp::discover({"", "127.0.0.1", port, 1000}, problems);
    return boxes.empty() ? "<no reply>" : boxes[0].product;
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
        {"-x", "", 1, "", DYPD_BINARY ": invalid option -- 'x'\n" + USAGE},
        {"-f /nonexistent/dypd.conf -v", "", 1, "",
         "Cannot access the config file /nonexistent/dypd.conf (err: " + std::to_string(ENOENT) +
             ")\n"},
        {"-d -f " + CONF, "portnum=19540,99999999999\n", 1, "", "Detected invalid configuration\n"},
    };
    for (const auto &c : cases) {
        std::ofstream(CONF) << c.config;
        finished_run run = run_to_end(DYPD + " " + c.args);
        EXPECT_EQ(run.status, c.status) << c.args;
        EXPECT_EQ(run.out, c.out) << c.args;
        EXPECT_EQ(run.err, c.err) << c.args;
    }
    (void)unlink(CONF.c_str());
}

// Debug mode prints the settings once the file was applied. A second
// instance fails at the pid-file lock. A hang-up renames the product but
// keeps the ports the daemon started with.
TEST(Daemon, PrintsItsSettingsHoldsThePidFileAndRereadsOnlyTheNamesOnHangUp) {
    DYP_REQUIRE_ROOT();
    sim_testbed bed;
    ASSERT_TRUE(bed.ready());
    const std::string conf = bed.dir() + "/dypd.conf";
    std::ofstream(conf) << "product=First\nhostname=office\nportnum=19540, 0x4c55\n";
    const std::string script = "mount -t tmpfs dyprun /var/run && exec " + DYPD + " -d -i ";
    ASSERT_TRUE(bed.start(script + "'lo,!br1,*' -f " + conf, {19540, 19541, 49235}))
        << bed.output();
    const pid_t daemon = std::atoi(run_shell_output("ip netns pids " + bed.box().name()).c_str());
    ASSERT_GT(daemon, 0);
    const std::string rule(32, '-');
    EXPECT_NE(bed.output().find(rule + "\nConfig File Path   = " + conf + "\n" +
                                "Product            = First\n"
                                "Host Name          = office\n"
                                "Bind Interface     = lo,!br1,*\n"
                                "UDP Ports          = 2\n"
                                "   ( 1)UDP Port    = 19540\n"
                                "   ( 2)UDP Port    = 19541\n" +
                                rule + "\ndypd[" + std::to_string(daemon) + "]: " + VERSION +
                                " started"),
              std::string::npos)
        << bed.output();
    const std::string enter = "nsenter -t " + std::to_string(daemon) + " -m -n ";
    EXPECT_EQ(run_shell_output(enter + "cat /var/run/dypd.pid"), std::to_string(daemon) + "\n");
    finished_run second = run_to_end(enter + DYPD + " -d -f " + conf);
    EXPECT_EQ(second.status, 256 - EALREADY);
    EXPECT_NE(second.err.find("failed to create a pid file"), std::string::npos) << second.err;
    EXPECT_EQ(run_shell_output(enter + "cat /var/run/dypd.pid"), std::to_string(daemon) + "\n");

    netns_scope inside(bed.box().name());
    EXPECT_EQ(advertised_product(19541), "First");
    std::ofstream(conf) << "product=Second\nportnum=19550,19551\nds_port=19550\n";
    // A signal that lands between the flag check and the wait is seen one request late.
    ASSERT_EQ(kill(daemon, SIGHUP), 0);
    std::string product = advertised_product(19541);
    EXPECT_EQ(product == "Second" ? product : advertised_product(19541), "Second");
    EXPECT_EQ(advertised_product(19550), "<no reply>") << "replies take 150 ms at most";
    // A broken pipe is ignored: the daemon goes on answering.
    ASSERT_EQ(kill(daemon, SIGPIPE), 0);
    EXPECT_EQ(advertised_product(19541), "Second");
}
