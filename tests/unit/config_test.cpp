#include "daemon/dypd_priv.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "lib/alloc.h"
#include "lib/cfgctrl.h"

namespace {

const char command_line_list[] = "eth0";

// Settings as start-up leaves them before the file, and a file to load.
class ConfigFile : public ::testing::Test {
  protected:
    void SetUp() override { reset(); }
    void TearDown() override {
        release();
        (void)unlink(path.c_str());
    }
    void reset() {
        settings = dypd_settings{};
        settings.config_path = path.c_str();
        settings.bind_interfaces = network_interface_name;
        settings.ports = default_ports;
        settings.port_count = 2;
        settings.primary_port = 19540;
        strcpy(settings.identity.product_name, "TQ Mirel 70");
        strcpy(settings.identity.host_name, "box");
    }
    void release() {
        if (settings.bind_interfaces != network_interface_name &&
            settings.bind_interfaces != command_line_list)
            tq_cfg_release_string(const_cast<char *>(settings.bind_interfaces));
        if (settings.ports != default_ports)
            dyp_free(settings.ports);
    }
    int load(const std::string &text) {
        std::ofstream(path, std::ios::binary) << text;
        return dypd_configfile_load(&settings);
    }
    std::string ports() const {
        std::string text;
        for (int i = 0; i < settings.port_count; ++i)
            text += std::to_string(settings.ports[i]) + ";";
        return text;
    }

    std::string path = "/tmp/dypd-config-" + std::to_string(getpid());
    dypd_settings settings{};
};

} // namespace

TEST_F(ConfigFile, AppliesEveryKeyAsWrittenOutsideAnySection) {
    ASSERT_EQ(load("product= Scanner Hub\nhostname=abcdefghijklmnopqrst\nnetif= eth0,!br1\n"
                   "portnum= 1000, 1001,,0x4c54,070\nds_port= 1001\n[x]\nproduct=inside\n"),
              0);
    // A blank after '=' stays in text values; numbers skip it.
    EXPECT_STREQ(settings.identity.product_name, " Scanner Hub");
    EXPECT_STREQ(settings.identity.host_name, "abcdefghijklmno");
    EXPECT_STREQ(settings.bind_interfaces, " eth0,!br1");
    EXPECT_EQ(ports(), "1000;1001;19540;56;");
    EXPECT_EQ(settings.primary_port, 1001);
    settings.config_path = nullptr;
    EXPECT_EQ(dypd_configfile_load(&settings), 0);
    settings.config_path = "/nonexistent/dypd.conf";
    EXPECT_EQ(dypd_configfile_load(&settings), -ENOENT);
}

TEST_F(ConfigFile, MissingAndEmptyValuesKeepTheSettings) {
    ASSERT_EQ(load("product=\nhostname=\nnetif=\nportnum=\nds_port=\n"), 0);
    EXPECT_STREQ(settings.identity.product_name, "TQ Mirel 70");
    EXPECT_STREQ(settings.identity.host_name, "box");
    EXPECT_EQ(settings.bind_interfaces, network_interface_name);
    EXPECT_EQ(settings.ports, default_ports);
    EXPECT_EQ(load("portnum=\nds_port=7\n"), 0);
    EXPECT_EQ(settings.primary_port, 7) << "an empty port list goes on to ds_port";
}

TEST_F(ConfigFile, NumberRules) {
    const struct {
        const char *text;
        int result;
        const char *ports;
        int primary;
    } cases[] = {
        {"portnum=19540, 19541\nds_port=0x4c55\n", 0, "19540;19541;", 19541},
        {"portnum=85076,-1\nds_port=85076\n", 0, "85076;-1;", 85076}, // no range check
        {"portnum=19540,abc\nds_port=1\n", 0, "19540;19541;", 19540}, // ds_port unread
        {"product=x\nportnum=1,99999999999\nds_port=1\n", -ERANGE, "19540;19541;", 19540},
        {"portnum=-99999999999\n", -ERANGE, "19540;19541;", 19540},
        {"ds_port=12ab\n", 0, "19540;19541;", 19540},
        {"ds_port=019\n", 0, "19540;19541;", 19540}, // not an octal number
        {"ds_port=4294967296\n", -ERANGE, "19540;19541;", 19540},
    };
    for (const auto &c : cases) {
        release();
        reset();
        EXPECT_EQ(load(c.text), c.result) << c.text;
        EXPECT_EQ(ports(), c.ports) << c.text;
        EXPECT_EQ(settings.primary_port, c.primary) << c.text;
    }
    release();
    reset();
    ASSERT_EQ(load("product=x\nportnum=1,99999999999\n"), -ERANGE);
    EXPECT_STREQ(settings.identity.product_name, "x") << "a failure keeps earlier steps";
}

TEST_F(ConfigFile, CommandLineBindListWinsAndTheFileIsReadForItOnce) {
    settings.bind_interfaces = command_line_list;
    ASSERT_EQ(load("netif=br1\n"), 0);
    EXPECT_EQ(settings.bind_interfaces, command_line_list);
    reset();
    ASSERT_EQ(load("product=one\nnetif=eth0\n"), 0);
    const char *first_list = settings.bind_interfaces;
    ASSERT_EQ(load("product=two\nnetif=eth1\n"), 0);
    EXPECT_STREQ(settings.identity.product_name, "two") << "a reload renames at once";
    EXPECT_EQ(settings.bind_interfaces, first_list);
}

TEST_F(ConfigFile, LongPortListsFitTheListMadeForThem) {
    std::string many_ports;
    for (int i = 1; i <= 500; ++i)
        many_ports += std::to_string(i % 10) + ",";
    ASSERT_EQ(load("portnum=" + many_ports + "\n"), 0);
    ASSERT_EQ(settings.port_count, 500);
    EXPECT_EQ(settings.ports[499], 0);
}
