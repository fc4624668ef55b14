// The built daemon binary, from the outside: command line, configuration,
// the pid-file lock and the hang-up reload. Every daemon that keeps running
// lives in private mount and network namespaces, with its own tmpfs on
// /var/run, so the host's pid file and ports are never touched.
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <vector>

#include "lib/fd.h"
#include "support/netns.h"

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
std::string scratch(const char *what) {
    return "/tmp/dypd-e2e-" + std::to_string(getpid()) + "." + what;
}

// Removes this process's configuration file when the tests end.
struct scratch_cleanup {
    ~scratch_cleanup() { unlink(scratch("conf").c_str()); }
} cleanup_at_exit;

void write_config(const std::string &text) {
    FILE *file = fopen(scratch("conf").c_str(), "w");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(fwrite(text.data(), 1, text.size(), file), text.size());
    ASSERT_EQ(fclose(file), 0);
}

struct finished {
    int status;
    std::string out, err;
};

// Runs a shell command to its end, standard output and error captured.
finished run_to_end(const std::string &command) {
    std::string out = run_shell_output(command + " 2>" + scratch("err") + "; echo \"#$?\"");
    size_t mark = out.rfind('#');
    return {std::stoi(out.substr(mark + 1)), out.substr(0, mark),
            run_shell_output("cat " + scratch("err") + "; rm -f " + scratch("err"))};
}

// The command that runs the daemon in the foreground (-d) in fresh mount
// and network namespaces.
std::string in_namespaces(const std::string &arguments) {
    return "unshare -m -n sh -c \"ip link set lo up && mount -t tmpfs none /var/run && exec " +
           BINARY + " -d " + arguments + "\"";
}

// A daemon that keeps running; the test reads its standard error through a pipe.
class isolated_daemon {
  public:
    explicit isolated_daemon(const std::string &arguments) {
        int pipe_fds[2];
        if (pipe2(pipe_fds, O_CLOEXEC) < 0)
            return;
        std::string script = "exec " + in_namespaces(arguments) + " 2>&3 >/dev/null";
        pid_ = fork();
        if (pid_ == 0) {
            (void)dup2(pipe_fds[1], 3);
            execlp("sh", "sh", "-c", script.c_str(), nullptr);
            _exit(127);
        }
        close(pipe_fds[1]);
        err_fd_.reset(pipe_fds[0]);
    }
    ~isolated_daemon() {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0)
            (void)waitpid(pid_, nullptr, 0);
    }

    pid_t pid() const { return pid_; }
    const std::string &err() const { return err_; }
    std::string ns(const char *kind) const {
        return "/proc/" + std::to_string(pid_) + "/ns/" + kind;
    }

    // Reads standard error until `needle` has appeared (true) or the
    // stream ends or 10 s pass (false).
    bool wait_for(const std::string &needle) {
        while (err_.find(needle) == std::string::npos) {
            pollfd ready{err_fd_.get(), POLLIN, 0};
            char chunk[4096];
            ssize_t count =
                poll(&ready, 1, 10000) == 1 ? read(err_fd_.get(), chunk, sizeof chunk) : 0;
            if (count <= 0)
                return false;
            err_.append(chunk, static_cast<size_t>(count));
        }
        return true;
    }

  private:
    pid_t pid_ = -1;
    unique_fd err_fd_;
    std::string err_;
};

// A UDP socket inside the network namespace of `daemon`.
unique_fd socket_inside(const isolated_daemon &daemon) {
    unique_fd saved(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    unique_fd target(open(daemon.ns("net").c_str(), O_RDONLY | O_CLOEXEC));
    if (!saved.valid() || !target.valid() || setns(target.get(), CLONE_NEWNET) != 0)
        return unique_fd();
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    (void)setns(saved.get(), CLONE_NEWNET);
    return fd;
}

bool send_bytes(const unique_fd &fd, uint16_t port, const std::vector<uint8_t> &bytes) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sendto(fd.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to),
                  sizeof to) == static_cast<ssize_t>(bytes.size());
}

// Sends an advertise request to `port` and returns the product name of the
// reply, or "<no reply>" when none came within `wait_ms`.
std::string advertised_product(const unique_fd &fd, uint16_t port, int wait_ms = 5000) {
    std::vector<uint8_t> request(88, 0);
    request[1] = 4;
    request[2] = 0x95;
    request[3] = 0x06;
    pollfd ready{fd.get(), POLLIN, 0};
    if (!send_bytes(fd, port, request) || poll(&ready, 1, wait_ms) != 1)
        return "<no reply>";
    char reply[600] = {};
    if (recv(fd.get(), reply, sizeof reply - 1, 0) != 164)
        return "<bad reply>";
    return reply + 36;
}

} // namespace

TEST(CommandLine, StatusesAndTextsOfTheShortRuns) {
    // Garbage without a section header, then one value out of range.
    std::string garbage;
    for (unsigned i = 0; i < 300000; ++i) {
        char byte = static_cast<char>(i * 7919u % 251u);
        garbage += byte == '[' ? 'x' : byte;
    }
    write_config(garbage + "\nportnum=19540,99999999999\n");
    const struct {
        std::string args;
        int status;
        std::string out, err;
    } cases[] = {
        {"-v", 0, VERSION + "\n", ""},
        {"-h", 0, "", USAGE},
        {"-x", 1, "", BINARY + ": invalid option -- 'x'\n" + USAGE},
        {"-v -x", 0, VERSION + "\n", ""}, // options act in the order given
        {"-f /nonexistent/dypd.conf -v", 1, "",
         "Cannot access the config file /nonexistent/dypd.conf (err: 2)\n"},
        {"-d -f " + scratch("conf"), 1, "", "Detected invalid configuration\n"},
    };
    for (const auto &c : cases) {
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
    write_config("product=Scanner Hub\nhostname=office\nportnum=19540, 0x4c55,19542\nds_port=1\n");
    finished run = run_to_end(in_namespaces("-i 'lo,!br1,*' -f " + scratch("conf")));
    EXPECT_EQ(run.status, 256 - EINVAL);
    std::string rule(32, '-');
    EXPECT_NE(run.err.find(rule + "\nConfig File Path   = " + scratch("conf") + "\n" +
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

TEST(Daemon, SecondInstanceIsRefusedByThePidFileLock) {
    DYP_REQUIRE_ROOT();
    write_config("portnum=19540\n");
    isolated_daemon first("-f " + scratch("conf"));
    ASSERT_TRUE(first.wait_for("registered command"));
    std::string enter = "nsenter --mount=" + first.ns("mnt") + " --net=" + first.ns("net") + " ";
    std::string pid_line = std::to_string(first.pid()) + "\n";
    ASSERT_EQ(run_to_end(enter + "cat /var/run/dypd.pid").out, pid_line);

    finished second = run_to_end(enter + BINARY + " -d -f " + scratch("conf"));
    EXPECT_EQ(second.status, 256 - EALREADY);
    EXPECT_NE(second.err.find("failed to create a pid file"), std::string::npos) << second.err;
    EXPECT_EQ(kill(first.pid(), 0), 0) << "the first instance runs on";
}

// Odd datagrams on every port are consumed; a hang-up then renames the
// product but keeps the ports it was started with.
TEST(Daemon, SurvivesOddDatagramsAndAHangUpChangesOnlyTheProduct) {
    DYP_REQUIRE_ROOT();
    write_config("product=First\nportnum=19540,19541\n");
    isolated_daemon daemon("-f " + scratch("conf"));
    ASSERT_TRUE(daemon.wait_for("registered command GET USB_PORT_NAME"));
    unique_fd fd = socket_inside(daemon);
    ASSERT_TRUE(fd.valid());
    for (size_t size : {0, 1, 87, 511, 65000})
        ASSERT_TRUE(send_bytes(fd, 19541, std::vector<uint8_t>(size, 0xff)));
    EXPECT_EQ(advertised_product(fd, 19541), "First");

    write_config("product=Second\nportnum=19550,19551\nds_port=19550\n");
    // The flag is acted on before the next wait. A signal that lands between
    // that check and the wait is seen one request late, and it then ends no
    // wait with an interruption, so neither the log line nor the first reply
    // can be relied on.
    ASSERT_EQ(kill(daemon.pid(), SIGHUP), 0);
    std::string product = advertised_product(fd, 19541);
    EXPECT_EQ(product == "Second" ? product : advertised_product(fd, 19541), "Second");
    // Replies come within 150 ms; a quiet second means nobody listens.
    EXPECT_EQ(advertised_product(fd, 19550, 1000), "<no reply>");
}
