#include "device_file.h"

#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

class DeviceFileTest : public ::testing::Test {
  protected:
    ~DeviceFileTest() override { unlink(path.c_str()); }
    int load_text(const std::string &text) {
        std::ofstream(path) << text;
        return sim_load_devices(path.c_str(), driver, error);
    }
    // Per process, so that test processes running side by side never meet.
    const std::string path = "/tmp/dypsim-devices-" + std::to_string(getpid()) + ".ini";
    sim_driver driver;
    std::string error;
};

TEST_F(DeviceFileTest, TheExampleFileDescribesThreeScanners) {
    std::string example = std::string(DYPTEST_SOURCE_DIR) + "/examples/devices.ini";
    ASSERT_EQ(sim_load_devices(example.c_str(), driver, error), 0) << error;
    ASSERT_EQ(driver.devices.size(), 3u);
    const sim_device &held = driver.devices[0];
    EXPECT_EQ(held.manufacturer, "Northwind Imaging");
    EXPECT_EQ(held.vendor_id, 0x1f3a);
    EXPECT_EQ(sim_format_host(held.host_addr.data()), "192.0.2.20:19540");
    EXPECT_EQ(held.host_mac[5], 0x14);
    EXPECT_FALSE(driver.devices[1].held);
    EXPECT_EQ(driver.devices[2].status_flag, 1);
}

TEST_F(DeviceFileTest, DriverSettingsComeBeforeTheFirstSection) {
    ASSERT_EQ(load_text("control_file=missing\nforced_count=9\n[s1]\nresult=EIO\n"), 0) << error;
    EXPECT_TRUE(driver.control_file_missing);
    EXPECT_EQ(driver.forced_count, 9);
    EXPECT_EQ(driver.devices.at(0).injected_result, -EIO);
}

TEST_F(DeviceFileTest, MalformedValuesUnknownKeysAndMissingFilesAreRefused) {
    EXPECT_EQ(load_text("[s1]\nvendor_id=0x1ffff\n"), -EINVAL);
    EXPECT_NE(error.find("vendor_id"), std::string::npos);
    EXPECT_EQ(load_text("[s1]\naux1=256\n"), -EINVAL);
    EXPECT_EQ(load_text("[s1]\ncolour=blue\n"), -EINVAL);
    EXPECT_EQ(load_text("[s1]\nheld_by=192.0.2\n"), -EINVAL);
    EXPECT_EQ(load_text("[sixteen-chars-xx]\n"), -EINVAL);
    EXPECT_EQ(sim_load_devices("/nonexistent/devices.ini", driver, error), -EIO);
}

} // namespace
