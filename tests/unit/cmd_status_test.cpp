#include <cstring>

#include <gtest/gtest.h>
#include <net/if.h>
#include <syslog.h>

#include "ds/commands.h"
#include "lib/be.h"
#include "protocol/session.h"
#include "support/fake_ds_module.h"
#include "support/log_capture.h"
#include "support/netns.h"

namespace {

class ScannerStatus : public ::testing::Test {
  protected:
    std::vector<uint8_t> status(const std::string &name) {
        auto request = make_request(text_bytes(name));
        int32_t n = dypcmd_get_scanner_status(&session, request.data(), out, sizeof out);
        EXPECT_GE(n, 0);
        return std::vector<uint8_t>(out, out + std::max(n, 0));
    }

    identity_scope identity;
    dypd_session session{nullptr, 0, nullptr, nullptr, 99999}; // an index without a name
    uint8_t out[65536] = {};
    fake_module first{"first"}, second{"second"};
};

std::vector<uint8_t> bytes_of(const std::string &text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

TEST_F(ScannerStatus, WithoutAColonTheInterfaceIsUnknown) {
    first.interfaces.push_back({"usb1"});
    module_list_scope list({&first});
    log_capture log;
    auto reply = status("GET SCANNER_STATUS");
    ASSERT_EQ(reply.size(), 32u);
    EXPECT_EQ(get_be16(reply.data()), 0x8082);
    EXPECT_EQ(std::vector<uint8_t>(reply.begin() + 2, reply.begin() + 18),
              std::vector<uint8_t>(16, 0));
    EXPECT_EQ(std::vector<uint8_t>(reply.begin() + 18, reply.end()),
              bytes_of(std::string("Not Connected", 14)));
    EXPECT_EQ(first.info_calls, 0);
    EXPECT_EQ(log.count(LOG_WARNING, "no interface #99999\n"), 1);
}

TEST_F(ScannerStatus, AFoundFlaggedInterfaceReportsItsHolderAndDescription) {
    fake_interface iface{"usb1"};
    iface.status_flag = 1;
    iface.description = std::string(100, 'x');
    second.interfaces.push_back(iface);
    first.interfaces.push_back({"usb1", -EIO});
    module_list_scope list({&first, &second});
    log_capture log;
    auto reply = status("GET SCANNER_STATUS:usb1");
    ASSERT_EQ(reply.size(), 18u + 64u);
    EXPECT_EQ(get_be16(reply.data()), 0x8483);
    EXPECT_EQ(0, memcmp(reply.data() + 2, iface.ipv4, 4));
    EXPECT_EQ(0, memcmp(reply.data() + 6, iface.host_mac, 6));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(reply.data() + 18)), std::string(63, 'x'));
    EXPECT_EQ(
        log.count(LOG_ERR, "cannot get information of the interface usb1 module first (err: -5)"),
        1);
}

TEST_F(ScannerStatus, AnUnflaggedInterfaceIs8083AndTheDaemonBitsPassThrough) {
    identity.identity.status = 0x0010;
    first.interfaces.push_back({"usb1"});
    module_list_scope list({&first});
    EXPECT_EQ(get_be16(status("GET SCANNER_STATUS:usb1").data()), 0x8093);
}

TEST_F(ScannerStatus, ALongNameIsLookedUpByItsFirst15Characters) {
    first.interfaces.push_back({"abcdefghijklmno"});
    module_list_scope list({&first});
    auto reply = status("GET SCANNER_STATUS:abcdefghijklmnopqrst");
    EXPECT_EQ(get_be16(reply.data()), 0x8083);
}

TEST_F(ScannerStatus, QuietFailuresLeaveTheInterfaceUnknownWithoutLogging) {
    first.interfaces.push_back({"usb1", -ENOENT});
    module_list_scope list({&first, &second}); // second: -ENODEV for any name
    session.ifindex = 1;
    log_capture log;
    auto reply = status("GET SCANNER_STATUS:usb1");
    EXPECT_EQ(get_be16(reply.data()), 0x8082);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(reply.data() + 18)), "Not Connected");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ScannerStatus, TheBoxMacComesFromTheReceivingInterface) {
    DYP_REQUIRE_ROOT();
    test_netns ns("st");
    ASSERT_EQ(
        ns.exec(
            "ip link add d0 type veth peer name d1 && ip link set d0 address 02:aa:bb:cc:dd:ee"),
        0);
    netns_scope inside(ns.name());
    ASSERT_TRUE(inside.ok());
    session.ifindex = static_cast<int32_t>(if_nametoindex("d0"));
    ASSERT_GT(session.ifindex, 0);
    module_list_scope list;
    auto reply = status("GET SCANNER_STATUS:usb1");
    const uint8_t mac[6] = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
    EXPECT_EQ(0, memcmp(reply.data() + 12, mac, 6));
}

class PortNames : public ScannerStatus {
  protected:
    std::vector<uint8_t> names(uint32_t capacity = 65536) {
        auto request = make_request(text_bytes("GET SCANNER PORT_NAME"));
        int32_t n = dypcmd_get_scanner_port_name(&session, request.data(), out, capacity);
        EXPECT_GE(n, 1);
        return std::vector<uint8_t>(out, out + std::max(n, 0));
    }
};

TEST_F(PortNames, CountsAllNamesModulo256) {
    for (int i = 0; i < 300; ++i)
        first.interfaces.push_back({"n" + std::to_string(i)});
    module_list_scope list({&first});
    auto reply = names();
    EXPECT_EQ(reply[0], 44);
    EXPECT_EQ(first.names_asked, std::vector<uint16_t>{300});
    size_t listed = 0;
    for (size_t at = 1; at < reply.size(); at += strlen(reinterpret_cast<char *>(&reply[at])) + 1)
        ++listed;
    EXPECT_EQ(listed, 300u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&reply[reply.size() - 5])), "n299");
}

TEST_F(PortNames, AFailingModuleDropsOnlyItsOwnNames) {
    first.interfaces = {{"a"}, {"b"}};
    second.interfaces = {{"c"}};
    second.names_overridden = true;
    second.names_result = -EIO;
    module_list_scope list({&first, &second});
    log_capture log;
    EXPECT_EQ(names(), bytes_of(std::string("\x02"
                                            "a\0b\0",
                                            5)));
    EXPECT_EQ(log.count(LOG_ERR, "cannot get interface names module second (err: -5)"), 1);
}

TEST_F(PortNames, NamesThatDoNotFitRollTheModuleBack) {
    first.interfaces = {{"aaaa"}};
    second.interfaces = {{"bbbb"}, {"cccc"}};
    module_list_scope list({&first, &second});
    // The count byte, "aaaa\0", then only five bytes: "cccc" cannot follow.
    EXPECT_EQ(names(11), bytes_of(std::string("\x01"
                                              "aaaa\0",
                                              6)));
}

TEST_F(PortNames, UnterminatedNamesAreCutAtTheirSlot) {
    first.interfaces = {{std::string(16, 'z')}};
    module_list_scope list({&first});
    EXPECT_EQ(names(), bytes_of("\x01" + std::string(15, 'z') + std::string(1, '\0')));
}

class UsbPortName : public ScannerStatus {
  protected:
    std::vector<uint8_t> query(uint16_t vendor, uint16_t product, const std::string &location) {
        std::vector<uint8_t> data(20, 0);
        put_be16(data.data(), vendor);
        put_be16(data.data() + 2, product);
        memcpy(data.data() + 4, location.data(), std::min<size_t>(location.size(), 16));
        auto request = make_request(text_bytes("GET USB_PORT_NAME"), data);
        int32_t n = dypcmd_get_usb_port_name(&session, request.data(), out, sizeof out);
        EXPECT_GE(n, 1);
        return std::vector<uint8_t>(out, out + std::max(n, 0));
    }
};

TEST_F(UsbPortName, AMatchAnswersOneAndTheName) {
    fake_interface other{"usb1"};
    other.location = "H11";
    fake_interface wanted{"usb2"};
    wanted.location = "H12";
    second.interfaces = {other, wanted};
    module_list_scope list({&first, &second});
    EXPECT_EQ(query(0x04b8, 0x0142, std::string("H12\0junk", 8)),
              bytes_of(std::string("\x01usb2\0", 6)));
}

TEST_F(UsbPortName, TheFirstLocationMatchDecidesEvenWhenItsIdsDiffer) {
    fake_interface wrong{"usb1"};
    wrong.location = "H12";
    wrong.vendor_id = 0x1111;
    fake_interface right{"usb2"};
    right.location = "H12";
    first.interfaces = {wrong, right};
    module_list_scope list({&first});
    EXPECT_EQ(query(0x04b8, 0x0142, "H12"), std::vector<uint8_t>{0});
}

TEST_F(UsbPortName, AnInfoFailureEndsOnlyThatModule) {
    fake_interface broken{"usb1", -EIO};
    fake_interface wanted{"usb9"};
    first.interfaces = {broken, wanted};
    second.interfaces = {wanted};
    module_list_scope list({&first, &second});
    log_capture log;
    EXPECT_EQ(query(0x04b8, 0x0142, "H12"), bytes_of(std::string("\x01usb9\0", 6)));
    EXPECT_EQ(first.info_calls, 1);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get an interface info module first (err: -5)"), 1);
}

TEST_F(UsbPortName, NoMatchOrNoMemoryAnswersZero) {
    first.interfaces = {{"usb1"}};
    module_list_scope list({&first});
    EXPECT_EQ(query(0x04b8, 0x0142, "S1"), std::vector<uint8_t>{0});
    dyp_alloc_fail_after(1);
    EXPECT_EQ(query(0x04b8, 0x0142, "H12"), std::vector<uint8_t>{0});
    dyp_alloc_fail_after(0);
}

} // namespace
