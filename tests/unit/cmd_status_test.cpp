#include <cstring>

#include <gtest/gtest.h>
#include <net/if.h>
#include <syslog.h>

#include "ds/commands.h"
#include "lib/alloc.h"
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
        return reply(dypcmd_get_scanner_status(&session, request.data(), out, sizeof out));
    }
    std::vector<uint8_t> reply(int32_t n) {
        EXPECT_GE(n, 1);
        return std::vector<uint8_t>(out, out + std::max(n, 0));
    }
    std::string text_at(const std::vector<uint8_t> &bytes, size_t at) {
        return reinterpret_cast<const char *>(bytes.data() + at);
    }

    identity_scope identity;
    dypd_session session{nullptr, 0, nullptr, nullptr, 99999}; // an index without a name
    uint8_t out[65536] = {};
    fake_module first{"first"}, second{"second"};
};

TEST_F(ScannerStatus, WithoutAColonTheInterfaceIsUnknown) {
    first.interfaces.push_back({"usb1"});
    module_list_scope list({&first});
    log_capture log;
    auto bytes = status("GET SCANNER_STATUS");
    std::vector<uint8_t> expected(18, 0);
    expected[0] = 0x80;
    expected[1] = 0x82;
    const char not_connected[] = "Not Connected";
    expected.insert(expected.end(), not_connected, not_connected + sizeof not_connected);
    EXPECT_EQ(bytes, expected);
    EXPECT_EQ(first.info_calls, 0);
    EXPECT_EQ(log.count(LOG_WARNING, "no interface #99999\n"), 1);
}

TEST_F(ScannerStatus, TheHolderIsReportedByTheFirstModuleKnowingTheCutName) {
    identity.identity.status = 0x0010;
    fake_interface iface{"abcdefghijklmno"};
    iface.status_flag = 1;
    iface.description = std::string(100, 'x');
    second.interfaces.push_back(iface);
    first.interfaces.push_back({"abcdefghijklmno", -EIO});
    module_list_scope list({&first, &second});
    log_capture log;
    auto bytes = status("GET SCANNER_STATUS:abcdefghijklmnopqrst");
    ASSERT_EQ(bytes.size(), 18u + 64u);
    EXPECT_EQ(get_be16(bytes.data()), 0x8493);
    EXPECT_EQ(0, memcmp(bytes.data() + 2, iface.ipv4, 4));
    EXPECT_EQ(0, memcmp(bytes.data() + 6, iface.host_mac, 6));
    EXPECT_EQ(text_at(bytes, 18), std::string(63, 'x'));
    EXPECT_EQ(log.count(LOG_ERR, "cannot get information of the interface abcdefghijklmno "
                                 "module first (err: -5)"),
              1);
    second.interfaces[0].status_flag = 0;
    EXPECT_EQ(get_be16(status("GET SCANNER_STATUS:abcdefghijklmno").data()), 0x8093);
}

TEST_F(ScannerStatus, QuietFailuresLeaveTheInterfaceUnknownWithoutLogging) {
    first.interfaces.push_back({"usb1", -ENOENT});
    module_list_scope list({&first, &second}); // second: -ENODEV for any name
    session.ifindex = 1;
    log_capture log;
    auto bytes = status("GET SCANNER_STATUS:usb1");
    EXPECT_EQ(get_be16(bytes.data()), 0x8082);
    EXPECT_EQ(text_at(bytes, 18), "Not Connected");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ScannerStatus, TheBoxMacComesFromTheReceivingInterface) {
    DYP_REQUIRE_ROOT();
    test_netns ns("st");
    ASSERT_EQ(ns.exec("ip link add d0 type veth peer name d1 && "
                      "ip link set d0 address 02:aa:bb:cc:dd:ee"),
              0);
    netns_scope inside(ns.name());
    ASSERT_TRUE(inside.ok());
    session.ifindex = static_cast<int32_t>(if_nametoindex("d0"));
    ASSERT_GT(session.ifindex, 0);
    module_list_scope list;
    const uint8_t mac[6] = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
    EXPECT_EQ(0, memcmp(status("GET SCANNER_STATUS:usb1").data() + 12, mac, 6));
}

class PortNames : public ScannerStatus {
  protected:
    std::vector<uint8_t> names(uint32_t capacity = 65536) {
        auto request = make_request(text_bytes("GET SCANNER PORT_NAME"));
        return reply(dypcmd_get_scanner_port_name(&session, request.data(), out, capacity));
    }
};

TEST_F(PortNames, ListsAllNamesAndCountsThemModulo256) {
    for (int i = 0; i < 300; ++i)
        first.interfaces.push_back({"n" + std::to_string(i)});
    module_list_scope list({&first});
    auto bytes = names();
    EXPECT_EQ(bytes[0], 44);
    EXPECT_EQ(first.names_asked, std::vector<uint16_t>{300});
    size_t listed = 0;
    for (size_t at = 1; at < bytes.size(); at += text_at(bytes, at).size() + 1)
        ++listed;
    EXPECT_EQ(listed, 300u);
    EXPECT_EQ(text_at(bytes, bytes.size() - 5), "n299");
}

TEST_F(PortNames, FailingOrOverflowingModulesDropOnlyTheirOwnNames) {
    fake_module third("third");
    first.interfaces = {{std::string(16, 'z')}}; // unterminated: cut at its slot
    second.interfaces = {{"c"}};
    second.names_overridden = true;
    second.names_result = -EIO;
    third.interfaces = {{"bbbb"}, {"cccc"}};
    module_list_scope list({&first, &second, &third});
    log_capture log;
    // Room for the count byte, the first name and "bbbb\0" only.
    EXPECT_EQ(names(1 + 16 + 5), text_bytes("\x01" + std::string(15, 'z') + std::string(1, '\0')));
    EXPECT_EQ(log.count(LOG_ERR, "cannot get interface names module second (err: -5)"), 1);
}

class UsbPortName : public ScannerStatus {
  protected:
    std::vector<uint8_t> query(const std::string &location, uint16_t vendor = 0x04b8) {
        std::vector<uint8_t> data(20, 0);
        put_be16(data.data(), vendor);
        put_be16(data.data() + 2, 0x0142);
        memcpy(data.data() + 4, location.data(), std::min<size_t>(location.size(), 16));
        auto request = make_request(text_bytes("GET USB_PORT_NAME"), data);
        return reply(dypcmd_get_usb_port_name(&session, request.data(), out, sizeof out));
    }
};

TEST_F(UsbPortName, TheFirstLocationMatchDecidesAndFailuresAnswerZero) {
    fake_interface broken{"usb1", -EIO}, other{"usb2"}, wanted{"usb3"}, twin{"usb4"};
    other.location = "H11";
    twin.vendor_id = 0x1111;
    first.interfaces = {broken, wanted};
    second.interfaces = {other, wanted, twin};
    module_list_scope list({&first, &second});
    log_capture log;
    EXPECT_EQ(query(std::string("H12\0junk", 8)), text_bytes(std::string("\x01usb3\0", 6)));
    EXPECT_EQ(first.info_calls, 1);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get an interface info module first (err: -5)"), 1);
    // usb3 matches the location first, so usb4's ids are never compared.
    EXPECT_EQ(query("H12", 0x1111), std::vector<uint8_t>{0});
    EXPECT_EQ(query("S1"), std::vector<uint8_t>{0});
    dyp_alloc_fail_after(1);
    EXPECT_EQ(query("H12"), std::vector<uint8_t>{0});
    dyp_alloc_fail_after(0);
}

} // namespace
