#include <sys/socket.h>

#include "support/fake_ds_module.h"

// The parameter block after the ':': format 1, MAC length 6, MAC, IPv4,
// interface name, port (network order), options.
static std::string params(const std::string &ifname = "usb1", const std::string &port = "\0\0"s,
                          char options = 0, const std::string &head = "\x01\x06"s) {
    return ":" + head + "\x02\x11\x22\x33\x44\x55\xC0\x00\x02\x09"s + ifname + '\0' + port +
           options;
}

// The socket address of 192.0.2.9 with the port bytes `port`, as modules get it.
static std::string host_addr(const char *port) {
    const uint16_t family = AF_INET;
    return std::string(reinterpret_cast<const char *>(&family), 2) + port + "\xC0\x00\x02\x09"s +
           std::string(120, '\0');
}

template <typename T> static std::string bytes(const T &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
}

class ScannerConnect : public ::testing::Test {
  protected:
    std::string run(const std::string &command, const std::string &block = params()) {
        return run_command(command == CONNECT ? dypcmd_exec_scanner_connect
                                              : dypcmd_exec_scanner_disconnect,
                           &session, command + block);
    }

    const std::string CONNECT = "EXEC SCANNER CONNECT", DISCONNECT = "EXEC SCANNER DISCONNECT";
    const std::string OK = "OK\0"s, NG = "NG\0"s;
    dypd_session session{nullptr, 0, nullptr, nullptr, 1}; // ifindex 1: loopback
    fake_module first{"first"}, second{"second"};
};

TEST_F(ScannerConnect, MalformedParametersAnswerNGWithoutAskingAModule) {
    first.interfaces.push_back({"usb1"});
    module_list_scope list({&first});
    const std::string bad_blocks[] = {"", params("usb1", "\0\0"s, 0, "\x02\x06"),
                                      params("usb1", "\0\0"s, 0, "\x01\x04")};
    for (const std::string &block : bad_blocks) {
        EXPECT_EQ(run(CONNECT, block), NG) << block.size();
        EXPECT_EQ(run(DISCONNECT, block), NG) << block.size();
    }
    // A parameter block running into non-NUL garbage up to the packet end.
    EXPECT_EQ(run_command(dypcmd_exec_scanner_connect, &session, std::string(76, 'A') + ":\x01\x06",
                          std::string(422, 'x')),
              NG);
    EXPECT_EQ(first.info_calls, 0);
    EXPECT_TRUE(first.disconnect_calls.empty());
}

TEST_F(ScannerConnect, TheExtendedRecordOrElseThePlainOneCarriesTheRequest) {
    first.interfaces.push_back({"abcdefghijklmno"});
    module_list_scope list({&first});
    ASSERT_EQ(run(CONNECT, params("abcdefghijklmnopqrst", "\0\0"s, 0x03)), OK); // cut to 15
    ASSERT_EQ(run(CONNECT, params("abcdefghijklmno", "\x13\x88", 0x02)), OK);
    dypd_ds_connect_param_ex ex{
        172, "abcdefghijklmno", {}, {2, 0x11, 0x22, 0x33, 0x44, 0x55}, 1, 0x03, "lo"};
    memcpy(ex.host_addr, host_addr("\x4c\x54").data(), 128); // zero port bytes: 19540
    EXPECT_EQ(bytes(first.connect_ex_calls.at(0)), bytes(ex));
    EXPECT_EQ(bytes(first.connect_ex_calls.at(1).host_addr), host_addr("\x13\x88"));
    first.get()->connect_ex = nullptr;
    ASSERT_EQ(run(CONNECT, params("abcdefghijklmno", "\0\0"s, 0x01)), OK);
    dypd_ds_connect_param plain{"abcdefghijklmno", {}, {2, 0x11, 0x22, 0x33, 0x44, 0x55}, 0, 1};
    memcpy(plain.host_addr, ex.host_addr, 128);
    EXPECT_EQ(bytes(first.connect_calls.at(0)), bytes(plain));
}

TEST_F(ScannerConnect, WithoutModulesBothAnswerNG) {
    EXPECT_EQ(run(CONNECT), NG) << "no module list";
    EXPECT_EQ(run(DISCONNECT), NG) << "no module list";
    module_list_scope empty;
    EXPECT_EQ(run(CONNECT), NG);
    EXPECT_EQ(run(DISCONNECT), NG);
}

TEST_F(ScannerConnect, TheFirstModuleServingTheInterfaceDecides) {
    second.interfaces.push_back({"usb1"});
    second.connect_result = -EBUSY;
    first.interfaces.push_back({"usb1", -ENODEV});
    module_list_scope list({&first, &second});
    log_capture log;
    session.ifindex = 99999; // a local interface without a name
    EXPECT_EQ(run(CONNECT), NG);
    EXPECT_TRUE(first.connect_ex_calls.empty());
    EXPECT_STREQ(second.connect_ex_calls.at(0).ifname, "");
    EXPECT_EQ(log.count(LOG_WARNING, "no interface #99999\n"), 1);
    EXPECT_EQ(module_errors(log, "cannot connect an interface usb1 module second", -EBUSY), 1);
    session.ifindex = 1;
    log.clear();
    first.interfaces[0].info_result = -EIO;
    EXPECT_EQ(run(CONNECT), NG);
    EXPECT_EQ(module_errors(log, "cannot get an interface info module first", -EIO), 1);
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(second.connect_ex_calls.size(), 1u); // never reached again
}

TEST_F(ScannerConnect, DisconnectTriesModulesUntilOneSucceeds) {
    first.disconnect_result = -EIO;
    module_list_scope list({&first, &second});
    log_capture log;
    EXPECT_EQ(run(DISCONNECT, params("usb1", "\x13\x88")), OK);
    EXPECT_EQ(module_errors(log, "cannot disconnect an interface usb1 module first", -EIO), 1);
    EXPECT_STREQ(second.disconnect_calls.at(0).name, "usb1");
    // Never the requested port.
    EXPECT_EQ(bytes(second.disconnect_calls[0].host_addr), host_addr("\x4c\x54"));
    first.disconnect_result = -ENODEV; // quiet
    second.disconnect_result = -EIO;
    EXPECT_EQ(run(DISCONNECT), NG);
    EXPECT_EQ(log.lines().size(), 2u);
    first.disconnect_result = 0;
    EXPECT_EQ(run(DISCONNECT), OK);
    EXPECT_EQ(second.disconnect_calls.size(), 2u);
}
