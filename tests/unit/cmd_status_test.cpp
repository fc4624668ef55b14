#include "support/fake_ds_module.h"

class ScannerCommands : public ::testing::Test {
  protected:
    std::string status(const std::string &name) {
        return run_command(dypcmd_get_scanner_status, &session, "GET SCANNER_STATUS" + name);
    }
    // "GET USB_PORT_NAME" for the product 0x0142 of `vendor` at `location`.
    std::string port_at(const std::string &location, const std::string &vendor = "\x04\xb8") {
        return run_command(dypcmd_get_usb_port_name, &session, "GET USB_PORT_NAME",
                           vendor + "\x01\x42" + location);
    }

    identity_scope identity;
    dypd_session session{nullptr, 0, nullptr, nullptr, 99999}; // an index without a name
    fake_module first{"first"}, second{"second"};
};

TEST_F(ScannerCommands, StatusOfAnUnknownInterfaceIsNotConnectedAndQuiet) {
    first.interfaces.push_back({"usb1", -ENOENT});
    module_list_scope list({&first, &second}); // second: -ENODEV for any name
    log_capture log;
    const std::string not_connected = "\x80\x82"s + std::string(16, '\0') + "Not Connected\0"s;
    EXPECT_EQ(status(""), not_connected); // no ':', no lookup
    EXPECT_EQ(first.info_calls, 0);
    EXPECT_EQ(log.count(LOG_WARNING, "no interface #99999\n"), 1);
    session.ifindex = 1;
    EXPECT_EQ(status(":usb1"), not_connected);
    EXPECT_EQ(log.lines().size(), 1u);
    // The flag counts as the record holds it, found or not.
    second.get()->get_interface_info = [](dypd_ds_module *, dypd_ds_interface_info *info) {
        info->status_flag = 1;
        return -ENODEV;
    };
    EXPECT_EQ(status(":usb1").substr(0, 2), "\x84\x82"s);
}

TEST_F(ScannerCommands, StatusHolderComesFromTheFirstModuleKnowingTheCutName) {
    identity.identity.status = 0x0010;
    fake_interface iface{"abcdefghijklmno"};
    iface.status_flag = 1;
    iface.description = std::string(100, 'x');
    first.interfaces.push_back({"abcdefghijklmno", -EIO});
    second.interfaces.push_back(iface);
    module_list_scope list({&first, &second});
    log_capture log;
    EXPECT_EQ(status(":abcdefghijklmnopqrst"), "\x84\x93\xC0\x00\x02\x07\x02\x00\x00\x00\x00\x07"s +
                                                   std::string(6, '\0') + std::string(63, 'x') +
                                                   '\0');
    const std::string failure =
        "cannot get information of the interface abcdefghijklmno module first";
    EXPECT_EQ(module_errors(log, failure, -EIO), 1);
}

TEST_F(ScannerCommands, PortNamesAreAllListedAndCountedModulo256) {
    for (int i = 0; i < 300; ++i)
        first.interfaces.push_back({"n" + std::to_string(i)});
    module_list_scope list({&first});
    std::string reply =
        run_command(dypcmd_get_scanner_port_name, &session, "GET SCANNER PORT_NAME");
    EXPECT_EQ(reply[0], 44);
    EXPECT_EQ(std::count(reply.begin(), reply.end(), '\0'), 300);
    EXPECT_EQ(reply.substr(reply.size() - 5), "n299\0"s);
}

TEST_F(ScannerCommands, UsbPortNameTakesTheFirstLocationMatchAndAnswersZeroOtherwise) {
    fake_interface broken{"usb1", -EIO}, other{"usb2"}, wanted{"usb3"}, twin{"usb4"};
    other.location = "H11";
    twin.vendor_id = 0x1111;
    first.interfaces = {broken, wanted};
    second.interfaces = {other, wanted, twin};
    module_list_scope list({&first, &second});
    log_capture log;
    EXPECT_EQ(port_at("H12\0junk"s), "\x01usb3\0"s);
    EXPECT_EQ(first.info_calls, 1);
    EXPECT_EQ(module_errors(log, "cannot get an interface info module first", -EIO), 1);
    // usb3 matches the location first, so usb4's ids are never compared.
    for (const std::string &miss : {port_at("H12", "\x11\x11"), port_at("S1"), port_at("H123")})
        EXPECT_EQ(miss, "\0"s);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(port_at("H12"), "\0"s);
    dyp_alloc_fail_after(0);
}
