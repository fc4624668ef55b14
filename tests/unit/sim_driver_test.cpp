#include "sim_driver.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include "modules/driver_abi.h"

TEST(SimDriver, AHeldDeviceIsRefusedToOtherHostsUntilReleased) {
    sim_driver driver;
    driver.devices = {{.name = "scanner1"}};
    // Connects (or with `release`, disconnects) scanner1 for 192.0.2.<host>;
    // the address family is stored in host order, little-endian here.
    auto request = [&](bool release, uint8_t host) {
        usbds_connect_record record{"scanner1", {AF_INET, 0, 0, 0, 192, 0, 2, host}, {}, 0, 0};
        usbds_disconnect_record disconnect{"scanner1", {AF_INET, 0, 0, 0, 192, 0, 2, host}};
        return release ? driver.handle(USBDS_IOC_DISCONNECT, &disconnect)
                       : driver.handle(USBDS_IOC_CONNECT, &record);
    };
    EXPECT_EQ(request(false, 7), 0);
    EXPECT_EQ(request(false, 7), 0); // the holder may connect again
    EXPECT_EQ(request(false, 8), -EBUSY);
    EXPECT_EQ(request(true, 8), -EPERM);
    EXPECT_EQ(request(true, 7), 0);
    EXPECT_EQ(request(false, 8), 0);
    EXPECT_EQ(driver.requests().back(), "connect name=scanner1 host=192.0.2.8:0 "
                                        "mac=00:00:00:00:00:00 opt_b1=0 opt_b0=0 result=0");
}
