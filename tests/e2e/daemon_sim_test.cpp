// The daemon on the driver simulator, driven over UDP from a host namespace.
#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "dypclient.h"
#include "support/sim_testbed.h"

const dyp::endpoint BOX = dyp::parse_endpoint("192.0.2.1", dyp::DEFAULT_PORT);

static dyp::bytes read(const std::string &command) {
    return dyp::transfer_read(BOX, command, {}, {});
}

// Connects or disconnects `ifname` for this host, claiming the MAC 02:00:5e:00:53:02.
static bool exec(const char *command, const char *ifname, uint16_t port, uint8_t options) {
    dyp::connect_params params{{0x02, 0x00, 0x5e, 0x00, 0x53, 0x02}, {}, ifname, port, options};
    uint8_t mac[6];
    dyp::local_identity(BOX, params.ip, mac);
    return dyp::decode_ok_ng(
        dyp::transfer_exec(BOX, dyp::encode_connect_name(command, params), {}));
}

TEST(DaemonSim, CommandsAdvertiseAndKeepAliveReachTheDriverAndComposeItsAnswers) {
    DYP_REQUIRE_ROOT();
    sim_testbed bed;
    ASSERT_TRUE(bed.ready());
    std::ofstream(bed.dir() + "/dypd.conf") << "portnum=19540,19541\nds_port=19540\n";
    // A /var/run for the pid file; a /sys/bus where only scanner1 (H112) has a serial.
    std::string script = "mount -t tmpfs dyprun /var/run && mount -t tmpfs dypsys /sys/bus"
                         " && mkdir -p /sys/bus/usb/devices/1-1.2"
                         " && echo NW410A00017 > /sys/bus/usb/devices/1-1.2/serial"
                         " && exec env " DYPTEST_PRELOAD_VARIABLE "=" DYPSIM_PRELOAD
                         " ASAN_OPTIONS=verify_asan_link_order=0"
                         " DYPSIM_DEVICES=" DYPTEST_SOURCE_DIR "/examples/devices.ini DYPSIM_LOG=" +
                         bed.dir() + "/driver.log " DYPTEST_EMULATOR DYPD_BINARY " -d -f " +
                         bed.dir() + "/dypd.conf";
    ASSERT_TRUE(bed.start(script, {19540, 49235})) << "no daemon:\n" << bed.output();
    netns_scope host(bed.host().name());
    ASSERT_TRUE(host.ok());
    auto driver_received = [&](const std::string &line) {
        std::string log = read_text_file(bed.dir() + "/driver.log");
        if (("\n" + log).find("\n" + line + "\n") != std::string::npos)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "no request \"" << line << "\" in:\n" << log;
    };

    dyp::device_list list = dyp::decode_device_list(read("GET USB_DEVICE_LIST_EX"), true);
    ASSERT_EQ(list.entries.size(), 3u);
    EXPECT_EQ(list.entries[0].description, "Northwind Imaging DocuFeed 410");
    EXPECT_EQ(list.entries[0].holder, "192.0.2.20");
    EXPECT_EQ(list.entries[0].serial, "NW410A00017");
    EXPECT_EQ(list.entries[1].description, "VID [0x2B7C] FlatPlate S2");
    EXPECT_EQ(list.entries[2].status & 0x400, 0x400);
    EXPECT_TRUE(driver_received("get_interface_names count=3 result=3"));
    list = dyp::decode_device_list(read("GET USB_DEVICE_LIST"), false);
    ASSERT_EQ(list.entries.size(), 3u);
    EXPECT_EQ(list.entries[2].location, "F114");
    dyp::scanner_status status = dyp::decode_scanner_status(read("GET SCANNER_STATUS:scanner1"));
    EXPECT_EQ(status.status, 0x8083);
    EXPECT_EQ(status.holder_mac, "02:00:5e:00:53:14");
    EXPECT_NE(status.box_mac, "00:00:00:00:00:00");
    EXPECT_EQ(dyp::decode_port_names(read("GET SCANNER PORT_NAME")),
              (std::vector<std::string>{"scanner1", "scanner2", "scanner3"}));
    std::vector<std::string> problems;
    auto boxes = dyp::discover({"", "192.0.2.1", dyp::DEFAULT_PORT, 500}, problems);
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes[0].description, "Northwind Imaging DocuFeed 410");
    EXPECT_EQ(boxes[0].status, 0x8083);

    EXPECT_TRUE(exec("EXEC SCANNER CONNECT", "scanner2", 5000, 0x03));
    EXPECT_TRUE(driver_received("connect_ex name=scanner2 host=192.0.2.2:5000 "
                                "mac=02:00:5e:00:53:02 opt_b1=1 opt_b0=1 size=172 ifname=" +
                                bed.box_link() + " result=0"));
    EXPECT_TRUE(exec("EXEC SCANNER DISCONNECT", "scanner2", 0, 0));
    EXPECT_TRUE(driver_received("disconnect name=scanner2 host=192.0.2.2:19540 result=0"));
    EXPECT_FALSE(exec("EXEC SCANNER CONNECT", "scanner1", 0, 0)); // held by 192.0.2.20
    EXPECT_TRUE(driver_received("connect_ex name=scanner1 host=192.0.2.2:19540 "
                                "mac=02:00:5e:00:53:02 opt_b1=0 opt_b0=0 size=172 ifname=" +
                                bed.box_link() + " result=-16"));
    EXPECT_NO_THROW(dyp::keepalive_once(dyp::parse_endpoint("192.0.2.1", 49235),
                                        {"scanner1", "a-name-of-twenty-ch"}, {}));
    EXPECT_TRUE(driver_received("keep_alive count=2 reserved=0 names=scanner1,a-name-of-twent "
                                "result=0"));
}
