#include "sim_driver.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include "modules/driver_abi.h"

namespace {

usbds_connect_record connect_record(const char *name, const char *host) {
    usbds_connect_record record{};
    strcpy(record.name, name);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(19540);
    inet_pton(AF_INET, host, &address.sin_addr);
    memcpy(record.host_addr, &address, sizeof address);
    return record;
}

usbds_disconnect_record disconnect_record(const usbds_connect_record &connect) {
    usbds_disconnect_record record{};
    memcpy(record.name, connect.name, sizeof record.name);
    memcpy(record.host_addr, connect.host_addr, sizeof record.host_addr);
    return record;
}

class SimDriverTest : public ::testing::Test {
  protected:
    SimDriverTest() {
        driver.devices.resize(2);
        driver.devices[0].name = "scanner1";
        driver.devices[1].name = "scanner2";
    }
    sim_driver driver;
};

TEST_F(SimDriverTest, AHeldDeviceIsRefusedToOtherHostsUntilReleased) {
    auto first = connect_record("scanner1", "192.0.2.7");
    auto second = connect_record("scanner1", "192.0.2.8");
    EXPECT_EQ(driver.handle(USBDS_IOC_CONNECT, &first), 0);
    EXPECT_EQ(driver.handle(USBDS_IOC_CONNECT, &first), 0); // the holder may connect again
    EXPECT_EQ(driver.handle(USBDS_IOC_CONNECT, &second), -EBUSY);
    auto release_by_other = disconnect_record(second);
    EXPECT_EQ(driver.handle(USBDS_IOC_DISCONNECT, &release_by_other), -EPERM);
    auto release = disconnect_record(first);
    EXPECT_EQ(driver.handle(USBDS_IOC_DISCONNECT, &release), 0);
    EXPECT_EQ(driver.handle(USBDS_IOC_CONNECT, &second), 0);
    EXPECT_EQ(driver.requests().back(),
              "connect name=scanner1 host=192.0.2.8:19540 mac=00:00:00:00:00:00 opt_b1=0 "
              "opt_b0=0 result=0");
}

TEST_F(SimDriverTest, InfoFillsTheDriversRecordAndUnknownNamesAreNotServed) {
    driver.devices[1].vendor_id = 0x2b7c;
    driver.devices[1].location = "H113";
    usbds_info_record record{};
    strcpy(record.name, "scanner2");
    EXPECT_EQ(driver.handle(USBDS_IOC_GET_INTERFACE_INFO, &record), 0);
    EXPECT_EQ(record.vendor_id, 0x2b7c);
    EXPECT_STREQ(record.location, "H113");
    strcpy(record.name, "scanner9");
    EXPECT_EQ(driver.handle(USBDS_IOC_GET_INTERFACE_INFO, &record), -ENODEV);
}

TEST_F(SimDriverTest, KeepAliveCountsKnownNamesAndAnswersInjectedFailures) {
    char slots[3][USBDS_NAME_SIZE] = {"scanner2", "other", "scanner2"};
    usbds_name_list_record record{3, 0, slots};
    EXPECT_EQ(driver.handle(USBDS_IOC_KEEP_ALIVE, &record), 0);
    EXPECT_EQ(driver.devices[1].keep_alive_count, 2u);
    driver.devices[1].injected_result = -ENOENT;
    EXPECT_EQ(driver.handle(USBDS_IOC_KEEP_ALIVE, &record), -ENOENT);
}

TEST_F(SimDriverTest, NamesFitTheSlotsButAForcedCountIsAnsweredAsIs) {
    char slots[1][USBDS_NAME_SIZE] = {};
    usbds_name_list_record record{1, 0, slots};
    EXPECT_EQ(driver.handle(USBDS_IOC_GET_INTERFACE_NAMES, &record), 1);
    EXPECT_STREQ(slots[0], "scanner1");
    driver.forced_count = 5;
    EXPECT_EQ(driver.handle(USBDS_IOC_GET_INTERFACE_NAMES, &record), 5);
}

} // namespace
