// Soak: the real dypd on the simulated driver, driven over UDP on loopback
// with a long mix of requests, its memory and descriptors sampled every
// tenth of the run. The mix: full device-list transfers, status and port
// queries, connects and disconnects, keep-alives, sessions abandoned by an
// invalid packet type and sessions displaced by a second host after the
// 501 ms guard, datagrams that are short, oversized, of unknown type or for
// unknown commands, SKA packets that are malformed or too long, advertise
// requests at a low rate, and a configuration reload after every tenth
// datagram.
//
// Budget: after the first tenth, VmRSS and VmHWM grow by at most
// MEMORY_SLACK_KB and the number of open descriptors not at all; every
// well-formed request is answered, and answered correctly.
//
//   soak [datagrams, default 1000000] [--no-memory-budget]
//
// Runs as root: it makes its own network and mount namespaces (nothing to
// clean up afterwards), with a private /var/run for the pid file and
// /dev/log masked so that the daemon's error lines do not flood the host's
// log. Exit status 0 within budget, 1 over it, 77 when it cannot run.
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <net/if.h>
#include <optional>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "dypclient.h"
#include "lib/fd.h"

namespace {

using bytes = dyp::bytes;
constexpr uint16_t PRIMARY_PORT = 19540;
constexpr uint16_t OTHER_PORT = 19541;
constexpr uint16_t SKA = 49235;
constexpr long MEMORY_SLACK_KB = 16;
constexpr int REPLY_TIMEOUT_MS = 2000;
constexpr unsigned RELOAD_EVERY = 10;
constexpr unsigned ADVERTISE_EVERY = 5000;
constexpr int EXIT_SKIP = 77;

[[noreturn]] void cannot_run(const std::string &what) {
    std::fprintf(stderr, "soak: cannot run: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(EXIT_SKIP);
}

// Own network and mount namespaces: loopback up, /var/run private, no syslog.
void enter_private_namespaces() {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0)
        cannot_run("unshare (needs root)");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        cannot_run("private mounts");
    if (mount("soakrun", "/var/run", "tmpfs", 0, "mode=0755") != 0)
        cannot_run("tmpfs on /var/run");
    struct stat log_socket {};
    if (stat("/dev/log", &log_socket) == 0 &&
        mount("/dev/null", "/dev/log", nullptr, MS_BIND, nullptr) != 0)
        cannot_run("masking /dev/log");
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    if (ioctl(fd.get(), SIOCGIFFLAGS, &request) != 0)
        cannot_run("loopback flags");
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    if (ioctl(fd.get(), SIOCSIFFLAGS, &request) != 0)
        cannot_run("loopback up");
}

pid_t start_daemon(const std::string &conf) {
    pid_t child = fork();
    if (child != 0)
        return child;
    int null = open("/dev/null", O_RDWR);
    (void)dup2(null, STDOUT_FILENO);
    (void)dup2(null, STDERR_FILENO);
    setenv("DYPSIM_DEVICES", DYPSIM_DEVICES, 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
#ifdef DYPD_LAUNCHER
    // Under qemu-user: the launcher preloads the simulator into the guest.
    setenv("DYPTEST_TARGET_PRELOAD", DYPSIM_PRELOAD, 1);
    execl(DYPD_LAUNCHER, DYPD_LAUNCHER, DYPD_BINARY, "-d", "-f", conf.c_str(),
          static_cast<char *>(nullptr));
#else
    setenv("LD_PRELOAD", DYPSIM_PRELOAD, 1);
    execl(DYPD_BINARY, "dypd", "-d", "-f", conf.c_str(), static_cast<char *>(nullptr));
#endif
    _exit(127);
}

struct sample {
    unsigned percent;
    unsigned long datagrams;
    long rss_kb, hwm_kb;
    int fds;
};

sample take_sample(pid_t pid, unsigned percent, unsigned long datagrams) {
    sample s{percent, datagrams, -1, -1, 0};
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0)
            s.rss_kb = std::atol(line.c_str() + 6);
        if (line.rfind("VmHWM:", 0) == 0)
            s.hwm_kb = std::atol(line.c_str() + 6);
    }
    std::string fd_dir = "/proc/" + std::to_string(pid) + "/fd";
    if (DIR *dir = opendir(fd_dir.c_str())) {
        while (dirent *entry = readdir(dir))
            s.fds += entry->d_name[0] != '.' ? 1 : 0;
        closedir(dir);
    }
    return s;
}

class host {
  public:
    host() {
        fd_ = unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (!fd_.valid())
            cannot_run("socket");
    }
    void send(uint16_t port, const bytes &datagram) const {
        sockaddr_in to{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        (void)sendto(fd_.get(), datagram.data(), datagram.size(), 0,
                     reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    std::optional<bytes> receive() const {
        pollfd ready{fd_.get(), POLLIN, 0};
        if (poll(&ready, 1, REPLY_TIMEOUT_MS) != 1)
            return std::nullopt;
        bytes reply(8192);
        ssize_t n = recv(fd_.get(), reply.data(), reply.size(), 0);
        if (n < 0)
            return std::nullopt;
        reply.resize(static_cast<size_t>(n));
        return reply;
    }

  private:
    unique_fd fd_;
};

bytes dyp_request(uint16_t type, const std::string &name = "", uint16_t offset = 0,
                  uint16_t length = 512, const bytes &data = {}) {
    return dyp::encode_request(dyp::make_request(type, name, offset, length, data));
}

std::string connect_name(const char *command) {
    dyp::connect_params params{{0x02, 0x00, 0x5e, 0x00, 0x53, 0x02}, {}, "scanner2", 0, 0};
    params.ip.s_addr = htonl(INADDR_LOOPBACK);
    return dyp::encode_connect_name(command, params);
}

class soak {
  public:
    explicit soak(pid_t daemon) : daemon_(daemon) {}

    unsigned long datagrams = 0;
    unsigned long lost = 0;  // well-formed requests left unanswered
    unsigned long wrong = 0; // answers that are not what the request asks for

    // One datagram that must be answered; the answer, if it came.
    std::optional<bytes> ask(const host &from, uint16_t port, const bytes &datagram) {
        send(from, port, datagram);
        auto reply = from.receive();
        if (!reply)
            ++lost;
        return reply;
    }
    // One datagram that must not be answered; a stray answer shows later
    // as a wrong one.
    void send(const host &from, uint16_t port, const bytes &datagram) {
        from.send(port, datagram);
        if (++datagrams % RELOAD_EVERY == 0)
            (void)kill(daemon_, SIGHUP);
    }

    // START, DATA while more remains, END; the result when all came back.
    std::optional<bytes> transfer(const host &from, const std::string &name,
                                  const bytes &data = {}) {
        bytes result;
        auto reply = ask(from, PRIMARY_PORT, dyp_request(1, name, 0, 512, data));
        for (int windows = 0; reply; ++windows) {
            dyp::response r = dyp::decode_response(reply->data(), reply->size());
            result.insert(result.end(), r.data.begin(), r.data.end());
            if (r.status != 1 || windows > 128)
                break;
            reply = ask(from, PRIMARY_PORT,
                        dyp_request(2, "", static_cast<uint16_t>(r.offset + r.length)));
        }
        if (!reply || !ask(from, PRIMARY_PORT, dyp_request(3)))
            return std::nullopt;
        return result;
    }
    void expect(bool right) { wrong += right ? 0 : 1; }

    void device_list(const host &from, bool extended) {
        auto result = transfer(from, extended ? "GET USB_DEVICE_LIST_EX" : "GET USB_DEVICE_LIST");
        if (result)
            expect(dyp::decode_device_list(*result, extended).entries.size() == 3);
    }
    void queries(const host &from) {
        auto status = transfer(from, "GET SCANNER_STATUS:scanner1");
        if (status)
            expect(dyp::decode_scanner_status(*status).holder == "192.0.2.20");
        auto names = transfer(from, "GET SCANNER PORT_NAME");
        if (names)
            expect(dyp::decode_port_names(*names).size() == 3);
        auto port =
            transfer(from, "GET USB_PORT_NAME", dyp::encode_usb_port_query(0x2b7c, 0x00c2, "H113"));
        if (port)
            expect(dyp::decode_usb_port_name(*port) == "scanner2");
    }
    void connect_and_disconnect(const host &from) {
        for (const char *command : {"EXEC SCANNER CONNECT", "EXEC SCANNER DISCONNECT"}) {
            auto result = transfer(from, connect_name(command));
            if (result)
                expect(dyp::decode_ok_ng(*result));
        }
    }
    void keep_alive(const host &from) {
        bytes packet = dyp::encode_ska({"scanner1", "scanner2"});
        auto echo = ask(from, SKA, packet);
        if (echo)
            expect(*echo == packet);
    }
    // Nothing here may be answered.
    void malformed(const host &from) {
        send(from, PRIMARY_PORT, bytes(50, 0x01));                      // short
        send(from, PRIMARY_PORT, bytes(600, 0x01));                     // oversized
        send(from, PRIMARY_PORT, dyp_request(1, "GET NOTHING AT ALL")); // unknown command
        send(from, PRIMARY_PORT, dyp_request(2));                       // no session
        send(from, PRIMARY_PORT, dyp_request(7));                       // unknown type
        send(from, SKA, bytes{0x00, 0x06, 'K', 'B', 0, 0});             // bad magic
        send(from, SKA, bytes(5000, 0x00));                             // too long
    }
    // A START answered, then abandoned by a packet of an invalid type.
    void abandoned(const host &from) {
        if (ask(from, PRIMARY_PORT, dyp_request(1, "GET USB_DEVICE_LIST_EX")))
            send(from, PRIMARY_PORT, dyp_request(0));
    }
    // `first` leaves its session open; after the guard `second` takes the
    // endpoint over, and `first` is a stranger from then on.
    void displaced(const host &first, const host &second) {
        if (!ask(first, PRIMARY_PORT, dyp_request(1, "GET USB_DEVICE_LIST")))
            return;
        usleep(510 * 1000);
        device_list(second, false);
        send(first, PRIMARY_PORT, dyp_request(2, "", 512));
    }
    void advertise(const host &from) {
        for (uint16_t port : {PRIMARY_PORT, OTHER_PORT}) {
            auto reply = ask(from, port, dyp::encode_advertise_request());
            if (reply)
                expect(reply->size() == 164);
        }
    }

  private:
    pid_t daemon_;
};

bool within_budget(const std::vector<sample> &samples, bool memory_budget) {
    bool ok = true;
    const sample &first = samples.front();
    for (const sample &s : samples) {
        if (s.fds != first.fds)
            ok = false;
        if (memory_budget && (s.rss_kb - first.rss_kb > MEMORY_SLACK_KB ||
                              s.hwm_kb - first.hwm_kb > MEMORY_SLACK_KB))
            ok = false;
    }
    return ok;
}

} // namespace

int main(int argc, char **argv) {
    unsigned long total = 1000000;
    bool memory_budget = true;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--no-memory-budget") == 0)
            memory_budget = false;
        else
            total = std::strtoul(argv[i], nullptr, 10);
    }
    if (geteuid() != 0) {
        std::fprintf(stderr, "soak: skipped: needs root for its namespaces\n");
        return EXIT_SKIP;
    }
    enter_private_namespaces();
    const std::string conf = "/var/run/soak.conf";
    std::ofstream(conf) << "product=Soak Box\nnetif=lo\nportnum=" << PRIMARY_PORT << ","
                        << OTHER_PORT << "\nds_port=" << PRIMARY_PORT << "\n";
    pid_t daemon = start_daemon(conf);
    host a, b, c;
    soak run(daemon);
    // The daemon is up once it answers discovery.
    std::optional<bytes> up;
    for (int tries = 0; tries < 50 && !up; ++tries)
        up = (a.send(PRIMARY_PORT, dyp::encode_advertise_request()), a.receive());
    if (!up) {
        kill(daemon, SIGKILL);
        std::fprintf(stderr, "soak: the daemon did not come up\n");
        return 1;
    }

    std::vector<sample> samples;
    unsigned long next_sample = total / 10;
    unsigned long next_displacement = total / 20;
    unsigned long next_advertise = ADVERTISE_EVERY;
    auto started = std::chrono::steady_clock::now();
    std::printf("%8s %10s %10s %10s %5s\n", "done", "datagrams", "VmRSS kB", "VmHWM kB", "fds");
    while (run.datagrams < total) {
        run.device_list(a, true);
        run.device_list(a, false);
        run.queries(a);
        run.connect_and_disconnect(a);
        run.keep_alive(c);
        run.malformed(b);
        run.abandoned(a);
        run.keep_alive(c);
        if (run.datagrams >= next_advertise) {
            run.advertise(c);
            next_advertise += ADVERTISE_EVERY;
        }
        if (run.datagrams >= next_displacement) {
            run.displaced(a, b);
            next_displacement += total / 10;
        }
        while (run.datagrams >= next_sample && samples.size() < 10) {
            samples.push_back(
                take_sample(daemon, 10 * static_cast<unsigned>(samples.size() + 1), run.datagrams));
            const sample &s = samples.back();
            std::printf("%7u%% %10lu %10ld %10ld %5d\n", s.percent, s.datagrams, s.rss_kb, s.hwm_kb,
                        s.fds);
            std::fflush(stdout);
            next_sample += total / 10;
        }
    }
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    int status = 0;
    bool alive = waitpid(daemon, &status, WNOHANG) == 0;
    kill(daemon, SIGTERM);
    waitpid(daemon, &status, 0);

    bool ok = alive && run.lost == 0 && run.wrong == 0 && samples.size() == 10 &&
              within_budget(samples, memory_budget);
    std::printf("%lu datagrams in %.1f s (%.0f/s); lost replies %lu, wrong replies %lu; "
                "daemon %s; RSS growth after 10%%: %ld kB, HWM growth: %ld kB (budget %s)\n",
                run.datagrams, seconds, run.datagrams / seconds, run.lost, run.wrong,
                alive ? "alive" : "died", samples.back().rss_kb - samples.front().rss_kb,
                samples.back().hwm_kb - samples.front().hwm_kb,
                memory_budget ? std::to_string(MEMORY_SLACK_KB).append(" kB").c_str() : "off");
    std::printf("%s\n", ok ? "within budget" : "OVER BUDGET");
    return ok ? 0 : 1;
}
