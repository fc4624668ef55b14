// The daemon's request path: datagrams from two hosts reach the two DYP
// endpoints on loopback and are served one at a time, as the main loop
// serves a readable endpoint, by the real registry, the seven device-server
// commands, both advertise handlers and the usbds module in front of the
// simulated driver. The box lives for the whole run, so sessions, holders
// and the 501 ms guard carry over from one input to the next.
//
// Input: messages separated by "#DYP#". The first byte of a message picks
// the host (bit 0), the endpoint (bit 1) and how far the clock moves
// before it (bits 2-7, in steps of 100 ms); the rest is the datagram.
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "daemon/dypd_priv.h"
#include "driver_record.h"
#include "fuzz_support.h"
#include "lib/fd.h"
#include "lib/text.h"
#include "protocol/handler.h"
#include "protocol/packet.h"
#include "protocol/reply_queue.h"
#include "sim_seam.h"

namespace {

constexpr uint32_t CLOCK_STEP_MS = 100;

uint32_t fake_now = 1000;

sim_driver example_driver() {
    sim_driver driver;
    // name, USB strings, ids, location, aux1-3, aux5, status flag, serial
    driver.devices = {
        {"scanner1", "Northwind", "DocuFeed", 0x1f3a, 0x0410, "H112", 1, 0, 0, 0, 0, "NW410"},
        {"scanner2", "", "FlatPlate", 0x2b7c, 0x00c2, "H113", 0, 2, 3, 5, 4, ""},
        {"scanner3", "", "", 0x1234, 0x5678, "B12.3.4", 0, 0, 0, 0, 0, "S3"},
    };
    driver.devices[2].injected_result = -EIO;
    return driver;
}

bool readable(int fd) {
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, 0) == 1;
}

// Takes every reply a host got; none may be longer than a response can be.
void drain(int fd) {
    uint8_t reply[2 * DYP_RESPONSE_MAX];
    ssize_t size;
    while ((size = recv(fd, reply, sizeof reply, MSG_DONTWAIT)) >= 0)
        fuzz_require(size <= static_cast<ssize_t>(DYP_RESPONSE_MAX), "a reply within 520 bytes");
}

struct box {
    sim_driver driver = example_driver();
    sim_driver_scope scope{driver};
    int32_t ports[2] = {19540, 19541};
    dypd_settings settings{};
    unique_fd hosts[2];

    box() {
        fuzz_enter_private_network();
        fuzz_silence_log();
        dypd_handler_set_clock([] { return fake_now; });
        // Advertise replies wait on the same clock, so an input decides
        // when they fall due and how full the queue gets.
        dypd_reply_queue_set_clock([] { return fake_now * 1000; });
        settings.bind_interfaces = network_interface_name;
        settings.ports = ports;
        settings.port_count = 2;
        settings.primary_port = ports[0];
        copy_text(settings.identity.product_name, "Fuzz Box");
        copy_text(settings.identity.host_name, "fuzzbox");
        fuzz_require(dypd_initialise(&settings) == 0, "the daemon's start-up");
        for (unique_fd &host : hosts) {
            host = unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
            fuzz_require(host.valid(), "a host socket");
        }
    }

    void deliver(uint8_t control, std::string_view datagram) {
        fake_now += (control >> 2) * CLOCK_STEP_MS;
        const unique_fd &host = hosts[control & 1];
        dypd_udp_port *endpoint = dyp_daemon.endpoints[(control >> 1) & 1];
        sockaddr_in to{AF_INET,
                       htons(static_cast<uint16_t>(ports[(control >> 1) & 1])),
                       {htonl(INADDR_LOOPBACK)},
                       {}};
        if (sendto(host.get(), datagram.data(), datagram.size(), 0,
                   reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
            return; // too long for one datagram
        // The main loop serves an endpoint only once select finds it readable.
        if (readable(endpoint->header.fd))
            dypd_dyp_handler(&dyp_daemon, endpoint);
        dypd_reply_queue_send_due();
        drain(hosts[0].get());
        drain(hosts[1].get());
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static box the_box;
    for (std::string_view message : fuzz_split(fuzz_text(data, size), "#DYP#")) {
        if (message.empty())
            continue;
        the_box.deliver(static_cast<uint8_t>(message[0]), message.substr(1));
    }
    fuzz_forget_driver_requests(the_box.driver);
    return 0;
}
