// The built daemon against the driver simulator, driven over real UDP from
// a host namespace. What a host sees is checked by the dypctl tests; these
// check what the driver is asked and how its answers are composed.
#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "dypclient.h"
#include "support/sim_testbed.h"

namespace {

// The MAC the host claims in its connect requests.
constexpr uint8_t HOST_MAC[6] = {0x02, 0x00, 0x5e, 0x00, 0x53, 0x02};

class DaemonSimTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        bed = std::make_unique<sim_testbed>();
        ASSERT_TRUE(bed->ready());
        std::ofstream(bed->dir() + "/dypd.conf") << "portnum=19540,19541\nds_port=19540\n";
        // The daemon gets its own /var/run for the pid file and a /sys/bus
        // where scanner1 (at H112) has a serial number and the others none.
        std::string script =
            "mount -t tmpfs dyprun /var/run && mount -t tmpfs dypsys /sys/bus"
            " && mkdir -p /sys/bus/usb/devices/1-1.2"
            " && echo NW410A00017 > /sys/bus/usb/devices/1-1.2/serial"
            " && exec env LD_PRELOAD=" +
            std::string(DYPSIM_PRELOAD) +
            " ASAN_OPTIONS=verify_asan_link_order=0 DYPSIM_DEVICES=" + DYPTEST_SOURCE_DIR +
            "/examples/devices.ini DYPSIM_LOG=" + bed->dir() + "/driver.log " + DYPD_BINARY +
            " -d -f " + bed->dir() + "/dypd.conf";
        ASSERT_TRUE(bed->start(script, {19540, 49235})) << "no daemon:\n" << bed->output();
    }

    ::testing::AssertionResult driver_received(const std::string &line) const {
        std::string log = read_text_file(bed->dir() + "/driver.log");
        if (("\n" + log).find("\n" + line + "\n") != std::string::npos)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "no request \"" << line << "\" in:\n" << log;
    }

    static dyp::endpoint box_endpoint(uint16_t port = dyp::DEFAULT_PORT) {
        return dyp::parse_endpoint("192.0.2.1", port);
    }

    bool exec_connect(const char *command, const char *ifname, uint16_t port, uint8_t options) {
        netns_scope client(bed->host().name());
        EXPECT_TRUE(client.ok());
        dyp::connect_params params;
        dyp::local_identity(box_endpoint(), params.ip, params.mac);
        std::copy(std::begin(HOST_MAC), std::end(HOST_MAC), params.mac);
        params.ifname = ifname;
        params.port = port;
        params.options = options;
        return dyp::decode_ok_ng(
            dyp::transfer_exec(box_endpoint(), dyp::encode_connect_name(command, params), {}));
    }

    std::unique_ptr<sim_testbed> bed;
};

TEST_F(DaemonSimTest, DeviceListsComposeTheDriversRecordsAndTheSerials) {
    dyp::bytes reply;
    {
        netns_scope client(bed->host().name());
        ASSERT_TRUE(client.ok());
        reply = dyp::transfer_read(box_endpoint(), "GET USB_DEVICE_LIST_EX", {}, {});
    }
    dyp::device_list list = dyp::decode_device_list(reply, true);
    ASSERT_EQ(list.entries.size(), 3u);
    EXPECT_EQ(list.entries[0].description, "Northwind Imaging DocuFeed 410");
    EXPECT_EQ(list.entries[0].holder, "192.0.2.20");
    EXPECT_EQ(list.entries[0].serial, "NW410A00017");
    EXPECT_EQ(list.entries[1].description, "VID [0x2B7C] FlatPlate S2");
    EXPECT_EQ(list.entries[1].serial, "");
    EXPECT_EQ(list.entries[2].description, "Contoso Optics PID [0x7A01]");
    EXPECT_EQ(list.entries[2].status & 0x400, 0x400);
    EXPECT_TRUE(driver_received("get_num_interfaces result=3"));
    EXPECT_TRUE(driver_received("get_interface_names count=3 result=3"));
}

TEST_F(DaemonSimTest, ConnectAndDisconnectReachTheDriverWithTheHostsRecord) {
    EXPECT_TRUE(exec_connect("EXEC SCANNER CONNECT", "scanner2", 5000, 0x03));
    EXPECT_TRUE(driver_received("connect_ex name=scanner2 host=192.0.2.2:5000 "
                                "mac=02:00:5e:00:53:02 opt_b1=1 opt_b0=1 size=172 ifname=" +
                                bed->box_link() + " result=0"));
    EXPECT_TRUE(exec_connect("EXEC SCANNER DISCONNECT", "scanner2", 0, 0));
    EXPECT_TRUE(driver_received("disconnect name=scanner2 host=192.0.2.2:19540 result=0"));

    EXPECT_FALSE(exec_connect("EXEC SCANNER CONNECT", "scanner1", 0, 0)); // held by 192.0.2.20
    EXPECT_TRUE(driver_received("connect_ex name=scanner1 host=192.0.2.2:19540 "
                                "mac=02:00:5e:00:53:02 opt_b1=0 opt_b0=0 size=172 ifname=" +
                                bed->box_link() + " result=-16"));
}

TEST_F(DaemonSimTest, KeepAliveNamesReachTheDriverCutToFifteen) {
    {
        netns_scope client(bed->host().name());
        ASSERT_TRUE(client.ok());
        EXPECT_NO_THROW(
            dyp::keepalive_once(box_endpoint(49235), {"scanner1", "a-name-of-twenty-ch"}, {}));
    }
    EXPECT_TRUE(driver_received("keep_alive count=2 reserved=0 names=scanner1,a-name-of-twent "
                                "result=0"));
}

} // namespace
