#include <cstring>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "ds/commands.h"
#include "lib/alloc.h"
#include "protocol/command.h"
#include "protocol/session.h"
#include "support/fake_ds_module.h"
#include "support/log_capture.h"

namespace {

struct connect_args {
    std::string command = "EXEC SCANNER CONNECT";
    uint8_t format = 1;
    uint8_t addr_len = 6;
    uint8_t mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    uint8_t ipv4[4] = {192, 0, 2, 9};
    std::string ifname = "usb1";
    uint8_t port[2] = {0, 0};
    uint8_t options = 0;
};

std::vector<uint8_t> build(const connect_args &a) {
    std::vector<uint8_t> name = text_bytes(a.command + ":");
    name.insert(name.end(), {a.format, a.addr_len});
    name.insert(name.end(), a.mac, a.mac + 6);
    name.insert(name.end(), a.ipv4, a.ipv4 + 4);
    name.insert(name.end(), a.ifname.begin(), a.ifname.end());
    name.insert(name.end(), {0, a.port[0], a.port[1], a.options});
    return make_request(name);
}

const std::string OK("OK\0", 3), NG("NG\0", 3);

uint16_t port_of(const uint8_t *host_addr) {
    return static_cast<uint16_t>(host_addr[2] << 8 | host_addr[3]);
}

class ScannerCommand : public ::testing::Test {
  protected:
    std::string run(dypd_command_handler handler, const std::vector<uint8_t> &request) {
        int32_t n = handler(&session, request.data(), out, sizeof out);
        EXPECT_EQ(n, 3);
        return n == 3 ? std::string(reinterpret_cast<char *>(out), 3) : std::string();
    }
    std::string connect(const connect_args &a = {}) {
        return run(dypcmd_exec_scanner_connect, build(a));
    }
    std::string disconnect(connect_args a = {}) {
        a.command = "EXEC SCANNER DISCONNECT";
        return run(dypcmd_exec_scanner_disconnect, build(a));
    }

    dypd_session session{nullptr, 0, nullptr, nullptr, 1}; // ifindex 1: loopback
    uint8_t out[64] = {};
    fake_module first{"first"}, second{"second"};
};

TEST_F(ScannerCommand, MalformedParametersAnswerNGWithoutCallingAModule) {
    first.interfaces.push_back({"usb1"});
    module_list_scope list({&first});
    EXPECT_EQ(run(dypcmd_exec_scanner_connect, make_request(text_bytes("EXEC SCANNER CONNECT"))),
              NG);
    connect_args bad_format, bad_length;
    bad_format.format = 2;
    bad_length.addr_len = 4;
    EXPECT_EQ(connect(bad_format), NG);
    EXPECT_EQ(connect(bad_length), NG);
    EXPECT_EQ(disconnect(bad_format), NG);
    // A parameter block running into non-NUL garbage up to the packet end.
    std::vector<uint8_t> request(510, 'x');
    std::vector<uint8_t> name = text_bytes(std::string(76, 'A') + ":\x01\x06");
    memcpy(request.data() + 4, name.data(), name.size());
    request[83] = 0; // the request handler always ends the name field
    EXPECT_EQ(run(dypcmd_exec_scanner_connect, request), NG);
    EXPECT_EQ(first.info_calls, 0);
    EXPECT_TRUE(first.disconnect_calls.empty());
}

TEST_F(ScannerCommand, ConnectFillsTheExtendedRecord) {
    first.interfaces.push_back({"abcdefghijklmno"});
    module_list_scope list({&first});
    connect_args a;
    a.options = 0x03;
    a.ifname = "abcdefghijklmnopqrst"; // cut to 15 characters
    ASSERT_EQ(connect(a), OK);
    ASSERT_EQ(first.connect_ex_calls.size(), 1u);
    const dypd_ds_connect_param_ex &p = first.connect_ex_calls[0];
    EXPECT_EQ(p.size, 172u);
    EXPECT_STREQ(p.name, "abcdefghijklmno");
    uint16_t family;
    memcpy(&family, p.host_addr, 2);
    EXPECT_EQ(family, AF_INET);
    EXPECT_EQ(port_of(p.host_addr), 19540); // zero port bytes stand for 19540
    EXPECT_EQ(0, memcmp(p.host_addr + 4, a.ipv4, 4));
    EXPECT_EQ(0, memcmp(p.host_mac, a.mac, 6));
    EXPECT_EQ(p.opt_b1, 1);
    EXPECT_EQ(p.opts, 0x03);
    EXPECT_STREQ(p.ifname, "lo");
    a.port[0] = 5000 >> 8;
    a.port[1] = 5000 & 0xff;
    ASSERT_EQ(connect(a), OK);
    EXPECT_EQ(port_of(first.connect_ex_calls.at(1).host_addr), 5000);
}

TEST_F(ScannerCommand, WithoutTheExtendedSlotThePlainRecordGetsTheOptionBits) {
    first.interfaces.push_back({"usb1"});
    first.get()->connect_ex = nullptr;
    module_list_scope list({&first});
    connect_args a;
    a.options = 0x03;
    ASSERT_EQ(connect(a), OK);
    ASSERT_EQ(first.connect_calls.size(), 1u);
    EXPECT_EQ(first.connect_calls[0].opt_b1, 1);
    EXPECT_EQ(first.connect_calls[0].opt_b0, 1);
    EXPECT_EQ(0, memcmp(first.connect_calls[0].host_mac, a.mac, 6));
}

TEST_F(ScannerCommand, TheFirstModuleServingTheInterfaceDecides) {
    second.interfaces.push_back({"usb1"});
    second.connect_result = -EBUSY;
    {
        module_list_scope list({&first, &second}); // first: -ENODEV
        log_capture log;
        session.ifindex = 99999; // a local interface without a name
        EXPECT_EQ(connect(), NG);
        EXPECT_TRUE(first.connect_ex_calls.empty());
        EXPECT_STREQ(second.connect_ex_calls.at(0).ifname, "");
        EXPECT_EQ(log.count(LOG_WARNING, "no interface #99999\n"), 1);
        EXPECT_EQ(log.count(LOG_ERR, "cannot connect an interface usb1 module second (err: -16)"),
                  1);
    }
    first.interfaces.push_back({"usb1", -EIO});
    session.ifindex = 1;
    module_list_scope list({&first, &second});
    log_capture log;
    EXPECT_EQ(connect(), NG);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get an interface info module first (err: -5)"), 1);
    first.interfaces[0].info_result = -ENOENT;
    EXPECT_EQ(connect(), NG);
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(second.connect_ex_calls.size(), 1u); // never reached again
}

TEST_F(ScannerCommand, ConnectAnswersNGWhenMemoryRunsOut) {
    first.interfaces.push_back({"usb1"});
    module_list_scope list({&first});
    dyp_alloc_fail_after(1);
    EXPECT_EQ(connect(), NG);
    dyp_alloc_fail_after(0);
    EXPECT_TRUE(first.connect_ex_calls.empty());
}

TEST_F(ScannerCommand, DisconnectTriesEveryModuleAndAnswersWithTheLastResult) {
    connect_args a;
    a.port[0] = 5000 >> 8;
    a.port[1] = 5000 & 0xff;
    first.disconnect_result = -EIO;
    {
        module_list_scope list({&first, &second});
        log_capture log;
        EXPECT_EQ(disconnect(a), OK);
        EXPECT_EQ(log.count(LOG_ERR, "cannot disconnect an interface usb1 module first (err: -5)"),
                  1);
        EXPECT_EQ(log.lines().size(), 1u);
        EXPECT_STREQ(second.disconnect_calls.at(0).name, "usb1");
        EXPECT_EQ(port_of(second.disconnect_calls[0].host_addr), 19540); // never the requested
    }
    first.disconnect_result = -ENODEV;
    second.disconnect_result = -EIO;
    {
        module_list_scope list({&second, &first}); // the quiet -ENODEV comes last
        EXPECT_EQ(disconnect(), NG);
    }
    second.get()->disconnect = nullptr;
    first.get()->disconnect = nullptr;
    module_list_scope list({&first, &second});
    EXPECT_EQ(disconnect(), NG);
}

} // namespace
