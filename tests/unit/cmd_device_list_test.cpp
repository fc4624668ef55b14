#include "ds/serial.h"
#include "support/fake_ds_module.h"

// One entry of a fake interface at H12; the extended form holds two zero
// bytes after the status word, and the serial.
static std::string entry(const std::string &name, const std::string &description = "Scanner",
                         const char *status = "\x81\x83", const std::string &ex_serial = {}) {
    std::string ids = "\x04\xb8\x01\x42H12"s + std::string(13, '\0') + "\x5a\xa5";
    return name + '\0' + description + '\0' + "\xC0\x00\x02\x07"s + status +
           (ex_serial.empty() ? "" : "\0\0"s) + ids + ex_serial + std::string(4, '\0');
}

class DeviceList : public ::testing::Test {
  protected:
    std::string fetch(bool ex = false, uint32_t capacity = 65536) {
        return run_command(ex ? dypcmd_get_usb_device_list_ex : dypcmd_get_usb_device_list,
                           &session, ex ? "GET USB_DEVICE_LIST_EX" : "GET USB_DEVICE_LIST", {},
                           capacity);
    }
    static void add(fake_module &module, int n, const std::string &prefix) {
        for (int i = 0; i < n; ++i)
            module.interfaces.push_back({prefix + std::to_string(i)});
    }

    identity_scope identity{0x0100};
    dypd_session session{};
    fake_module first{"first"}, second{"second"}, third{"third"};
};

TEST_F(DeviceList, EntriesCarryEveryFieldInOrderWithTheDaemonStatusBits) {
    add(first, 2, "usb");
    first.interfaces[0].description = std::string(100, 'd'); // cut to 63
    first.interfaces[1].status_flag = 1;
    first.interfaces[1].raw_description = true; // 256 bytes without a NUL
    module_list_scope list({&first});
    EXPECT_EQ(fetch(), "\x02" + entry("usb0", std::string(63, 'd')) +
                           entry("usb1", std::string(63, 'D'), "\x85\x83"));
}

TEST_F(DeviceList, TheCountStopsAt255AndLaterModulesAreAskedForWhatIsLeft) {
    add(first, 200, "a");
    add(second, 100, "b");
    add(third, 1, "c");
    module_list_scope list({&first, &second, &third});
    std::string expected = "\xff";
    for (int i = 0; i < 255; ++i)
        expected += entry((i < 200 ? "a" : "b") + std::to_string(i < 200 ? i : i - 200));
    EXPECT_EQ(fetch(), expected);
    EXPECT_EQ(second.names_asked, std::vector<uint16_t>{55});
    EXPECT_TRUE(third.names_asked.empty());
}

TEST_F(DeviceList, ModulesFailingOrLackingAnOperationAreLeftOutAndOnlyRealFailuresLogged) {
    fake_module lacking("lacking");
    add(lacking, 1, "l");
    lacking.get()->get_num_interfaces = nullptr;
    add(first, 3, "a"); // a disowned interface is counted, but not listed
    first.interfaces[1].info_result = -ENODEV;
    add(second, 2, "b"); // a disowned last one drops the module
    second.interfaces[1].info_result = -ENODEV;
    add(third, 2, "c");
    third.interfaces[1].info_result = -EIO;
    fake_module fourth("fourth");
    add(fourth, 2, "d");
    fourth.interfaces[1].info_result = -ENOENT;
    module_list_scope list({&lacking, &first, &second, &third, &fourth});
    log_capture log;
    EXPECT_EQ(fetch(), "\x03" + entry("a0") + entry("a2"));
    EXPECT_EQ(module_errors(log, "cannot get an interface info module third", -EIO), 1);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(DeviceList, AFullOutputBufferRollsTheModuleBack) {
    add(first, 1, "a");
    add(second, 3, "b");
    module_list_scope list({&first, &second});
    // Room for the count byte, the first entry and part of the second.
    EXPECT_EQ(fetch(false, 1 + 43 + 50), "\x01" + entry("a0"));
}

TEST_F(DeviceList, ExEntriesCarryTheSerialAndABadLookupDropsTheModule) {
    dypd_ds_set_sysfs_root("/nonexistent"); // no serial files: empty serials
    add(first, 1, "usb");
    add(second, 2, "odd");
    second.interfaces[1].location = "X1-2";
    module_list_scope list({&first, &second});
    log_capture log;
    EXPECT_EQ(fetch(true), "\x01" + entry("usb0", "Scanner", "\x81\x83", std::string(64, '\0')));
    EXPECT_EQ(log.count(LOG_INFO, " unknown location (X1-2)\n"), 1);
    dypd_ds_set_sysfs_root(nullptr);
}
