// Discovery storm: the real dypd on the driver simulator in a network
// namespace, hosts in another. Advertise requests arrive at a given rate,
// spread over 20 source addresses (and, in a last run, from one source
// flooding alone), while one host lists the devices and connects and
// disconnects a scanner over and over as dypctl would. Prints, per rate,
// the replies per second, the latencies of a complete "GET USB_DEVICE_LIST"
// read and of a connect, the commands that failed, the requests that were
// within the daemon's bounds yet got no reply, and the distribution of the
// reply delays; then checks the budget against the idle run.
//
//   storm_bench [seconds per rate, default 10]     (as root)
//
// The rates take turns in one-second slices, so that load from elsewhere
// on the machine falls on the idle figures as on the others.
//
// Each request goes out from a socket of its own (a pool per source), so
// that every reply is matched to its request by the port it comes back to.

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "dypclient.h"
#include "lib/fd.h"
#include "support/sim_testbed.h"

namespace {
using steady = std::chrono::steady_clock;

constexpr int SOURCES = 20;
constexpr int PER_ADDRESS_BOUND = 4;
constexpr int QUEUE_BOUND = 64;
// A reply later than this counts as missing; the delay itself is < 150 ms.
constexpr double REPLY_EXPIRY_MS = 400;
constexpr double BUDGET_RATIO = 2.0;
const char *const BOX = "192.0.2.1";

[[noreturn]] void fail(const std::string &what) {
    std::fprintf(stderr, "storm_bench: %s\n", what.c_str());
    std::exit(1);
}

double ms_between(steady::time_point from, steady::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

// The p-th quantile (0..1) of `v`, by the nearest-rank rule; NaN when empty.
double quantile(std::vector<double> v, double p) {
    if (v.empty())
        return NAN;
    std::sort(v.begin(), v.end());
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(v.size())));
    return v[std::clamp<size_t>(rank, 1, v.size()) - 1];
}

struct probe {
    int fd = -1;
    int source = 0;
    bool busy = false;
    uint32_t generation = 0; // sends so far, to tell a stale entry of in_flight_
    bool within_bounds = false;
    steady::time_point sent;
    timespec sent_wall; // compared with the kernel's receive time stamp
};

struct storm_result {
    int sent = 0, replies = 0, unsent = 0, within_bounds = 0, within_bounds_missed = 0;
    std::vector<double> delays_ms;
};

// Advertise requests at `rate` per second for `seconds`, request i from
// source i % sources, each from a free socket of its source's pool.
class request_storm {
  public:
    // Each source needs a socket per request sent within REPLY_EXPIRY_MS.
    request_storm(const std::vector<std::string> &addresses, int sockets_per_source)
        : sources_(static_cast<int>(addresses.size())), free_(addresses.size()),
          busy_(addresses.size()) {
        epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
        for (size_t s = 0; s < addresses.size(); ++s) {
            for (int i = 0; i < sockets_per_source; ++i) {
                unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
                sockaddr_in a{};
                a.sin_family = AF_INET;
                (void)inet_pton(AF_INET, addresses[s].c_str(), &a.sin_addr);
                int on = 1;
                if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
                    setsockopt(fd.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0)
                    fail("cannot bind a source socket to " + addresses[s]);
                epoll_event event{EPOLLIN, {.u32 = static_cast<uint32_t>(probes_.size())}};
                (void)epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd.get(), &event);
                free_[s].push_back(static_cast<uint32_t>(probes_.size()));
                probes_.push_back({fd.get(), static_cast<int>(s)});
                fds_.push_back(std::move(fd));
            }
        }
    }

    storm_result run(double rate, double seconds) {
        result_ = {};
        steady::time_point start = steady::now();
        steady::time_point end = start + std::chrono::duration_cast<steady::duration>(
                                             std::chrono::duration<double>(seconds));
        long next = 0;
        auto due = [&](long i) {
            return start + std::chrono::duration_cast<steady::duration>(
                               std::chrono::duration<double>(static_cast<double>(i) / rate));
        };
        // Requests go out until the end; replies are awaited a while longer.
        steady::time_point drain_end = end + std::chrono::milliseconds(600);
        for (steady::time_point now = start; now < drain_end; now = steady::now()) {
            expire(now);
            while (rate > 0 && now < end && due(next) <= now)
                send(static_cast<int>(next++ % sources_), now);
            // Rounded up: the next request may go out up to a millisecond
            // late, but this loop never spins while it waits for it.
            int wait_ms = 5;
            if (rate > 0 && now < end)
                wait_ms = std::clamp(static_cast<int>(std::ceil(ms_between(now, due(next)))), 0, 5);
            receive(wait_ms);
        }
        expire(steady::time_point::max());
        return result_;
    }

  private:
    void send(int source, steady::time_point now) {
        if (free_[source].empty()) {
            ++result_.unsent;
            return;
        }
        probe &p = probes_[free_[source].back()];
        // A reply that came after its request expired must not be taken
        // for the answer to this one.
        for (timespec stale{}; receive_one(p.fd, &stale);) {
        }
        // Our count of what waits is never below the daemon's: a reply in
        // flight is still counted here, a request in flight not yet there.
        p.within_bounds = busy_[source] < PER_ADDRESS_BOUND && busy_total_ < QUEUE_BOUND;
        (void)clock_gettime(CLOCK_REALTIME, &p.sent_wall);
        if (sendto(p.fd, request_.data(), request_.size(), 0,
                   reinterpret_cast<const sockaddr *>(&box_), sizeof box_) < 0) {
            ++result_.unsent;
            return;
        }
        free_[source].pop_back();
        p.busy = true;
        p.sent = now;
        ++busy_[source];
        ++busy_total_;
        in_flight_.push_back({static_cast<uint32_t>(&p - probes_.data()), ++p.generation});
        ++result_.sent;
        result_.within_bounds += p.within_bounds;
    }

    void release(probe &p) {
        p.busy = false;
        --busy_[p.source];
        --busy_total_;
        free_[p.source].push_back(static_cast<uint32_t>(&p - probes_.data()));
    }

    void receive(int wait_ms) {
        epoll_event events[64];
        int n = epoll_wait(epoll_.get(), events, 64, wait_ms);
        for (int i = 0; i < n; ++i) {
            probe &p = probes_[events[i].data.u32];
            timespec arrived{};
            while (receive_one(p.fd, &arrived)) {
                if (!p.busy)
                    continue; // a reply after its expiry: already counted missing
                release(p);
                ++result_.replies;
                result_.delays_ms.push_back(
                    static_cast<double>(arrived.tv_sec - p.sent_wall.tv_sec) * 1e3 +
                    static_cast<double>(arrived.tv_nsec - p.sent_wall.tv_nsec) / 1e6);
            }
        }
    }

    // One datagram and the time the kernel took it in, so that the delays
    // do not include this program's own scheduling.
    static bool receive_one(int fd, timespec *arrived) {
        uint8_t buffer[600];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
        iovec data{buffer, sizeof buffer};
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        if (recvmsg(fd, &message, 0) < 0)
            return false;
        (void)clock_gettime(CLOCK_REALTIME, arrived);
        for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c))
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS)
                std::memcpy(arrived, CMSG_DATA(c), sizeof *arrived);
        return true;
    }

    // Requests unanswered after REPLY_EXPIRY_MS count as missing, oldest first.
    void expire(steady::time_point now) {
        while (!in_flight_.empty()) {
            probe &p = probes_[in_flight_.front().first];
            bool current = p.busy && p.generation == in_flight_.front().second;
            if (current && ms_between(p.sent, now) <= REPLY_EXPIRY_MS)
                return;
            if (current) {
                result_.within_bounds_missed += p.within_bounds;
                release(p);
            }
            in_flight_.pop_front();
        }
    }

    unique_fd epoll_;
    std::vector<unique_fd> fds_;
    std::vector<probe> probes_;
    int sources_;
    std::vector<std::vector<uint32_t>> free_; // per source
    std::vector<int> busy_;                   // per source
    int busy_total_ = 0;
    std::deque<std::pair<uint32_t, uint32_t>> in_flight_; // probe, generation
    sockaddr_in box_ = dyp::parse_endpoint(BOX, dyp::DEFAULT_PORT).addr;
    dyp::bytes request_ = dyp::encode_advertise_request();
    storm_result result_;
};

struct command_result {
    std::vector<double> list_ms, connect_ms;
    int commands = 0, failed = 0;
};

// One host's commands, one after the other with a short pause, as dypctl
// would send them: a device list, a connect and a disconnect of scanner2.
command_result run_commands(const std::atomic<bool> &stop) {
    command_result r;
    dyp::endpoint box = dyp::parse_endpoint(BOX, dyp::DEFAULT_PORT);
    dyp::connect_params params{{0x02, 0x00, 0x5e, 0x00, 0x53, 0x02}, {}, "scanner2", 0, 0};
    uint8_t mac[6];
    dyp::local_identity(box, params.ip, mac);
    std::string connect = dyp::encode_connect_name("EXEC SCANNER CONNECT", params);
    std::string disconnect = dyp::encode_connect_name("EXEC SCANNER DISCONNECT", params);
    auto timed = [&](std::vector<double> *into, auto command) {
        ++r.commands;
        steady::time_point start = steady::now();
        try {
            if (!command())
                ++r.failed;
            else if (into != nullptr)
                into->push_back(ms_between(start, steady::now()));
        } catch (const std::exception &) {
            ++r.failed;
        }
    };
    while (!stop) {
        timed(&r.list_ms,
              [&] { return !dyp::transfer_read(box, "GET USB_DEVICE_LIST", {}, {}).empty(); });
        timed(&r.connect_ms,
              [&] { return dyp::decode_ok_ng(dyp::transfer_exec(box, connect, {})); });
        timed(nullptr, [&] { return dyp::decode_ok_ng(dyp::transfer_exec(box, disconnect, {})); });
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return r;
}

struct row {
    std::string label;
    request_storm *load;
    double rate;
    storm_result storm;
    command_result commands;
    double seconds = 0;
    double daemon_cpu_s = 0;
};

// The daemon's user and system time so far, in seconds.
double cpu_seconds(pid_t pid) {
    std::string stat = read_text_file("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i)
        if (i >= 14)
            ticks += std::atof(field.c_str());
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// One slice of `seconds` at the row's rate, added to the row.
void measure(row &r, double seconds, pid_t daemon) {
    std::atomic<bool> stop{false};
    command_result c;
    double cpu = cpu_seconds(daemon);
    std::thread host([&] { c = run_commands(stop); });
    storm_result s = r.load->run(r.rate, seconds);
    stop = true;
    host.join();
    r.daemon_cpu_s += cpu_seconds(daemon) - cpu;
    r.seconds += seconds;
    r.storm.sent += s.sent;
    r.storm.replies += s.replies;
    r.storm.unsent += s.unsent;
    r.storm.within_bounds += s.within_bounds;
    r.storm.within_bounds_missed += s.within_bounds_missed;
    r.storm.delays_ms.insert(r.storm.delays_ms.end(), s.delays_ms.begin(), s.delays_ms.end());
    r.commands.commands += c.commands;
    r.commands.failed += c.failed;
    r.commands.list_ms.insert(r.commands.list_ms.end(), c.list_ms.begin(), c.list_ms.end());
    r.commands.connect_ms.insert(r.commands.connect_ms.end(), c.connect_ms.begin(),
                                 c.connect_ms.end());
}

void print_row(const row &r) {
    const storm_result &s = r.storm;
    std::printf("| %-14s | %6.1f | %6.1f | %4.1f | %6.2f / %7.2f | %6.2f / %7.2f | %3d of %4d | %4d of %5d | "
                "%5.1f / %5.1f / %5.1f / %5.1f |\n",
                r.label.c_str(), s.sent / r.seconds, s.replies / r.seconds,
                100 * r.daemon_cpu_s / r.seconds, quantile(r.commands.list_ms, 0.5),
                quantile(r.commands.list_ms, 0.99), quantile(r.commands.connect_ms, 0.5),
                quantile(r.commands.connect_ms, 0.99), r.commands.failed, r.commands.commands,
                s.within_bounds_missed, s.within_bounds, quantile(s.delays_ms, 0),
                quantile(s.delays_ms, 0.5), quantile(s.delays_ms, 0.99),
                quantile(s.delays_ms, 1));
    std::fflush(stdout);
}

// The delays of every reply of every run, in 25 ms bins.
void print_histogram(const std::vector<row> &rows) {
    std::vector<int> bins(8);
    int total = 0;
    for (const row &r : rows) {
        for (double d : r.storm.delays_ms) {
            ++bins[std::min<size_t>(static_cast<size_t>(d / 25), bins.size() - 1)];
            ++total;
        }
    }
    std::printf("\nreply delays, all runs (%d replies):\n", total);
    for (size_t i = 0; i < bins.size(); ++i)
        std::printf("  %s%3zu-%3zu ms: %6d (%.1f%%)\n", i + 1 < bins.size() ? " " : ">", i * 25,
                    i + 1 < bins.size() ? (i + 1) * 25 : 999, bins[i],
                    total > 0 ? 100.0 * bins[i] / total : 0.0);
}

bool check(bool ok, const std::string &what) {
    std::printf("  %s  %s\n", ok ? "ok  " : "OVER", what.c_str());
    return ok;
}

} // namespace

int main(int argc, char **argv) {
    double seconds = argc > 1 ? std::atof(argv[1]) : 10;
    if (geteuid() != 0 || seconds <= 0)
        fail("run as root: storm_bench [seconds per rate]");
    rlimit files{4096, 4096};
    (void)setrlimit(RLIMIT_NOFILE, &files);

    sim_testbed bed;
    if (!bed.ready())
        fail("cannot set up the namespaces");
    std::string conf = bed.dir() + "/dypd.conf";
    std::ofstream(conf) << "portnum=19540\nds_port=19540\nhostname=storm\n";
    if (!bed.start(sim_testbed::daemon_script(conf), {19540, 49235}))
        fail("the daemon did not start:\n" + bed.output());
    netns_scope host(bed.host().name());
    if (!host.ok())
        fail("cannot enter the host namespace");
    std::vector<std::string> addresses;
    for (int i = 0; i < SOURCES; ++i)
        addresses.push_back("192.0.2." + std::to_string(100 + i));
    std::string flooder = "192.0.2.200";
    for (const std::string &a : addresses)
        (void)run_shell("ip addr add " + a + "/24 dev " + bed.host_link());
    (void)run_shell("ip addr add " + flooder + "/24 dev " + bed.host_link());
    request_storm spread(addresses, 40), alone({flooder}, 512);
    pid_t daemon = std::atoi(run_shell_output("ip netns pids " + bed.box().name()).c_str());

    std::printf("%.0f s per rate in 1 s slices; 20 sources unless said; latencies in ms; CPU%%: "
                "the daemon's\n\n", std::ceil(seconds));
    std::vector<row> rows;
    for (double rate : {0.0, 10.0, 50.0, 200.0, 1000.0})
        rows.push_back({std::to_string(static_cast<int>(rate)), &spread, rate});
    rows.push_back({"1000, 1 source", &alone, 1000});
    // One-second slices, every rate in turn, so that bursts of load from
    // elsewhere on the machine fall on all rates alike.
    for (int slice = 0; slice < static_cast<int>(std::ceil(seconds)); ++slice) {
        for (row &r : rows)
            measure(r, 1.0, daemon);
        std::fprintf(stderr, "\rslice %d of %.0f", slice + 1, std::ceil(seconds));
    }
    std::fprintf(stderr, "\n");
    std::printf("| requests/s     | sent/s | rep./s | CPU%% | list p50 / p99    | "
                "connect p50 / p99 | failed      | in-bound lost | delay min / p50 / p99 / max |\n");
    std::printf("|---|---|---|---|---|---|---|---|---|\n");
    for (const row &r : rows)
        print_row(r);
    print_histogram(rows);

    const row &idle = rows[0], &storm1000 = rows[4];
    std::printf("\nbudget (1000 requests/s from 20 sources against idle, same run):\n");
    bool ok = true;
    double idle_list = quantile(idle.commands.list_ms, 0.99);
    double idle_connect = quantile(idle.commands.connect_ms, 0.99);
    char text[160];
    std::snprintf(text, sizeof text, "list p99 %.2f ms <= %.1f x idle %.2f ms",
                  quantile(storm1000.commands.list_ms, 0.99), BUDGET_RATIO, idle_list);
    ok &= check(quantile(storm1000.commands.list_ms, 0.99) <= BUDGET_RATIO * idle_list, text);
    std::snprintf(text, sizeof text, "connect p99 %.2f ms <= %.1f x idle %.2f ms",
                  quantile(storm1000.commands.connect_ms, 0.99), BUDGET_RATIO, idle_connect);
    ok &= check(quantile(storm1000.commands.connect_ms, 0.99) <= BUDGET_RATIO * idle_connect, text);
    int failed = 0, missed = 0, unsent = 0;
    for (const row &r : rows) {
        failed += r.commands.failed;
        missed += r.storm.within_bounds_missed;
        unsent += r.storm.unsent;
    }
    // A source out of free sockets sends less than the rate asked.
    ok &= check(unsent == 0, std::to_string(unsent) + " requests not sent");
    ok &= check(failed == 0, std::to_string(failed) + " commands failed");
    ok &= check(missed == 0, std::to_string(missed) + " requests within the bounds unanswered");
    std::snprintf(text, sizeof text, "longest reply delay %.1f ms (150 ms + scheduling)",
                  quantile(storm1000.storm.delays_ms, 1));
    check(quantile(storm1000.storm.delays_ms, 1) < 150 + 50, text);
    return ok ? 0 : 2;
}
