#include <sys/socket.h>

#include "support/fake_ds_module.h"

namespace {

// The parameter block after the ':': format 1, MAC length 6, MAC, IPv4,
// interface name, port (network order), options.
std::string params(const std::string &ifname = "usb1", const std::string &port = "\0\0"s,
                   char options = 0, const std::string &head = "\x01\x06"s) {
    return ":" + head + "\x02\x11\x22\x33\x44\x55\xC0\x00\x02\x09"s + ifname + '\0' + port +
           options;
}

uint16_t port_of(const uint8_t *host_addr) {
    return static_cast<uint16_t>(host_addr[2] << 8 | host_addr[3]);
}

class ScannerConnect : public ::testing::Test {
  protected:
    std::string run(dypcmd_handler handler, const std::vector<uint8_t> &request) {
        int32_t n = handler(&session, request.data(), out, sizeof out);
        return std::string(reinterpret_cast<char *>(out), std::max(n, 0));
    }
    std::string connect(const std::string &block = params()) {
        return run(dypcmd_exec_scanner_connect, make_request("EXEC SCANNER CONNECT" + block));
    }
    std::string disconnect(const std::string &block = params()) {
        return run(dypcmd_exec_scanner_disconnect, make_request("EXEC SCANNER DISCONNECT" + block));
    }

    const std::string OK = "OK\0"s, NG = "NG\0"s;
    dypd_session session{nullptr, 0, nullptr, nullptr, 1}; // ifindex 1: loopback
    uint8_t out[64] = {};
    fake_module first{"first"}, second{"second"};
};

TEST_F(ScannerConnect, MalformedParametersAnswerNGWithoutAskingAModule) {
    first.interfaces.push_back({"usb1"});
    module_list_scope list({&first});
    // A parameter block running into non-NUL garbage up to the packet end.
    std::vector<uint8_t> garbage(510, 'x');
    memcpy(garbage.data() + 4, (std::string(76, 'A') + ":\x01\x06").data(), 79);
    garbage[83] = 0; // the request handler always ends the name field
    const struct {
        const char *name;
        std::string block;
    } cases[] = {{"no parameters", ""},
                 {"format 2", params("usb1", "\0\0"s, 0, "\x02\x06")},
                 {"address length 4", params("usb1", "\0\0"s, 0, "\x01\x04")}};
    for (const auto &c : cases) {
        EXPECT_EQ(connect(c.block), NG) << c.name;
        EXPECT_EQ(disconnect(c.block), NG) << c.name;
    }
    EXPECT_EQ(run(dypcmd_exec_scanner_connect, garbage), NG);
    EXPECT_EQ(first.info_calls, 0);
    EXPECT_TRUE(first.disconnect_calls.empty());
}

TEST_F(ScannerConnect, TheExtendedRecordOrElseThePlainOneCarriesTheRequest) {
    first.interfaces.push_back({"abcdefghijklmno"});
    module_list_scope list({&first});
    ASSERT_EQ(connect(params("abcdefghijklmnopqrst", "\0\0"s, 0x03)), OK); // name cut to 15
    ASSERT_EQ(first.connect_ex_calls.size(), 1u);
    const dypd_ds_connect_param_ex &p = first.connect_ex_calls[0];
    EXPECT_EQ(p.size, 172u);
    EXPECT_STREQ(p.name, "abcdefghijklmno");
    uint16_t family;
    memcpy(&family, p.host_addr, 2);
    EXPECT_EQ(family, AF_INET);
    EXPECT_EQ(port_of(p.host_addr), 19540); // zero port bytes stand for 19540
    EXPECT_EQ(0, memcmp(p.host_addr + 4, "\xC0\x00\x02\x09", 4));
    EXPECT_EQ(0, memcmp(p.host_mac, "\x02\x11\x22\x33\x44\x55", 6));
    EXPECT_EQ(p.opt_b1, 1);
    EXPECT_EQ(p.opts, 0x03);
    EXPECT_STREQ(p.ifname, "lo");
    ASSERT_EQ(connect(params("abcdefghijklmno", "\x13\x88", 0x03)), OK);
    EXPECT_EQ(port_of(first.connect_ex_calls.at(1).host_addr), 5000);

    first.get()->connect_ex = nullptr;
    ASSERT_EQ(connect(params("abcdefghijklmno", "\0\0"s, 0x03)), OK);
    ASSERT_EQ(first.connect_calls.size(), 1u);
    EXPECT_EQ(first.connect_calls[0].opt_b1, 1);
    EXPECT_EQ(first.connect_calls[0].opt_b0, 1);
    EXPECT_EQ(0, memcmp(first.connect_calls[0].host_mac, p.host_mac, 6));
}

TEST_F(ScannerConnect, TheFirstModuleServingTheInterfaceDecides) {
    second.interfaces.push_back({"usb1"});
    second.connect_result = -EBUSY;
    first.interfaces.push_back({"usb1", -ENODEV});
    module_list_scope list({&first, &second});
    log_capture log;
    session.ifindex = 99999; // a local interface without a name
    EXPECT_EQ(connect(), NG);
    EXPECT_TRUE(first.connect_ex_calls.empty());
    EXPECT_STREQ(second.connect_ex_calls.at(0).ifname, "");
    EXPECT_EQ(log.count(LOG_WARNING, "no interface #99999\n"), 1);
    EXPECT_EQ(log.count(LOG_ERR, "cannot connect an interface usb1 module second (err: -16)"), 1);
    session.ifindex = 1;
    log.clear();
    first.interfaces[0].info_result = -EIO;
    EXPECT_EQ(connect(), NG);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get an interface info module first (err: -5)"), 1);
    first.interfaces[0].info_result = -ENOENT;
    EXPECT_EQ(connect(), NG);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(connect(), NG);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(second.connect_ex_calls.size(), 1u); // never reached again
}

TEST_F(ScannerConnect, DisconnectTriesEveryModuleAndAnswersWithTheLastResult) {
    first.disconnect_result = -EIO;
    {
        module_list_scope list({&first, &second});
        log_capture log;
        EXPECT_EQ(disconnect(params("usb1", "\x13\x88")), OK);
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
    second.get()->disconnect = first.get()->disconnect = nullptr;
    module_list_scope list({&first, &second});
    EXPECT_EQ(disconnect(), NG);
}

} // namespace
