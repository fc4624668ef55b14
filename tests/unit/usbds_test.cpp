#include "modules/usbds.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include "sim_seam.h"
#include "support/fake_ds_module.h"

class UsbdsTest : public ::testing::Test {
  protected:
    UsbdsTest() {
        // name, USB strings, ids, location, aux1-3, aux5, status flag
        driver.devices = {{"scanner1", "Acme", "Scan 1", 0x1234, 0x5678, "H112", 1, 2, 3, 5, 4},
                          {"scanner2", "", "", 0x1234, 0x5678}};
        memset(slots[1], 'k', sizeof slots[1]); // no NUL
        // scanner2 for 192.0.2.7:19540, the address stored as a sockaddr_in
        // (its family in the target's byte order).
        sockaddr_in host{AF_INET, htons(19540), {htonl(0xC0000207)}, {}};
        memcpy(param.host_addr, &host, sizeof host);
    }
    int info(const char *name) {
        record = {};
        strcpy(record.name, name);
        return module->get_interface_info(module, &record);
    }
    const std::string &last_request() const { return driver.requests().back(); }

    sim_driver driver;
    sim_driver_scope scope{driver};
    dypd_ds_module *module = &usbds_module;
    dypd_ds_connect_param param{"scanner2", {}, {2, 0, 0x5e, 0, 0x53, 1}, 0, 0};
    dypd_ds_interface_info record{};
    char slots[3][DYPD_DS_NAME_SLOT] = {"scanner1", "", "x"};
    dypd_ds_name_list list{2, slots};
};

TEST_F(UsbdsTest, RequestsCarryTheCallersRecordsThroughAFreshDescriptor) {
    param.opt_b1 = 1;
    EXPECT_EQ(module->connect(module, &param), 0);
    EXPECT_EQ(last_request(), "connect name=scanner2 host=192.0.2.7:19540 mac=02:00:5e:00:53:01 "
                              "opt_b1=1 opt_b0=0 result=0");
    EXPECT_EQ(scope.last_open_flags() & (O_ACCMODE | O_CLOEXEC), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(module->disconnect(module, &param), 0);
    EXPECT_EQ(last_request(), "disconnect name=scanner2 host=192.0.2.7:19540 result=0");
    // Both option bytes of the extended request come from `opts` alone, and
    // unterminated names reach the driver cut to fifteen characters.
    dypd_ds_connect_param_ex extended{.size = DYPD_DS_CONNECT_EX_SIZE, .opt_b1 = 1, .opts = 0xFD};
    memset(extended.name, 'e', sizeof extended.name);
    memset(extended.ifname, 'i', sizeof extended.ifname);
    EXPECT_EQ(module->connect_ex(module, &extended), -ENODEV);
    EXPECT_EQ(last_request(), "connect_ex name=eeeeeeeeeeeeeee host=family=0 mac=00:00:00:00:00:00 "
                              "opt_b1=0 opt_b0=1 size=172 ifname=iiiiiiiiiiiiiii result=" +
                                  std::to_string(-ENODEV));
    module->keep_alive(module, &list);
    EXPECT_EQ(last_request(),
              "keep_alive count=2 reserved=0 names=scanner1,kkkkkkkkkkkkkkk result=0");
    EXPECT_EQ(scope.closes(), 4);
}

TEST_F(UsbdsTest, InterfaceCountAndNamesAreTheDriversClampedToTheCallersSlots) {
    driver.forced_count = 40; // a driver claiming more names than slots
    EXPECT_EQ(module->get_num_interfaces(module), 40);
    EXPECT_EQ(module->get_interface_names(module, &list), 2);
    EXPECT_EQ(std::string(slots[0]) + "," + slots[1] + "," + slots[2], "scanner1,scanner2,x");
    EXPECT_EQ(last_request(), "get_interface_names count=2 result=40");
}

TEST_F(UsbdsTest, InfoCopiesEveryFieldAndDescribesByUsbIdsWhereStringsLack) {
    strcpy(param.name, "scanner1");
    ASSERT_EQ(module->connect(module, &param), 0);
    EXPECT_EQ(info("scanner1"), 0);
    dypd_ds_interface_info expected{
        "scanner1", "Acme Scan 1", {}, {2, 0, 0x5e, 0, 0x53, 1}, 0x1234, 0x5678, "H112", 1, 2, 3, 4,
        5};
    memcpy(expected.host_addr, param.host_addr, sizeof expected.host_addr);
    const size_t fields = offsetof(dypd_ds_interface_info, aux5) + 1; // the padding aside
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&record), fields),
              std::string(reinterpret_cast<char *>(&expected), fields));
    const std::string long_maker(255, 'm'); // the description is cut to 255
    const std::string cases[][3] = {{"", "", "VID [0x1234] PID [0x5678]"},
                                    {"Acme", "", "Acme PID [0x5678]"},
                                    {"", "Scan 3", "VID [0x1234] Scan 3"},
                                    {long_maker, "Scan", long_maker},
                                    {long_maker, "", long_maker}};
    for (const auto &[maker, product, description] : cases) {
        driver.find("scanner2")->manufacturer = maker;
        driver.find("scanner2")->product = product;
        ASSERT_EQ(info("scanner2"), 0);
        EXPECT_EQ(record.description, description);
    }
}

TEST_F(UsbdsTest, AMissingControlFileIsLoggedOncePerRunOfFailures) {
    log_capture log;
    for (bool missing : {true, true, true, false, true}) {
        driver.control_file_missing = missing;
        module->keep_alive(module, &list);
    }
    EXPECT_EQ(log.count(LOG_ERR, "cannot open the file, /proc/tquptp/driver (err: " +
                                     std::to_string(-ENOENT) + ")"),
              2);
    EXPECT_EQ(scope.opens(), scope.closes());
}
