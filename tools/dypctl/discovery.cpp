#include "discovery.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include "exchange.h"

namespace dyp {

namespace {

struct broadcast_target {
    std::string interface; // empty for the limited broadcast
    in_addr address{};
};

// The broadcast address of every up IPv4 interface that has one (an
// address added without one reports 0.0.0.0, which would reach only this
// host); only `only` when it is given.
std::vector<broadcast_target> interface_broadcasts(const std::string &only) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        throw local_error(std::string("getifaddrs: ") + strerror(errno));
    std::vector<broadcast_target> targets;
    for (ifaddrs *i = list; i; i = i->ifa_next) {
        if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET || !i->ifa_broadaddr)
            continue;
        if (!(i->ifa_flags & IFF_UP) || !(i->ifa_flags & IFF_BROADCAST))
            continue;
        if (!only.empty() && only != i->ifa_name)
            continue;
        in_addr address = reinterpret_cast<sockaddr_in *>(i->ifa_broadaddr)->sin_addr;
        if (address.s_addr != INADDR_ANY)
            targets.push_back({i->ifa_name, address});
    }
    freeifaddrs(list);
    return targets;
}

std::vector<broadcast_target> targets_of(const discover_options &opt) {
    if (!opt.interface.empty()) {
        auto targets = interface_broadcasts(opt.interface);
        if (targets.empty())
            throw local_error("interface " + opt.interface + " has no IPv4 broadcast address");
        return targets;
    }
    broadcast_target one;
    if (!opt.broadcast.empty()) {
        if (inet_pton(AF_INET, opt.broadcast.c_str(), &one.address) != 1)
            throw std::invalid_argument("bad broadcast address \"" + opt.broadcast + "\"");
        return {one};
    }
    auto targets = interface_broadcasts("");
    one.address.s_addr = INADDR_BROADCAST;
    targets.push_back(one);
    return targets;
}

bool same_box(const box_info &a, const box_info &b) {
    return a.address == b.address && a.mac == b.mac && a.port == b.port;
}

} // namespace

std::vector<box_info> discover(const discover_options &opt, std::vector<std::string> &problems) {
    udp_socket sock;
    int on = 1;
    if (setsockopt(sock.fd(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0)
        throw local_error(std::string("SO_BROADCAST: ") + strerror(errno));
    if (!opt.interface.empty() &&
        setsockopt(sock.fd(), SOL_SOCKET, SO_BINDTODEVICE, opt.interface.c_str(),
                   socklen_t(opt.interface.size())) != 0)
        throw local_error("cannot bind to interface " + opt.interface + ": " + strerror(errno));

    // A target the routing table cannot reach (255.255.255.255 without a
    // default route, say) is skipped as long as one send went out.
    const bytes request = encode_advertise_request();
    std::string failures;
    bool sent = false;
    for (const broadcast_target &t : targets_of(opt)) {
        int error = sock.try_send(request, make_endpoint(t.address, opt.port).addr);
        sent = sent || error == 0;
        if (error != 0)
            failures += (failures.empty() ? "" : "; ") + make_endpoint(t.address, opt.port).text() +
                        ": " + strerror(error);
    }
    if (!sent)
        throw local_error("cannot send the discovery request: " + failures);

    std::vector<box_info> boxes;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(opt.timeout_ms);
    bytes in;
    sockaddr_in from{};
    while (sock.receive(in, from, deadline)) {
        endpoint sender{from};
        if (in.empty()) {
            problems.push_back(sender.text() + ": empty reply");
            continue;
        }
        try {
            box_info box = decode_advertise_reply(in.data(), in.size());
            box.address = sender.address();
            box.port = ntohs(from.sin_port);
            bool seen = false;
            for (const auto &b : boxes)
                seen = seen || same_box(b, box);
            if (!seen)
                boxes.push_back(std::move(box));
        } catch (const malformed_reply &e) {
            problems.push_back(sender.text() + ": " + e.what());
        }
    }
    return boxes;
}

} // namespace dyp
