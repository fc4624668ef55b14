#include "device_file.h"

#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

TEST(DeviceFile, DriverSettingsComeFirstAndMalformedValuesOrMissingFilesAreRefused) {
    // Per process, so that test processes running side by side never meet.
    const std::string path = "/tmp/dypsim-devices-" + std::to_string(getpid()) + ".ini";
    sim_driver driver;
    std::string error;
    auto load = [&](const std::string &text) {
        std::ofstream(path) << text;
        return sim_load_devices(path.c_str(), driver, error);
    };
    ASSERT_EQ(load("control_file=missing\nforced_count=9\n[s1]\nresult=EIO\n"), 0) << error;
    EXPECT_TRUE(driver.control_file_missing);
    EXPECT_EQ(driver.forced_count, 9);
    EXPECT_EQ(driver.devices.at(0).injected_result, -EIO);
    for (const char *bad : {"[s1]\nvendor_id=0x1ffff\n", "[s1]\naux1=256\n", "[s1]\ncolour=blue\n",
                            "[s1]\nheld_by=192.0.2\n", "[sixteen-chars-xx]\n"})
        EXPECT_EQ(load(bad), -EINVAL) << bad;
    EXPECT_EQ(sim_load_devices("/nonexistent/devices.ini", driver, error), -EIO);
    unlink(path.c_str());
}
