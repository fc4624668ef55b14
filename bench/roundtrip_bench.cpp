// Sequential request/response round trips on loopback: a bare UDP echo
// server against the daemon's request handler serving a one-window read
// command (START, then END). Prints both costs and their ratio, measured
// two ways:
//   stepped:  the bench thread itself serves each request right after
//             sending it, as one pass of the main loop would; this is the
//             CPU cost of the path and hardly moves with machine load;
//   threaded: each server runs in its own thread, blocked in its receive
//             call as the daemon is; this adds the wake-ups and follows the
//             scheduler, so it is noisy on a busy machine.
// Each sample times one echo round trip and, right after it, one
// transaction; medians are compared, so bursts of load hit both alike.
//
//   roundtrip_bench [samples, default 20000]

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "daemon/dypd_priv.h"
#include "lib/alloc.h"
#include "lib/be.h"
#include "lib/fd.h"
#include "protocol/command.h"
#include "protocol/handler.h"
#include "protocol/packet.h"

namespace {
constexpr uint32_t RESULT_SIZE = 256;
constexpr double BUDGET = 2.3;

int32_t one_window(dypd_session *, const uint8_t *, uint8_t *buffer, uint32_t) {
    std::memset(buffer, 0x5a, RESULT_SIZE);
    return RESULT_SIZE;
}

const dypd_command bench_commands[] = {{"GET BENCH", DYPD_XFER_READ, one_window}};

[[noreturn]] void fail(const char *what) {
    std::perror(what);
    std::exit(1);
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

unique_fd bound_socket(uint16_t *port) {
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr *>(&a), &len) != 0)
        fail("socket");
    *port = ntohs(a.sin_port);
    return fd;
}

std::vector<uint8_t> request(uint16_t type, const char *name, uint16_t length) {
    std::vector<uint8_t> r(DYP_REQUEST_HEADER_SIZE, 0);
    put_be16(r.data() + DYP_REQ_TYPE, type);
    if (name != nullptr)
        std::strncpy(reinterpret_cast<char *>(r.data() + DYP_REQ_NAME), name, DYP_NAME_SIZE - 1);
    put_be16(r.data() + DYP_REQ_LENGTH, length);
    return r;
}

// Answers one datagram with itself; false for the one-byte stop datagram.
bool echo_one(int fd) {
    uint8_t buf[DYP_RESPONSE_MAX];
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&peer), &len);
    if (n == 1)
        return false;
    if (n > 0)
        (void)sendto(fd, buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr *>(&peer), len);
    return true;
}

struct daemon_endpoint {
    dypd_udp_port ep{};

    void open() {
        uint16_t port = 0;
        { unique_fd probe = bound_socket(&port); }
        if (dypd_init_socket(&ep.header, DYPD_ENDPOINT_UDP) < 0 ||
            dypd_set_udp_port(&ep.header, port) < 0 || dypd_open_socket(&ep.header) < 0 ||
            dypd_session_init(&ep.session) < 0 || dypd_command_init() < 0 ||
            dypd_register_commands(bench_commands, 1) < 0)
            fail("endpoint");
        ep.recv_buffer = static_cast<uint8_t *>(dyp_calloc(1, DYP_REQUEST_MAX));
        ep.send_buffer = static_cast<uint8_t *>(dyp_calloc(1, DYP_RESPONSE_MAX));
        if (ep.recv_buffer == nullptr || ep.send_buffer == nullptr)
            fail("endpoint buffers");
    }

    void close() {
        dypd_command_cleanup();
        dypd_session_cleanup(&ep.session);
        dyp_free(ep.recv_buffer);
        dyp_free(ep.send_buffer);
        dypd_release_socket(&ep.header);
        dyp_free(ep.header.ports);
    }

    uint16_t port() const { return *ep.header.bound_port; }
};

struct client {
    unique_fd fd;
    sockaddr_in echo_addr;
    sockaddr_in daemon_addr;
    std::vector<uint8_t> start = request(DYP_TYPE_START, "GET BENCH", DYP_WINDOW_MAX);
    std::vector<uint8_t> end = request(DYP_TYPE_END, nullptr, RESULT_SIZE);

    void send(const sockaddr_in &to, const std::vector<uint8_t> &packet) const {
        if (sendto(fd.get(), packet.data(), packet.size(), 0,
                   reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
            fail("sendto");
    }
    void receive() const {
        uint8_t buf[DYP_RESPONSE_MAX];
        if (recv(fd.get(), buf, sizeof buf, 0) <= 0)
            fail("recv");
    }
};

struct medians {
    double echo_ns;
    double transaction_ns;
};

template <typename F> double nanoseconds(F &&once) {
    auto begin = std::chrono::steady_clock::now();
    once();
    auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(end - begin).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// `serve_echo` and `serve_daemon` run on the bench thread after each send:
// they do the server's work in the stepped mode and nothing when servers
// have threads of their own.
template <typename E, typename D>
medians measure(const client &c, int samples, E &&serve_echo, D &&serve_daemon) {
    auto echo_once = [&] {
        c.send(c.echo_addr, c.start);
        serve_echo();
        c.receive();
    };
    auto transaction_once = [&] {
        c.send(c.daemon_addr, c.start);
        serve_daemon();
        c.receive();
        c.send(c.daemon_addr, c.end);
        serve_daemon();
        c.receive();
    };
    for (int i = 0; i < samples / 10; ++i) {
        echo_once();
        transaction_once();
    }
    std::vector<double> echo_ns, transaction_ns;
    echo_ns.reserve(samples);
    transaction_ns.reserve(samples);
    for (int i = 0; i < samples; ++i) {
        echo_ns.push_back(nanoseconds(echo_once));
        transaction_ns.push_back(nanoseconds(transaction_once));
    }
    return {median(echo_ns), median(transaction_ns)};
}

void print(const char *mode, const medians &m) {
    std::printf("%-8s  echo round trip %7.0f ns  START+END %7.0f ns  ratio %.2f (budget %.1f)\n",
                mode, m.echo_ns, m.transaction_ns, m.transaction_ns / m.echo_ns, BUDGET);
}
} // namespace

int main(int argc, char **argv) {
    int samples = argc > 1 ? std::atoi(argv[1]) : 20000;
    if (samples <= 0) {
        std::fprintf(stderr, "usage: %s [samples]\n", argv[0]);
        return 2;
    }

    uint16_t echo_port = 0;
    uint16_t client_port = 0;
    unique_fd echo_fd = bound_socket(&echo_port);
    daemon_endpoint daemon;
    daemon.open();
    client c{bound_socket(&client_port), loopback(echo_port), loopback(daemon.port())};

    medians stepped = measure(
        c, samples, [&] { (void)echo_one(echo_fd.get()); },
        [&] { dypd_dyp_handler(&dyp_daemon, &daemon.ep); });
    print("stepped", stepped);

    std::atomic<bool> stop{false};
    std::thread echo_thread([&] {
        while (echo_one(echo_fd.get())) {
        }
    });
    std::thread daemon_thread([&] {
        while (!stop.load())
            dypd_dyp_handler(&dyp_daemon, &daemon.ep);
    });
    medians threaded = measure(
        c, samples, [] {}, [] {});
    print("threaded", threaded);

    c.send(c.echo_addr, std::vector<uint8_t>(1, 0));
    stop.store(true);
    // An invalid packet type wakes the handler without an answer.
    c.send(c.daemon_addr, request(0, nullptr, 0));
    echo_thread.join();
    daemon_thread.join();
    daemon.close();
    return 0;
}
