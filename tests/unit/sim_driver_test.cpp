#include "sim_driver.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

#include "modules/driver_abi.h"

// A test tool that runs for millions of requests keeps only the latest
// lines, newest last.
TEST(SimDriver, KeepsABoundedHistoryOfRequestLines) {
    sim_driver driver;
    constexpr size_t handled = 10 * sim_driver::REQUEST_HISTORY + 3;
    for (size_t i = 0; i < handled; ++i)
        ASSERT_EQ(driver.handle(USBDS_IOC_GET_NUM_INTERFACES, nullptr), 0);
    EXPECT_EQ(driver.handle(0, nullptr), -ENOTTY);
    ASSERT_EQ(driver.requests().size(), sim_driver::REQUEST_HISTORY);
    EXPECT_EQ(driver.requests().front(), "get_num_interfaces result=0");
    EXPECT_EQ(driver.requests().back(), "unknown request=0x0 result=" + std::to_string(-ENOTTY));
}
