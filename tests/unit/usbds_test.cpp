#include "modules/usbds.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <syslog.h>

#include "lib/alloc.h"
#include "modules/driver_abi.h"
#include "sim_seam.h"
#include "support/log_capture.h"

namespace {

sim_device make_device(const std::string &name, const std::string &manufacturer,
                       const std::string &product, uint16_t vendor, uint16_t product_id) {
    sim_device device;
    device.name = name;
    device.manufacturer = manufacturer;
    device.product = product;
    device.vendor_id = vendor;
    device.product_id = product_id;
    return device;
}

void set_host(uint8_t (&storage)[128], const char *address, uint16_t port) {
    sockaddr_in host{};
    host.sin_family = AF_INET;
    host.sin_port = htons(port);
    ASSERT_EQ(inet_pton(AF_INET, address, &host.sin_addr), 1);
    memset(storage, 0, sizeof storage);
    memcpy(storage, &host, sizeof host);
}

class UsbdsTest : public ::testing::Test {
  protected:
    UsbdsTest() {
        driver.devices.push_back(make_device("scanner1", "Acme", "Scan 1", 0x1234, 0x5678));
        driver.devices.push_back(make_device("scanner2", "", "", 0x1234, 0x5678));
        driver.devices.push_back(make_device("scanner3", "Acme", "", 0xABCD, 0x00EF));
    }
    ~UsbdsTest() override { dyp_alloc_fail_after(0); }

    const std::string &last_request() const { return driver.requests().back(); }

    dypd_ds_connect_param connect_param(const char *name, const char *host) {
        dypd_ds_connect_param param{};
        strncpy(param.name, name, sizeof param.name);
        set_host(param.host_addr, host, 19540);
        const uint8_t mac[6] = {0x02, 0x00, 0x5e, 0x00, 0x53, 0x01};
        memcpy(param.host_mac, mac, sizeof mac);
        return param;
    }

    dypd_ds_interface_info info_for(const char *name) {
        dypd_ds_interface_info info{};
        strncpy(info.name, name, sizeof info.name - 1);
        return info;
    }

    sim_driver driver;
    sim_driver_scope scope{driver};
    dypd_ds_module *module = &usbds_module;
};

TEST_F(UsbdsTest, ConnectPassesNameAddressMacAndOptionBytes) {
    dypd_ds_connect_param param = connect_param("scanner2", "192.0.2.7");
    param.opt_b1 = 1;
    param.opt_b0 = 0;
    EXPECT_EQ(module->connect(module, &param), 0);
    EXPECT_EQ(last_request(), "connect name=scanner2 host=192.0.2.7:19540 mac=02:00:5e:00:53:01 "
                              "opt_b1=1 opt_b0=0 result=0");
    EXPECT_EQ(scope.opens(), 1);
    EXPECT_EQ(scope.closes(), 1);
    EXPECT_EQ(scope.last_open_flags() & O_ACCMODE, O_RDWR);
    EXPECT_NE(scope.last_open_flags() & O_CLOEXEC, 0);
}

TEST_F(UsbdsTest, ConnectExDerivesBothOptionBytesFromOpts) {
    dypd_ds_connect_param_ex param{};
    param.size = DYPD_DS_CONNECT_EX_SIZE;
    strcpy(param.name, "scanner2");
    set_host(param.host_addr, "192.0.2.7", 1234);
    param.opt_b1 = 0; // stale copy: bit 1 of opts wins
    param.opts = 0x02;
    strcpy(param.ifname, "veth-dyp0");
    EXPECT_EQ(module->connect_ex(module, &param), 0);
    EXPECT_EQ(last_request(), "connect_ex name=scanner2 host=192.0.2.7:1234 "
                              "mac=00:00:00:00:00:00 opt_b1=1 opt_b0=0 size=172 "
                              "ifname=veth-dyp0 result=0");

    param.opt_b1 = 1;
    param.opts = 0xFD; // bit 1 clear, bit 0 set, other bits ignored
    EXPECT_EQ(module->connect_ex(module, &param), 0);
    EXPECT_NE(last_request().find("opt_b1=0 opt_b0=1 size=172"), std::string::npos);
    EXPECT_EQ(scope.closes(), 2);
}

TEST_F(UsbdsTest, NamesOfSixteenOrMoreCharactersReachTheDriverCutToFifteen) {
    dypd_ds_connect_param param = connect_param("", "192.0.2.7");
    memset(param.name, 'n', sizeof param.name); // no terminator at all
    EXPECT_EQ(module->connect(module, &param), -ENODEV);
    EXPECT_EQ(last_request().substr(0, 29), "connect name=nnnnnnnnnnnnnnn ");

    dypd_ds_connect_param_ex extended{};
    memset(extended.name, 'e', sizeof extended.name);
    memset(extended.ifname, 'i', sizeof extended.ifname);
    EXPECT_EQ(module->connect_ex(module, &extended), -ENODEV);
    EXPECT_NE(last_request().find("name=eeeeeeeeeeeeeee "), std::string::npos);
    EXPECT_NE(last_request().find("ifname=iiiiiiiiiiiiiii result"), std::string::npos);
}

TEST_F(UsbdsTest, ConnectOfADeviceHeldByAnotherHostPassesTheDriversRefusalOn) {
    dypd_ds_connect_param first = connect_param("scanner1", "192.0.2.7");
    dypd_ds_connect_param second = connect_param("scanner1", "192.0.2.8");
    EXPECT_EQ(module->connect(module, &first), 0);
    EXPECT_EQ(module->connect(module, &second), -EBUSY);
    EXPECT_EQ(module->disconnect(module, &second), -EPERM);
    EXPECT_EQ(module->disconnect(module, &first), 0);
    EXPECT_EQ(last_request(), "disconnect name=scanner1 host=192.0.2.7:19540 result=0");
    EXPECT_FALSE(driver.find("scanner1")->held);
    EXPECT_EQ(scope.opens(), 4);
    EXPECT_EQ(scope.closes(), 4);
}

TEST_F(UsbdsTest, OperationsReturnTheFailureOfOpenAndLogNothing) {
    driver.control_file_missing = true;
    log_capture log;
    dypd_ds_connect_param param = connect_param("scanner1", "192.0.2.7");
    dypd_ds_connect_param_ex extended{};
    dypd_ds_interface_info info = info_for("scanner1");
    char slots[2][DYPD_DS_NAME_SLOT] = {};
    dypd_ds_name_list list{2, slots};
    EXPECT_EQ(module->connect(module, &param), -ENOENT);
    EXPECT_EQ(module->connect_ex(module, &extended), -ENOENT);
    EXPECT_EQ(module->disconnect(module, &param), -ENOENT);
    EXPECT_EQ(module->get_num_interfaces(module), -ENOENT);
    EXPECT_EQ(module->get_interface_info(module, &info), -ENOENT);
    EXPECT_EQ(module->get_interface_names(module, &list), -ENOENT);
    EXPECT_TRUE(driver.requests().empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(UsbdsTest, DriverFailuresArePassedOnAndTheFileIsClosed) {
    driver.find("scanner1")->injected_result = -EIO;
    dypd_ds_connect_param param = connect_param("scanner1", "192.0.2.7");
    dypd_ds_interface_info info = info_for("scanner1");
    EXPECT_EQ(module->connect(module, &param), -EIO);
    EXPECT_EQ(module->disconnect(module, &param), -EIO);
    EXPECT_EQ(module->get_interface_info(module, &info), -EIO);
    EXPECT_EQ(scope.opens(), 3);
    EXPECT_EQ(scope.closes(), 3);
}

TEST_F(UsbdsTest, InterfaceCountIsTheDriversAnswer) {
    EXPECT_EQ(module->get_num_interfaces(module), 3);
    driver.forced_count = 7;
    EXPECT_EQ(module->get_num_interfaces(module), 7);
    EXPECT_EQ(last_request(), "get_num_interfaces result=7");
}

TEST_F(UsbdsTest, NamesFillTheCallersSlotsUpToItsCount) {
    char slots[2][DYPD_DS_NAME_SLOT];
    memset(slots, 'x', sizeof slots);
    dypd_ds_name_list list{2, slots};
    EXPECT_EQ(module->get_interface_names(module, &list), 2);
    EXPECT_EQ(list.count, 2);
    EXPECT_STREQ(slots[0], "scanner1");
    EXPECT_STREQ(slots[1], "scanner2");
    EXPECT_EQ(last_request(), "get_interface_names count=2 result=2");
    EXPECT_EQ(scope.closes(), 1);
}

TEST_F(UsbdsTest, NamesFromADriverWithNoneCopyNothing) {
    driver.devices.clear();
    char slots[1][DYPD_DS_NAME_SLOT];
    memset(slots, 'x', sizeof slots);
    dypd_ds_name_list list{1, slots};
    EXPECT_EQ(module->get_interface_names(module, &list), 0);
    EXPECT_EQ(slots[0][0], 'x');
}

TEST_F(UsbdsTest, NamesReportedBeyondTheSlotsAreClampedToTheSlots) {
    driver.forced_count = 40;
    char slots[3][DYPD_DS_NAME_SLOT] = {};
    char guard[DYPD_DS_NAME_SLOT];
    memset(guard, 'g', sizeof guard);
    dypd_ds_name_list list{2, slots};
    EXPECT_EQ(module->get_interface_names(module, &list), 2);
    EXPECT_STREQ(slots[1], "scanner2");
    EXPECT_EQ(slots[2][0], '\0');
    EXPECT_EQ(guard[0], 'g');
}

TEST_F(UsbdsTest, NamesWithoutMemoryFailWithoutOpeningTheDriver) {
    char slots[1][DYPD_DS_NAME_SLOT] = {};
    dypd_ds_name_list list{1, slots};
    dyp_alloc_fail_after(1);
    EXPECT_EQ(module->get_interface_names(module, &list), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(scope.opens(), 0);
}

TEST_F(UsbdsTest, InfoCopiesEveryFieldTheDriverReports) {
    sim_device *device = driver.find("scanner1");
    device->location = "H112";
    device->aux1 = 1;
    device->aux2 = 2;
    device->aux3 = 3;
    device->status_flag = 4;
    device->aux5 = 5;
    dypd_ds_connect_param param = connect_param("scanner1", "192.0.2.7");
    ASSERT_EQ(module->connect(module, &param), 0);

    dypd_ds_interface_info info = info_for("scanner1");
    EXPECT_EQ(module->get_interface_info(module, &info), 0);
    EXPECT_EQ(last_request(), "get_interface_info name=scanner1 result=0");
    EXPECT_STREQ(info.name, "scanner1");
    EXPECT_STREQ(info.description, "Acme Scan 1");
    EXPECT_EQ(memcmp(info.host_addr, param.host_addr, sizeof info.host_addr), 0);
    EXPECT_EQ(memcmp(info.host_mac, param.host_mac, sizeof info.host_mac), 0);
    EXPECT_EQ(info.vendor_id, 0x1234);
    EXPECT_EQ(info.product_id, 0x5678);
    EXPECT_STREQ(info.location, "H112");
    EXPECT_EQ(info.aux1, 1);
    EXPECT_EQ(info.aux2, 2);
    EXPECT_EQ(info.aux3, 3);
    EXPECT_EQ(info.status_flag, 4);
    EXPECT_EQ(info.aux5, 5);
}

TEST_F(UsbdsTest, InfoDescriptionFallsBackToTheUsbIds) {
    dypd_ds_interface_info both_missing = info_for("scanner2");
    ASSERT_EQ(module->get_interface_info(module, &both_missing), 0);
    EXPECT_STREQ(both_missing.description, "VID [0x1234] PID [0x5678]");

    dypd_ds_interface_info product_missing = info_for("scanner3");
    ASSERT_EQ(module->get_interface_info(module, &product_missing), 0);
    EXPECT_STREQ(product_missing.description, "Acme PID [0x00EF]");

    driver.find("scanner3")->manufacturer.clear();
    driver.find("scanner3")->product = "Scan 3";
    dypd_ds_interface_info manufacturer_missing = info_for("scanner3");
    ASSERT_EQ(module->get_interface_info(module, &manufacturer_missing), 0);
    EXPECT_STREQ(manufacturer_missing.description, "VID [0xABCD] Scan 3");
}

TEST_F(UsbdsTest, InfoDescriptionOfA255CharacterManufacturerLeavesNoRoomForTheProduct) {
    std::string manufacturer(255, 'm');
    driver.find("scanner1")->manufacturer = manufacturer;
    dypd_ds_interface_info info = info_for("scanner1");
    ASSERT_EQ(module->get_interface_info(module, &info), 0);
    EXPECT_EQ(std::string(info.description), manufacturer);
    EXPECT_EQ(info.description[255], '\0');

    driver.find("scanner1")->product.clear();
    ASSERT_EQ(module->get_interface_info(module, &info), 0);
    EXPECT_EQ(std::string(info.description), manufacturer);
}

TEST_F(UsbdsTest, InfoOfAnUnknownInterfaceIsNotThisModules) {
    dypd_ds_interface_info info = info_for("scanner9");
    EXPECT_EQ(module->get_interface_info(module, &info), -ENODEV);
}

TEST_F(UsbdsTest, InfoAnsweredWithAPositiveValueLeavesTheRecordAsPrepared) {
    driver.find("scanner1")->injected_result = 1;
    dypd_ds_interface_info info = info_for("scanner1");
    strcpy(info.description, "prepared");
    EXPECT_EQ(module->get_interface_info(module, &info), 1);
    EXPECT_STREQ(info.description, "prepared");
    EXPECT_EQ(info.vendor_id, 0);
}

class UsbdsKeepAliveTest : public UsbdsTest {
  protected:
    void keep_alive(dypd_ds_name_list list) { module->keep_alive(module, &list); }
    // A successful keep-alive re-arms the open-failure report.
    void rearm() { keep_alive({0, nullptr}); }
};

TEST_F(UsbdsKeepAliveTest, PassesTheNamesCutToFifteenWithAZeroReservedWord) {
    char slots[2][DYPD_DS_NAME_SLOT];
    strcpy(slots[0], "scanner1");
    memset(slots[1], 'k', sizeof slots[1]);
    keep_alive({2, slots});
    EXPECT_EQ(last_request(),
              "keep_alive count=2 reserved=0 names=scanner1,kkkkkkkkkkkkkkk result=0");
    EXPECT_EQ(driver.find("scanner1")->keep_alive_count, 1u);
    EXPECT_EQ(scope.closes(), 1);
}

TEST_F(UsbdsKeepAliveTest, LogsAnUnopenableFileOncePerRunOfFailures) {
    rearm();
    log_capture log;
    driver.control_file_missing = true;
    keep_alive({0, nullptr});
    keep_alive({0, nullptr});
    keep_alive({0, nullptr});
    EXPECT_EQ(log.count(LOG_ERR, "cannot open the file, /proc/tquptp/driver (err: -2)"), 1);
    EXPECT_EQ(log.lines().size(), 1u);

    driver.control_file_missing = false;
    keep_alive({0, nullptr});
    driver.control_file_missing = true;
    keep_alive({0, nullptr});
    EXPECT_EQ(log.count(LOG_ERR, "cannot open the file, /proc/tquptp/driver (err: -2)"), 2);
}

TEST_F(UsbdsKeepAliveTest, LogsAFailedRequestWithItsNumberAndError) {
    driver.find("scanner2")->injected_result = -EIO;
    char slots[1][DYPD_DS_NAME_SLOT] = {"scanner2"};
    log_capture log;
    keep_alive({1, slots});
    std::string expected = "failed to execute IOCTL(" +
                           std::to_string(static_cast<int>(USBDS_IOC_KEEP_ALIVE)) + ") (err: -5)";
    EXPECT_EQ(log.count(LOG_ERR, expected), 1);
    EXPECT_EQ(scope.closes(), 1);
}

TEST_F(UsbdsKeepAliveTest, LogsMissingMemoryAndSkipsTheRequest) {
    char slots[1][DYPD_DS_NAME_SLOT] = {"scanner2"};
    log_capture log;
    dyp_alloc_fail_after(1);
    keep_alive({1, slots});
    dyp_alloc_fail_after(0);
    std::string expected = "no memory for IOCTL(" +
                           std::to_string(static_cast<int>(USBDS_IOC_KEEP_ALIVE)) +
                           ") request data";
    EXPECT_EQ(log.count(LOG_ERR, expected), 1);
    EXPECT_TRUE(driver.requests().empty());
    EXPECT_EQ(scope.opens(), 1);
    EXPECT_EQ(scope.closes(), 1);
}

TEST(UsbdsRegistration, InitAppendsTheModuleAndCleanupRemovesIt) {
    dypd_ds_modlist = tqlist_create<dypd_ds_module>();
    ASSERT_NE(dypd_ds_modlist, nullptr);
    EXPECT_EQ(dypd_ds_usb_init(), 0);
    ASSERT_NE(dypd_ds_modlist->head.next, &dypd_ds_modlist->head);
    EXPECT_EQ(dypd_ds_modlist->head.next->item, &usbds_module);
    EXPECT_EQ(dypd_ds_usb_cleanup(), 0);
    EXPECT_EQ(dypd_ds_usb_cleanup(), -ENOENT);
    tqlist_dispose(dypd_ds_modlist);
    dypd_ds_modlist = nullptr;
}

} // namespace
