#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include "ds/serial.h"
#include "protocol/session.h"
#include "support/log_capture.h"
#include "support/netns.h"

namespace {

// A private sysfs device tree for the lookup to read.
class SerialLookup : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/dypserialXXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root = pattern;
        dypd_ds_set_sysfs_root(root.c_str());
    }
    void TearDown() override {
        dypd_ds_set_sysfs_root(nullptr);
        (void)run_shell("rm -rf '" + root + "'");
    }
    void put_serial(const std::string &device, const std::string &content) {
        std::string dir = root + "/" + device;
        ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
        FILE *file = fopen((dir + "/serial").c_str(), "w");
        ASSERT_NE(file, nullptr);
        fwrite(content.data(), 1, content.size(), file);
        fclose(file);
    }
    int lookup(const std::string &location) {
        memset(&info, 0, sizeof info);
        memcpy(info.location, location.data(), std::min(location.size(), sizeof info.location));
        if (location.size() > 16)
            info.aux1 = static_cast<uint8_t>(location[16]);
        if (location.size() > 17)
            info.aux2 = static_cast<uint8_t>(location[17]);
        memset(serial, 0xEE, sizeof serial);
        return dypd_ds_get_serial(&session, &info, serial);
    }
    std::string text() const {
        return std::string(reinterpret_cast<const char *>(serial),
                           strnlen(reinterpret_cast<const char *>(serial), 64));
    }

    std::string root;
    dypd_session session{};
    dypd_ds_interface_info info{};
    uint8_t serial[64];
};

TEST_F(SerialLookup, PortPathBecomesTheSysfsDeviceName) {
    put_serial("1-2.3", "ABC\r\n");
    ASSERT_EQ(lookup("H123"), 0);
    EXPECT_EQ(text(), "ABC");
    for (size_t i = 3; i < 64; ++i)
        ASSERT_EQ(serial[i], 0) << i;
}

TEST_F(SerialLookup, AnMEndsThePortPathAndABareBusNamesTheBusDevice) {
    put_serial("2", "BUS2\n");
    ASSERT_EQ(lookup("S2M"), 0);
    EXPECT_EQ(text(), "BUS2");
    put_serial("3-4", "P\n");
    ASSERT_EQ(lookup("F34M9"), 0);
    EXPECT_EQ(text(), "P");
}

TEST_F(SerialLookup, AMissingFileGivesAnEmptySerial) {
    log_capture log;
    ASSERT_EQ(lookup("H123"), 0);
    EXPECT_EQ(std::string(64, '\0'), std::string(reinterpret_cast<char *>(serial), 64));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SerialLookup, AFileFillingTheWholeReadIsRefused) {
    put_serial("1-2.3", std::string(200, 'Z'));
    log_capture log;
    EXPECT_EQ(lookup("H123"), -ENOBUFS);
    EXPECT_EQ(log.count(LOG_ERR, "cannot open serial error -105"), 1);
}

TEST_F(SerialLookup, ALongSerialFillsAll64BytesWithoutTerminator) {
    put_serial("1-2", std::string(100, 'S') + "\n");
    ASSERT_EQ(lookup("L12"), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(serial), 64), std::string(64, 'S'));
}

TEST_F(SerialLookup, UnknownOrEmptyLocationsFail) {
    log_capture log;
    EXPECT_LT(lookup("X1-2"), 0);
    EXPECT_EQ(log.count(LOG_INFO, " unknown location (X1-2)\n"), 1);
    EXPECT_LT(lookup(""), 0);
    EXPECT_EQ(log.count(LOG_ERR, "(dypd_ds_get_serial)-(484)\n"), 1);
}

TEST_F(SerialLookup, AnUnterminatedUnknownLocationIsLoggedWithinItsBytes) {
    log_capture log;
    EXPECT_LT(lookup(std::string(18, 'Q')), 0);
    EXPECT_EQ(log.count(LOG_INFO, " unknown location (" + std::string(16, 'Q') + ")\n"), 1);
}

TEST_F(SerialLookup, NoSessionFailsAtItsCheckPoint) {
    log_capture log;
    EXPECT_LT(dypd_ds_get_serial(nullptr, &info, serial), 0);
    EXPECT_EQ(log.count(LOG_ERR, "(dypd_ds_get_serial)-(479)\n"), 1);
}

TEST_F(SerialLookup, ThePortPathRunsIntoTheTwoBytesAfterLocation) {
    // 15 port characters: bytes 2-15 of location and aux1; aux2 is 'M'.
    std::string location = "H1" + std::string("234567891234567") + "M";
    std::string device = "1-2.3.4.5.6.7.8.9.1.2.3.4.5.6.7";
    put_serial(device, "LONG\n");
    ASSERT_EQ(lookup(location), 0);
    EXPECT_EQ(text(), "LONG");
}

TEST_F(SerialLookup, ASixteenthPortCharacterDoesNotFit) {
    log_capture log;
    EXPECT_LT(lookup("H1" + std::string(16, '2')), 0);
    EXPECT_EQ(log.count(LOG_ERR, "(dypd_ds_get_serial)-(525)\n"), 1);
}

TEST_F(SerialLookup, AnOverlongRootIsRefusedWithENOBUFS) {
    std::string deep = "/" + std::string(300, 'r');
    dypd_ds_set_sysfs_root(deep.c_str());
    log_capture log;
    EXPECT_EQ(lookup("H123"), -ENOBUFS);
    EXPECT_EQ(log.count(LOG_ERR, "cannot open serial error -105"), 1);
}

} // namespace
