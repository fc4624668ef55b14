#include "sim_driver.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include "modules/driver_abi.h"

namespace {

class SimDriverTest : public ::testing::Test {
  protected:
    SimDriverTest() { driver.devices = {{.name = "scanner1"}, {.name = "scanner2"}}; }

    // Connects (or with `release`, disconnects) scanner1 for 192.0.2.<host>.
    int request(bool release, uint8_t host) {
        usbds_connect_record record{};
        strcpy(record.name, "scanner1");
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(0xC0000200 | host);
        memcpy(record.host_addr, &address, sizeof address);
        if (!release)
            return driver.handle(USBDS_IOC_CONNECT, &record);
        usbds_disconnect_record disconnect{};
        memcpy(disconnect.name, record.name, sizeof disconnect.name);
        memcpy(disconnect.host_addr, record.host_addr, sizeof disconnect.host_addr);
        return driver.handle(USBDS_IOC_DISCONNECT, &disconnect);
    }

    sim_driver driver;
};

TEST_F(SimDriverTest, AHeldDeviceIsRefusedToOtherHostsUntilReleased) {
    EXPECT_EQ(request(false, 7), 0);
    EXPECT_EQ(request(false, 7), 0); // the holder may connect again
    EXPECT_EQ(request(false, 8), -EBUSY);
    EXPECT_EQ(request(true, 8), -EPERM);
    EXPECT_EQ(request(true, 7), 0);
    EXPECT_EQ(request(false, 8), 0);
    EXPECT_EQ(driver.requests().back(), "connect name=scanner1 host=192.0.2.8:0 "
                                        "mac=00:00:00:00:00:00 opt_b1=0 opt_b0=0 result=0");
}

} // namespace
