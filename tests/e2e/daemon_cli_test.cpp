// The built daemon binary, from the outside: command line, configuration,
// the pid-file lock and the hang-up reload. Every daemon that keeps running
// lives in private mount and network namespaces, with its own tmpfs on
// /var/run, so the host's pid file and ports are never touched.
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/netns.h"

namespace {

const char USAGE[] = "Usage: dypd [options]\n"
                     " -f config_file : Specifies the name of the config file.\n"
                     "                  (default: /etc/dypd.conf)\n"
                     " -d             : Debug mode. DYPD runs as a non-daemon.\n"
                     " -v             : Show the version number.\n"
                     " -h             : Show this message.\n"
                     " -i ifname      : Set Network Interfaces Name.(ex.\"eth0,!br1,*\")\n";

struct finished {
    int status = -1;
    std::string out;
    std::string err;
};

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// Runs a program to its end with standard output and error captured.
finished run_to_end(const std::vector<std::string> &argv) {
    char out_name[] = "/tmp/dypd-e2e-out-XXXXXX";
    char err_name[] = "/tmp/dypd-e2e-err-XXXXXX";
    int out_fd = mkstemp(out_name);
    int err_fd = mkstemp(err_name);
    finished result;
    pid_t pid = fork();
    if (pid == 0) {
        (void)dup2(out_fd, 1);
        (void)dup2(err_fd, 2);
        std::vector<char *> args;
        for (const auto &arg : argv)
            args.push_back(const_cast<char *>(arg.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    close(out_fd);
    close(err_fd);
    result.out = read_file(out_name);
    result.err = read_file(err_name);
    unlink(out_name);
    unlink(err_name);
    return result;
}

class temp_config {
  public:
    explicit temp_config(const std::string &text) {
        char name[] = "/tmp/dypd-e2e-conf-XXXXXX";
        int fd = mkstemp(name);
        close(fd);
        path_ = name;
        write(text);
    }
    ~temp_config() { unlink(path_.c_str()); }
    void write(const std::string &text) const {
        std::ofstream file(path_, std::ios::binary | std::ios::trunc);
        file << text;
    }
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// A daemon in the foreground (-d) in fresh mount and network namespaces.
// Its standard error is a pipe that the test reads line by line.
class isolated_daemon {
  public:
    explicit isolated_daemon(const std::string &arguments) {
        int pipe_fds[2];
        if (pipe2(pipe_fds, O_CLOEXEC) < 0)
            return;
        std::string script = "ip link set lo up && mount -t tmpfs none /var/run && exec " +
                             std::string(DYPD_BINARY) + " -d " + arguments;
        pid_ = fork();
        if (pid_ == 0) {
            (void)dup2(pipe_fds[1], 2);
            int null_fd = open("/dev/null", O_WRONLY);
            (void)dup2(null_fd, 1);
            execlp("unshare", "unshare", "-m", "-n", "sh", "-c", script.c_str(), nullptr);
            _exit(127);
        }
        close(pipe_fds[1]);
        err_fd_ = pipe_fds[0];
    }
    ~isolated_daemon() {
        if (pid_ > 0 && !reaped_) {
            (void)kill(pid_, SIGKILL);
            (void)waitpid(pid_, nullptr, 0);
        }
        if (err_fd_ >= 0)
            close(err_fd_);
    }
    isolated_daemon(const isolated_daemon &) = delete;
    isolated_daemon &operator=(const isolated_daemon &) = delete;

    pid_t pid() const { return pid_; }
    const std::string &err() const { return err_; }

    // Reads standard error until `needle` has appeared (true) or the
    // stream ends or 10 s pass (false).
    bool wait_for(const std::string &needle) {
        while (err_.find(needle) == std::string::npos) {
            pollfd ready{err_fd_, POLLIN, 0};
            if (poll(&ready, 1, 10000) <= 0)
                return false;
            char chunk[4096];
            ssize_t count = read(err_fd_, chunk, sizeof chunk);
            if (count <= 0)
                return false;
            err_.append(chunk, static_cast<size_t>(count));
        }
        return true;
    }

    // Waits for the daemon to end by itself; returns its exit status.
    int wait_exit() {
        (void)wait_for(std::string(1, '\0')); // reads to the end of the stream
        int status = 0;
        if (waitpid(pid_, &status, 0) != pid_)
            return -1;
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // A UDP socket inside the daemon's network namespace.
    int socket_inside() const {
        int saved = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        int target =
            open(("/proc/" + std::to_string(pid_) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
        int fd = -1;
        if (saved >= 0 && target >= 0 && setns(target, CLONE_NEWNET) == 0) {
            fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            (void)setns(saved, CLONE_NEWNET);
        }
        if (saved >= 0)
            close(saved);
        if (target >= 0)
            close(target);
        return fd;
    }

  private:
    pid_t pid_ = -1;
    int err_fd_ = -1;
    bool reaped_ = false;
    std::string err_;
};

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool send_bytes(int fd, uint16_t port, const std::vector<uint8_t> &bytes) {
    sockaddr_in to = loopback(port);
    return sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to),
                  sizeof to) == static_cast<ssize_t>(bytes.size());
}

// Sends an advertise request to `port` and returns the product name of the
// reply, or "<no reply>" when none came within `wait_ms`.
std::string advertised_product(int fd, uint16_t port, int wait_ms = 5000) {
    std::vector<uint8_t> request(88, 0);
    request[1] = 4;
    request[2] = 0x95;
    request[3] = 0x06;
    if (!send_bytes(fd, port, request))
        return "<send failed>";
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, wait_ms) != 1)
        return "<no reply>";
    uint8_t reply[600] = {};
    sockaddr_in from{};
    socklen_t length = sizeof from;
    ssize_t count =
        recvfrom(fd, reply, sizeof reply, 0, reinterpret_cast<sockaddr *>(&from), &length);
    if (count != 164 || ntohs(from.sin_port) != port)
        return "<bad reply>";
    return std::string(reinterpret_cast<const char *>(reply + 36));
}

} // namespace

TEST(CommandLine, StatusesAndTextsOfTheShortRuns) {
    temp_config invalid("product=Never\nportnum=19540,99999999999\n");
    const std::string version = "dypd version 1.6.2 (DYP Ver 2.2.0)\n";
    const std::string bad_option = std::string(DYPD_BINARY) + ": invalid option -- 'x'\n";
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out, err;
    } cases[] = {
        {{"-v"}, 0, version, ""},
        {{"-h"}, 0, "", USAGE},
        {{"-x"}, 1, "", bad_option + USAGE},
        {{"-v", "-x"}, 0, version, ""}, // options act in the order given
        {{"-f", "/nonexistent/dypd.conf", "-v"},
         1,
         "",
         "Cannot access the config file /nonexistent/dypd.conf (err: 2)\n"},
        {{"-d", "-f", invalid.path()}, 1, "", "Detected invalid configuration\n"},
    };
    for (const auto &c : cases) {
        std::vector<std::string> argv{DYPD_BINARY};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        finished run = run_to_end(argv);
        EXPECT_EQ(run.status, c.status) << c.args[0];
        EXPECT_EQ(run.out, c.out) << c.args[0];
        EXPECT_EQ(run.err, c.err) << c.args[0];
    }
}

TEST(Configuration, GarbageFileGivesTheDocumentedResult) {
    std::string garbage;
    for (unsigned i = 0; i < 300000; ++i) {
        char byte = static_cast<char>(i * 7919u % 251u);
        garbage += byte == '[' ? 'x' : byte; // a header would end the unnamed section
    }
    temp_config config(garbage + "\nds_port=77777777777\n");
    finished run = run_to_end({DYPD_BINARY, "-d", "-f", config.path()});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "Detected invalid configuration\n");
}

TEST(Daemon, DebugModePrintsTheSettingsAfterTheFileWasApplied) {
    DYP_REQUIRE_ROOT();
    temp_config config("product=Scanner Hub\nhostname=office\nnetif=br9\n"
                       "portnum=19540, 0x4c55,19542\nds_port=19542\n");
    isolated_daemon daemon("-i 'lo,!br1,*' -f " + config.path());
    ASSERT_TRUE(daemon.wait_for("started"));
    std::string rule(32, '-');
    EXPECT_NE(daemon.err().find(rule + "\n" + "Config File Path   = " + config.path() + "\n" +
                                "Product            = Scanner Hub\n"
                                "Host Name          = office\n"
                                "Bind Interface     = lo,!br1,*\n"
                                "UDP Ports          = 3\n"
                                "   ( 1)UDP Port    = 19540\n"
                                "   ( 2)UDP Port    = 19541\n"
                                "   ( 3)UDP Port    = 19542\n" +
                                rule + "\n"),
              std::string::npos)
        << daemon.err();
    EXPECT_NE(daemon.err().find("dypd version 1.6.2 (DYP Ver 2.2.0) started"), std::string::npos);
}

TEST(Daemon, NoPrimaryAmongSeveralPortsFailsToInitialise) {
    DYP_REQUIRE_ROOT();
    temp_config config("portnum=19540,19541\nds_port=1\n");
    isolated_daemon daemon("-f " + config.path());
    EXPECT_EQ(daemon.wait_exit(), 256 - EINVAL);
    EXPECT_NE(daemon.err().find("failed to initialize the daemon [-22]"), std::string::npos)
        << daemon.err();
}

TEST(Daemon, SecondInstanceIsRefusedByThePidFileLock) {
    DYP_REQUIRE_ROOT();
    temp_config config("portnum=19540\n");
    isolated_daemon first("-f " + config.path());
    ASSERT_TRUE(first.wait_for("registered command"));
    std::string namespaces = "/proc/" + std::to_string(first.pid()) + "/ns/";
    const std::vector<std::string> read_pid_file = {
        "/usr/bin/nsenter", "--mount=" + namespaces + "mnt", "/bin/cat", "/var/run/dypd.pid"};
    ASSERT_EQ(run_to_end(read_pid_file).out, std::to_string(first.pid()) + "\n");

    finished second =
        run_to_end({"/usr/bin/nsenter", "--mount=" + namespaces + "mnt",
                    "--net=" + namespaces + "net", DYPD_BINARY, "-d", "-f", config.path()});
    EXPECT_EQ(second.status, 256 - EALREADY);
    EXPECT_NE(second.err.find("failed to create a pid file"), std::string::npos) << second.err;
    EXPECT_EQ(run_to_end(read_pid_file).out, std::to_string(first.pid()) + "\n");
    EXPECT_EQ(kill(first.pid(), 0), 0) << "the first instance runs on";
}

TEST(Daemon, HangUpChangesTheProductNameButNotThePorts) {
    DYP_REQUIRE_ROOT();
    temp_config config("product=First\nportnum=19540,19541\n");
    isolated_daemon daemon("-f " + config.path());
    ASSERT_TRUE(daemon.wait_for("registered command GET USB_PORT_NAME"));
    int fd = daemon.socket_inside();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(advertised_product(fd, 19541), "First");

    config.write("product=Second\nportnum=19550,19551\nds_port=19550\n");
    ASSERT_EQ(kill(daemon.pid(), SIGHUP), 0);
    ASSERT_TRUE(daemon.wait_for("failed to select a fd (err: -4)")) << daemon.err();
    EXPECT_EQ(advertised_product(fd, 19541), "Second");
    // Replies come within 150 ms; a quiet second means nobody listens.
    EXPECT_EQ(advertised_product(fd, 19550, 1000), "<no reply>");
    close(fd);
}

TEST(Daemon, DatagramsOfAnySizeAreConsumedWithoutHarm) {
    DYP_REQUIRE_ROOT();
    temp_config config("product=Robust\n");
    isolated_daemon daemon("-f " + config.path());
    ASSERT_TRUE(daemon.wait_for("registered command GET USB_PORT_NAME"));
    int fd = daemon.socket_inside();
    ASSERT_GE(fd, 0);
    std::vector<std::vector<uint8_t>> odd = {{},
                                             std::vector<uint8_t>(1, 0xff),
                                             std::vector<uint8_t>(87, 0x01),
                                             std::vector<uint8_t>(511, 0x02),
                                             std::vector<uint8_t>(65000, 0x00)};
    for (uint16_t port : {19540, 19541})
        for (const auto &bytes : odd)
            ASSERT_TRUE(send_bytes(fd, port, bytes));
    EXPECT_EQ(advertised_product(fd, 19541), "Robust");
    EXPECT_EQ(kill(daemon.pid(), 0), 0);
    close(fd);
}
