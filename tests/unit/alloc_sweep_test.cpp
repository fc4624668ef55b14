// Every allocation of start-up, the seven commands, both advertise handlers and SKA made to
// fail in turn: each run ends in the documented reaction, leaks nothing and leaves the daemon
// serving the next request in full. The daemon runs in-process on the simulated driver.
#include <fstream>
#include <functional>

#include "device_file.h"
#include "ds/ds.h"
#include "ds/ska.h"
#include "dypclient.h"
#include "protocol/command.h"
#include "protocol/handler.h"
#include "protocol/reply_queue.h"
#include "sim_seam.h"
#include "support/fake_ds_module.h"
#include "support/udp.h"

namespace {

using bytes = std::vector<uint8_t>;
constexpr uint16_t PRIMARY_PORT = 19540;
constexpr uint16_t OTHER_PORT = 19541;

// Runs `path` with the n-th allocation failing for n = 1, 2, ... until a run
// makes fewer than n allocations; `judge(failed)` checks each run, told
// whether the failure was reached. Returns the allocations of the path.
unsigned sweep(const std::function<void()> &path, const std::function<void(bool)> &judge) {
    for (unsigned nth = 1; nth < 1000; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth) + " fails");
        unsigned long before = dyp_alloc_count();
        dyp_alloc_fail_after(nth);
        path();
        dyp_alloc_fail_after(0);
        bool failed = dyp_alloc_count() - before >= nth;
        judge(failed);
        if (!failed)
            return nth - 1;
        if (::testing::Test::HasFatalFailure())
            return nth;
    }
    ADD_FAILURE() << "the path never completed";
    return 0;
}

class AllocSweep : public ska_namespace_test {
  protected:
    void SetUp() override {
        ska_namespace_test::SetUp();
        if (IsSkipped())
            return;
        client = udp_socket(); // in the test's namespace
        std::string error;
        ASSERT_EQ(sim_load_devices(DYPTEST_SOURCE_DIR "/examples/devices.ini", driver, error), 0);
        std::ofstream(conf) << "product=Sweep Box\nhostname=sweep\nnetif=lo\nportnum="
                            << PRIMARY_PORT << "," << OTHER_PORT << "\nds_port=" << PRIMARY_PORT
                            << "\n";
        // Every reading of the queue's clock is 200 ms on: an advertise reply
        // is due by the time the step looks for it.
        dypd_reply_queue_set_clock([] {
            static uint32_t now_us;
            return now_us += 200000;
        });
    }
    void TearDown() override {
        dypd_reply_queue_set_clock(nullptr);
        (void)unlink(conf.c_str());
        ska_namespace_test::TearDown();
    }

    // Start-up from the settings the command line leaves: 0 or its error.
    int start() {
        settings = {.config_path = conf.c_str(),
                    .bind_interfaces = network_interface_name,
                    .ports = default_ports,
                    .port_count = 2,
                    .primary_port = PRIMARY_PORT};
        int result = dypd_configfile_load(&settings);
        return result < 0 ? result : dypd_initialise(&settings);
    }
    void stop() {
        dypd_cleanup(&dyp_daemon);
        dypd_configfile_release(&settings);
    }

    // Sends `datagram` to `port` on loopback, steps the endpoint (or SKA)
    // once and returns the reply, if any.
    std::optional<bytes> step(uint16_t port, const bytes &datagram) {
        sockaddr_in to = ipv4("127.0.0.1", port);
        EXPECT_EQ(sendto(client.get(), datagram.data(), datagram.size(), 0,
                         reinterpret_cast<sockaddr *>(&to), sizeof to),
                  static_cast<ssize_t>(datagram.size()));
        if (port == SKA_PORT)
            dypd_ds_ska_handler();
        else {
            dypd_dyp_handler(&dyp_daemon, endpoint(port));
            dypd_reply_queue_send_due();
        }
        return next_datagram(client.get());
    }
    dypd_udp_port *endpoint(uint16_t port) {
        dypd_udp_port **e = dyp_daemon.endpoints;
        while (*(*e)->header.bound_port != port)
            ++e;
        return *e;
    }

    // A whole transfer as a host makes it: START, DATA while more remains,
    // END. The result, or nothing when the box fell silent.
    std::optional<bytes> transfer(const std::string &name, const bytes &data = {}) {
        namespace d = dyp;
        auto reply = step(PRIMARY_PORT, d::encode_request(d::make_request(1, name, 0, 512, data)));
        bytes result;
        for (int windows = 0; reply; ++windows) {
            d::response r = d::decode_response(reply->data(), reply->size());
            result.insert(result.end(), r.data.begin(), r.data.end());
            if (r.status != 1 || windows > 128)
                break;
            uint16_t next = static_cast<uint16_t>(r.offset + r.length);
            reply = step(PRIMARY_PORT, d::encode_request(d::make_request(2, "", next, 512)));
        }
        if (!reply)
            return std::nullopt;
        EXPECT_TRUE(step(PRIMARY_PORT, d::encode_request(d::make_request(3))));
        return result;
    }

    sim_driver driver;
    sim_driver_scope scope{driver};
    std::string conf = "/tmp/dypd-sweep-" + std::to_string(getpid()) + ".conf";
    dypd_settings settings{};
    unique_fd client;
};

std::string connect_name(const char *command) {
    dyp::connect_params params{{0x02, 0x00, 0x5e, 0x00, 0x53, 0x02}, {}, "scanner2", 0, 0};
    params.ip.s_addr = htonl(INADDR_LOOPBACK);
    return dyp::encode_connect_name(command, params);
}

} // namespace

// Start-up fails with -ENOMEM, takes down what it built and leaves the
// port free for the next start, which serves a device list.
TEST_F(AllocSweep, StartUp) {
    const long live = dyp_alloc_live();
    int result = 0;
    unsigned made = sweep([&] { result = start(); },
                          [&](bool failed) {
                              if (failed) {
                                  EXPECT_EQ(result, -ENOMEM);
                                  EXPECT_EQ(dypd_ds_ska_get_fd(), -1);
                                  EXPECT_EQ(dypd_cmdlist, nullptr);
                                  EXPECT_EQ(dypd_ds_modlist, nullptr);
                                  dypd_configfile_release(&settings);
                                  EXPECT_EQ(dyp_alloc_live(), live);
                                  ASSERT_EQ(start(), 0);
                              } else {
                                  ASSERT_EQ(result, 0);
                              }
                              auto list = transfer("GET USB_DEVICE_LIST");
                              ASSERT_TRUE(list);
                              EXPECT_EQ(dyp::decode_device_list(*list, false).entries.size(), 3u);
                              stop();
                              EXPECT_EQ(dyp_alloc_live(), live);
                          });
    EXPECT_GT(made, 20u);
}

// A command that runs out of memory answers less (NG, no match, fewer
// devices) or not at all; it never claims success, and the same request
// right after is served in full.
TEST_F(AllocSweep, EachCommand) {
    ASSERT_EQ(start(), 0);
    const struct {
        std::string name;
        bytes data;
        std::function<void(const bytes &)> decode;
    } commands[] = {
        {"GET USB_DEVICE_LIST", {}, [](const bytes &r) { dyp::decode_device_list(r, false); }},
        {"GET USB_DEVICE_LIST_EX", {}, [](const bytes &r) { dyp::decode_device_list(r, true); }},
        {"GET SCANNER_STATUS:scanner1", {}, [](const bytes &r) { dyp::decode_scanner_status(r); }},
        {"GET SCANNER PORT_NAME", {}, [](const bytes &r) { dyp::decode_port_names(r); }},
        {"GET USB_PORT_NAME", dyp::encode_usb_port_query(0x2b7c, 0x00c2, "H113"),
         [](const bytes &r) { EXPECT_NE(dyp::decode_usb_port_name(r), "scanner2"); }},
        {connect_name("EXEC SCANNER CONNECT"), {}, [](const bytes &r) { dyp::decode_ok_ng(r); }},
        {connect_name("EXEC SCANNER DISCONNECT"), {}, [](const bytes &r) { dyp::decode_ok_ng(r); }},
    };
    for (const auto &command : commands) {
        const std::string label = command.name.substr(0, command.name.find(':'));
        SCOPED_TRACE(label);
        const long live = dyp_alloc_live();
        const auto full = transfer(command.name, command.data);
        ASSERT_TRUE(full);
        std::optional<bytes> got;
        unsigned made = sweep([&] { got = transfer(command.name, command.data); },
                              [&](bool failed) {
                                  EXPECT_EQ(dyp_alloc_live(), live);
                                  if (failed && got) {
                                      EXPECT_NE(*got, *full);
                                      EXPECT_NO_THROW(command.decode(*got));
                                  }
                                  EXPECT_EQ(transfer(command.name, command.data), full);
                              });
        EXPECT_GE(made, 1u) << "the session at least";
    }
    stop();
}

// Both advertise handlers answer with the whole reply; short of memory the
// device server's leaves out the device it could not look up.
TEST_F(AllocSweep, AdvertiseHandlers) {
    ASSERT_EQ(start(), 0);
    const bytes request = dyp::encode_advertise_request();
    for (uint16_t port : {PRIMARY_PORT, OTHER_PORT}) {
        SCOPED_TRACE(port);
        const long live = dyp_alloc_live();
        const auto full = step(port, request);
        ASSERT_TRUE(full);
        ASSERT_EQ(full->size(), DYP_ADVERTISE_REPLY_SIZE);
        std::optional<bytes> got;
        sweep([&] { got = step(port, request); },
              [&](bool failed) {
                  EXPECT_EQ(dyp_alloc_live(), live);
                  ASSERT_TRUE(got);
                  EXPECT_EQ(got->size(), DYP_ADVERTISE_REPLY_SIZE);
                  if (failed)
                      EXPECT_EQ(dyp::decode_advertise_reply(got->data(), got->size()).description,
                                "");
                  EXPECT_EQ(step(port, request), full);
              });
    }
    stop();
}

// SKA echoes every packet; a keep-alive that found no memory is logged and
// dropped, and the next one reaches the driver.
TEST_F(AllocSweep, Ska) {
    ASSERT_EQ(start(), 0);
    const bytes packet = dyp::encode_ska({"scanner1", "scanner2"});
    const std::string reached = "keep_alive count=2 reserved=0 names=scanner1,scanner2 result=0";
    const long live = dyp_alloc_live();
    std::optional<bytes> echo;
    unsigned made = sweep(
        [&] {
            driver.handle(0, nullptr); // marks where this run's requests start
            echo = step(SKA_PORT, packet);
        },
        [&](bool failed) {
            EXPECT_EQ(dyp_alloc_live(), live);
            EXPECT_EQ(echo, packet);
            EXPECT_EQ(driver.requests().back() == reached, !failed);
            EXPECT_EQ(step(SKA_PORT, packet), packet);
            EXPECT_EQ(driver.requests().back(), reached);
        });
    EXPECT_EQ(made, 2u) << "the daemon's name list and the driver record";
    stop();
}
