#include "exchange.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <netdb.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/socket.h>

#include "ds/ska.h"
#include "protocol/packet.h"

namespace dyp {

namespace {

constexpr size_t RESULT_MAX = 65536;

std::string errno_text(const char *what) {
    return std::string(what) + ": " + strerror(errno);
}

} // namespace

udp_socket::udp_socket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (!fd_.valid())
        throw local_error(errno_text("cannot create a UDP socket"));
}

int udp_socket::try_send(const bytes &b, const sockaddr_in &to) const {
    ssize_t r;
    do
        r = sendto(fd(), b.data(), b.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    while (r < 0 && errno == EINTR);
    return r < 0 ? errno : 0;
}

void udp_socket::send(const bytes &b, const sockaddr_in &to) const {
    int error = try_send(b, to);
    if (error != 0)
        throw local_error(std::string("cannot send to ") + endpoint{to}.text() + ": " +
                          strerror(error));
}

bool udp_socket::receive(bytes &b, sockaddr_in &from,
                         std::chrono::steady_clock::time_point deadline) const {
    for (;;) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline -
                                                                 std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        pollfd p{fd(), POLLIN, 0};
        int r = poll(&p, 1, int(left.count()));
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            throw local_error(errno_text("poll"));
        if (r == 0)
            return false;
        b.resize(65536);
        socklen_t len = sizeof from;
        ssize_t n =
            recvfrom(fd(), b.data(), b.size(), 0, reinterpret_cast<sockaddr *>(&from), &len);
        if (n < 0 && (errno == EINTR || errno == ECONNREFUSED))
            continue; // an ICMP error from an earlier send is not an answer
        if (n < 0)
            throw local_error(errno_text("cannot receive"));
        b.resize(size_t(n));
        return true;
    }
}

namespace {

bool same_sender(const sockaddr_in &a, const sockaddr_in &b) {
    return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

// A reply is "ours" when it echoes the request's type bytes (and, for
// windows, the offset); anything else is a late answer to an earlier resend
// or a stranger's datagram.
using matcher = bool (*)(const response &, const request &);

bool type_matches(const response &r, const request &q) {
    return r.type[0] == uint8_t(q.type >> 8) && r.type[1] == uint8_t(q.type);
}
bool window_matches(const response &r, const request &q) {
    return type_matches(r, q) && r.offset == q.offset;
}

// Sends `packet` up to `attempts` times, each followed by `timeout_ms` of
// waiting, and hands every datagram from the box to `take` until it accepts
// one; false when no attempt was answered.
template <typename Take>
bool send_until_taken(const udp_socket &sock, const endpoint &box, const bytes &packet,
                      int timeout_ms, int attempts, Take take) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        sock.send(packet, box.addr);
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        bytes in;
        sockaddr_in from{};
        while (sock.receive(in, from, deadline))
            if (same_sender(from, box.addr) && take(in))
                return true;
    }
    return false;
}

// Sends the request and waits for its answer, resending on silence.
response exchange(const udp_socket &sock, const endpoint &box, const request &req, matcher match,
                  const transfer_options &opt, int attempts) {
    response answer;
    auto take = [&](const bytes &in) {
        try {
            answer = decode_response(in.data(), in.size());
        } catch (const malformed_reply &) {
            return false; // not a response at all: not ours
        }
        return match(answer, req);
    };
    if (send_until_taken(sock, box, encode_request(req), opt.timeout_ms, attempts, take))
        return answer;
    throw timeout_error("no answer from " + box.text() + " after " + std::to_string(attempts) +
                        " attempt(s) of " + std::to_string(opt.timeout_ms) + " ms");
}

void check_length(const response &r, const char *what) {
    if (r.data.size() != r.length)
        throw malformed_reply(std::string(what) + ": length field says " +
                              std::to_string(r.length) + " but " + std::to_string(r.data.size()) +
                              " bytes came");
}

// Closes the session; the result is already complete, so a lost
// acknowledgement only costs the box a displaced session later.
void finish(const udp_socket &sock, const endpoint &box, const transfer_options &opt) {
    try {
        (void)exchange(sock, box, make_request(DYP_TYPE_END), type_matches, opt, 1);
    } catch (const timeout_error &) {
    }
}

} // namespace

std::string endpoint::address() const {
    char s[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &addr.sin_addr, s, sizeof s);
    return s;
}

std::string endpoint::text() const {
    return address() + ":" + std::to_string(ntohs(addr.sin_port));
}

endpoint make_endpoint(in_addr address, uint16_t port) {
    endpoint e;
    e.addr.sin_family = AF_INET;
    e.addr.sin_port = htons(port);
    e.addr.sin_addr = address;
    return e;
}

bool is_ipv4_literal(const std::string &host) {
    in_addr a{};
    return inet_pton(AF_INET, host.c_str(), &a) == 1;
}

host_port split_host_port(std::string_view text, uint16_t default_port) {
    host_port hp{std::string(text), default_port};
    if (hp.host.find(':') != hp.host.rfind(':') || hp.host.find('[') != std::string::npos)
        throw std::invalid_argument("\"" + std::string(text) +
                                    "\" looks like an IPv6 address: IPv4 only");
    auto colon = hp.host.rfind(':');
    if (colon != std::string::npos) {
        std::string p = hp.host.substr(colon + 1);
        hp.host.resize(colon);
        bool digits =
            !p.empty() && p.size() <= 5 && p.find_first_not_of("0123456789") == std::string::npos;
        unsigned long v = digits ? strtoul(p.c_str(), nullptr, 10) : 0;
        if (v == 0 || v > 65535)
            throw std::invalid_argument("bad port in \"" + std::string(text) + "\"");
        hp.port = uint16_t(v);
    }
    if (hp.host.empty())
        throw std::invalid_argument("empty host name");
    return hp;
}

endpoint parse_endpoint(std::string_view text, uint16_t default_port) {
    host_port hp = split_host_port(text, default_port);
    endpoint e = make_endpoint({}, hp.port);
    if (inet_pton(AF_INET, hp.host.c_str(), &e.addr.sin_addr) == 1)
        return e;
    addrinfo hints{}, *res = nullptr;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    int error = getaddrinfo(hp.host.c_str(), nullptr, &hints, &res);
    if (error != 0 || !res)
        throw local_error("cannot resolve \"" + hp.host + "\": " + gai_strerror(error));
    e.addr.sin_addr = reinterpret_cast<sockaddr_in *>(res->ai_addr)->sin_addr;
    freeaddrinfo(res);
    return e;
}

bytes transfer_read(const endpoint &box, std::string_view name, const bytes &data,
                    const transfer_options &opt) {
    udp_socket sock;
    bytes result;
    request req = make_request(DYP_TYPE_START, name, 0, DYP_WINDOW_MAX, data);
    for (;;) {
        response r = exchange(sock, box, req, window_matches, opt, 1 + opt.retries);
        check_length(r, "window");
        if (r.length > DYP_WINDOW_MAX || r.status > 1)
            throw malformed_reply("window with length " + std::to_string(r.length) +
                                  " and status " + std::to_string(r.status));
        if (result.size() + r.length > RESULT_MAX)
            throw malformed_reply("result grows beyond 65536 bytes");
        result.insert(result.end(), r.data.begin(), r.data.end());
        if (r.status == 0)
            break;
        if (r.length == 0)
            throw malformed_reply("an empty window claims that more follows");
        req = make_request(DYP_TYPE_DATA, "", uint16_t(result.size()), DYP_WINDOW_MAX);
        if (result.size() == RESULT_MAX)
            throw malformed_reply("result grows beyond 65536 bytes");
    }
    finish(sock, box, opt);
    return result;
}

bytes transfer_exec(const endpoint &box, std::string_view name, const transfer_options &opt) {
    udp_socket sock;
    request req = make_request(DYP_TYPE_START, name);
    response r = exchange(sock, box, req, type_matches, opt, 1 + opt.retries);
    check_length(r, "command result");
    if (r.status != 0 || r.offset != 0)
        throw malformed_reply("command result with status " + std::to_string(r.status) +
                              " and offset " + std::to_string(r.offset));
    finish(sock, box, opt);
    return r.data;
}

void keepalive_once(const endpoint &box, const std::vector<std::string> &names,
                    const transfer_options &opt) {
    udp_socket sock;
    const bytes packet = encode_ska(names);
    auto take = [&](const bytes &in) { return in == packet; };
    if (!send_until_taken(sock, box, packet, opt.timeout_ms, 1 + opt.retries, take))
        throw timeout_error("no keep-alive echo from " + box.text() + " after " +
                            std::to_string(1 + opt.retries) + " attempt(s) of " +
                            std::to_string(opt.timeout_ms) + " ms");
}

void local_identity(const endpoint &box, in_addr &ip, uint8_t mac[6]) {
    udp_socket sock;
    if (connect(sock.fd(), reinterpret_cast<const sockaddr *>(&box.addr), sizeof box.addr) != 0)
        throw local_error("no route to " + box.text() + ": " + strerror(errno));
    sockaddr_in self{};
    socklen_t len = sizeof self;
    if (getsockname(sock.fd(), reinterpret_cast<sockaddr *>(&self), &len) != 0)
        throw local_error(errno_text("getsockname"));
    ip = self.sin_addr;
    memset(mac, 0, 6);

    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        throw local_error(errno_text("getifaddrs"));
    std::string ifname;
    for (ifaddrs *i = list; i; i = i->ifa_next)
        if (i->ifa_addr && i->ifa_addr->sa_family == AF_INET &&
            reinterpret_cast<sockaddr_in *>(i->ifa_addr)->sin_addr.s_addr == ip.s_addr)
            ifname = i->ifa_name;
    for (ifaddrs *i = list; i; i = i->ifa_next) {
        if (i->ifa_addr && i->ifa_addr->sa_family == AF_PACKET && ifname == i->ifa_name) {
            auto *ll = reinterpret_cast<sockaddr_ll *>(i->ifa_addr);
            if (ll->sll_halen == 6)
                memcpy(mac, ll->sll_addr, 6);
        }
    }
    freeifaddrs(list);
}

} // namespace dyp
