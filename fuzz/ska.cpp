// The SKA keep-alive handler, from the datagram on its own socket down to
// the keep-alive request the usbds module hands the simulated driver. The
// device server is started as the daemon starts it; one input is one
// datagram from a host on loopback.
#include <netinet/in.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>

#include "driver_record.h"
#include "ds/ds.h"
#include "ds/ska.h"
#include "fuzz_support.h"
#include "lib/fd.h"
#include "protocol/command.h"
#include "sim_seam.h"

namespace {

sim_driver example_driver() {
    sim_driver driver;
    for (const char *name : {"scanner1", "scanner2", "usb1"}) {
        driver.devices.emplace_back();
        driver.devices.back().name = name;
    }
    driver.devices[1].held = true;
    driver.devices[2].injected_result = -ENODEV;
    return driver;
}

struct ska_box {
    sim_driver driver = example_driver();
    sim_driver_scope scope{driver};
    dypd_udp_port primary{};
    unique_fd host;

    ska_box() {
        fuzz_enter_private_network();
        fuzz_silence_log();
        fuzz_require(dypd_command_init() == 0, "the command registry");
        fuzz_require(dypd_ds_init(&primary) == 0, "the device server");
        host = unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        fuzz_require(host.valid(), "a host socket");
    }

    void deliver(std::string_view datagram) {
        sockaddr_in to{AF_INET, htons(SKA_PORT), {htonl(INADDR_LOOPBACK)}, {}};
        if (sendto(host.get(), datagram.data(), datagram.size(), 0,
                   reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
            return;
        // The main loop calls the handler when select reports the socket.
        fd_set readset;
        FD_ZERO(&readset);
        int fd = dypd_ds_subproto_fd_set(&readset);
        pollfd ready{fd, POLLIN, 0};
        if (poll(&ready, 1, 0) == 1)
            dypd_ds_subproto_handler(nullptr, &readset);
        // An echo gives back the packet as it was received (a longer
        // datagram is cut to the buffer), not a byte more or other.
        const std::string_view received = datagram.substr(0, SKA_BUFFER_SIZE);
        uint8_t echo[SKA_BUFFER_SIZE + 16];
        ssize_t size;
        while ((size = recv(host.get(), echo, sizeof echo, MSG_DONTWAIT)) >= 0)
            fuzz_require(std::string_view(reinterpret_cast<char *>(echo),
                                          static_cast<size_t>(size)) == received,
                         "an echo equal to the packet");
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static ska_box box;
    box.deliver(fuzz_text(data, size));
    fuzz_forget_driver_requests(box.driver);
    return 0;
}
