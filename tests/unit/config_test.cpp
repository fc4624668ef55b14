#include "daemon/dypd_priv.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "lib/alloc.h"
#include "lib/cfgctrl.h"

namespace {

class ConfigFile : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/dypd-config-XXXXXX";
        int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        (void)close(fd);
        path = name;
        settings.config_path = path.c_str();
        settings.bind_interfaces = network_interface_name;
        settings.ports = default_ports;
        settings.port_count = 2;
        settings.primary_port = 19540;
        strcpy(settings.identity.product_name, "TQ Mirel 70");
        strcpy(settings.identity.host_name, "box");
    }
    void TearDown() override {
        if (settings.bind_interfaces != network_interface_name &&
            settings.bind_interfaces != command_line_list)
            tq_cfg_release_string(const_cast<char *>(settings.bind_interfaces));
        if (settings.ports != default_ports)
            dyp_free(settings.ports);
        (void)unlink(path.c_str());
    }

    void write(const std::string &text) {
        FILE *file = fopen(path.c_str(), "wb");
        ASSERT_NE(file, nullptr);
        ASSERT_EQ(fwrite(text.data(), 1, text.size(), file), text.size());
        ASSERT_EQ(fclose(file), 0);
    }

    std::vector<int> ports() const {
        return std::vector<int>(settings.ports, settings.ports + settings.port_count);
    }

    static constexpr const char *command_line_list = "eth0";
    std::string path;
    dypd_settings settings{};
};

} // namespace

TEST_F(ConfigFile, NoPathIsNotAnError) {
    settings.config_path = nullptr;
    EXPECT_EQ(dypd_configfile_load(&settings), 0);
}

TEST_F(ConfigFile, MissingFileIsReported) {
    settings.config_path = "/nonexistent/dypd.conf";
    EXPECT_EQ(dypd_configfile_load(&settings), -ENOENT);
}

TEST_F(ConfigFile, MissingKeysChangeNothing) {
    write("[section]\nproduct=elsewhere\n");
    EXPECT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_STREQ(settings.identity.product_name, "TQ Mirel 70");
    EXPECT_STREQ(settings.identity.host_name, "box");
    EXPECT_EQ(settings.bind_interfaces, network_interface_name);
    EXPECT_EQ(settings.ports, default_ports);
    EXPECT_EQ(settings.primary_port, 19540);
}

TEST_F(ConfigFile, AppliesEveryKey) {
    write("product=Scanner Hub\nhostname=office\nnetif=eth0,!br1\nportnum=1000,1001,1002\n"
          "ds_port=1001\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_STREQ(settings.identity.product_name, "Scanner Hub");
    EXPECT_STREQ(settings.identity.host_name, "office");
    EXPECT_STREQ(settings.bind_interfaces, "eth0,!br1");
    EXPECT_EQ(ports(), (std::vector<int>{1000, 1001, 1002}));
    EXPECT_EQ(settings.primary_port, 1001);
}

TEST_F(ConfigFile, NamesAreCutToFifteenCharacters) {
    write("product=ABCDEFGHIJKLMNOPQRST\nhostname=abcdefghijklmnopqrst\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_STREQ(settings.identity.product_name, "ABCDEFGHIJKLMNO");
    EXPECT_STREQ(settings.identity.host_name, "abcdefghijklmno");
}

TEST_F(ConfigFile, EmptyValuesKeepTheCurrentSettings) {
    write("product=\nhostname=\nnetif=\nportnum=\nds_port=\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_STREQ(settings.identity.product_name, "TQ Mirel 70");
    EXPECT_STREQ(settings.identity.host_name, "box");
    EXPECT_EQ(settings.bind_interfaces, network_interface_name);
    EXPECT_EQ(settings.ports, default_ports);
    EXPECT_EQ(settings.primary_port, 19540);
}

TEST_F(ConfigFile, EmptyPortListStillReadsThePrimaryPort) {
    write("portnum=\nds_port=7\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_EQ(settings.ports, default_ports);
    EXPECT_EQ(settings.primary_port, 7);
}

TEST_F(ConfigFile, BlankAfterEqualsBelongsToTextValuesOnly) {
    write("product= Hub\nhostname = office\nnetif= eth0\nportnum= 19540, 19541\nds_port= 19541\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_STREQ(settings.identity.product_name, " Hub");
    EXPECT_STREQ(settings.identity.host_name, " office");
    EXPECT_STREQ(settings.bind_interfaces, " eth0");
    EXPECT_EQ(ports(), (std::vector<int>{19540, 19541}));
    EXPECT_EQ(settings.primary_port, 19541);
}

TEST_F(ConfigFile, NumbersTakeEveryBase) {
    write("portnum=0x4c54,070,,12\nds_port=0x4c55\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_EQ(ports(), (std::vector<int>{19540, 56, 12})) << "empty pieces are skipped";
    EXPECT_EQ(settings.primary_port, 19541);
}

TEST_F(ConfigFile, NumbersAreNotRangeChecked) {
    write("portnum=85076,-1\nds_port=85076\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_EQ(ports(), (std::vector<int>{85076, -1}));
    EXPECT_EQ(settings.primary_port, 85076);
}

TEST_F(ConfigFile, PortListWithTextSucceedsWithoutChangingAnything) {
    write("portnum=19540,abc\nds_port=1\n");
    EXPECT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_EQ(settings.ports, default_ports);
    EXPECT_EQ(settings.port_count, 2);
    EXPECT_EQ(settings.primary_port, 19540) << "ds_port is left unread";
    write("portnum=19540x\nds_port=1\n");
    EXPECT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_EQ(settings.ports, default_ports);
    EXPECT_EQ(settings.primary_port, 19540);
}

TEST_F(ConfigFile, PortBeyondThirtyTwoBitsIsARangeError) {
    write("product=first\nportnum=1,99999999999\nds_port=1\n");
    EXPECT_EQ(dypd_configfile_load(&settings), -ERANGE);
    EXPECT_STREQ(settings.identity.product_name, "first") << "earlier keys stay applied";
    EXPECT_EQ(settings.ports, default_ports);
    EXPECT_EQ(settings.primary_port, 19540);
    write("portnum=-99999999999\n");
    EXPECT_EQ(dypd_configfile_load(&settings), -ERANGE);
}

TEST_F(ConfigFile, PrimaryPortRules) {
    write("ds_port=12ab\n");
    EXPECT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_EQ(settings.primary_port, 19540);
    write("ds_port= \n");
    EXPECT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_EQ(settings.primary_port, 19540);
    write("ds_port=4294967296\n");
    EXPECT_EQ(dypd_configfile_load(&settings), -ERANGE);
    EXPECT_EQ(settings.primary_port, 19540);
    write("ds_port=019\n");
    EXPECT_EQ(dypd_configfile_load(&settings), 0) << "9 is not an octal digit";
    EXPECT_EQ(settings.primary_port, 19540);
}

TEST_F(ConfigFile, CommandLineBindListWinsOverTheFile) {
    settings.bind_interfaces = command_line_list;
    write("netif=br1\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_EQ(settings.bind_interfaces, command_line_list);
}

TEST_F(ConfigFile, ReloadUpdatesNamesButReadsTheBindListOnce) {
    write("product=one\nnetif=eth0\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    const char *first_list = settings.bind_interfaces;
    write("product=two\nnetif=eth1\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_STREQ(settings.identity.product_name, "two");
    EXPECT_EQ(settings.bind_interfaces, first_list);
    EXPECT_STREQ(settings.bind_interfaces, "eth0");
}

TEST_F(ConfigFile, FirstOccurrenceWinsAndSectionsAreIgnored) {
    write("product=first\nproduct=second\n[other]\nhostname=inside\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_STREQ(settings.identity.product_name, "first");
    EXPECT_STREQ(settings.identity.host_name, "box");
}

TEST_F(ConfigFile, SurvivesBinaryGarbageAndHugeLines) {
    std::string text;
    unsigned state = 12345;
    for (int i = 0; i < 65536; ++i) {
        state = state * 1103515245u + 12345u;
        char byte = static_cast<char>(state >> 16);
        text += byte == '[' ? 'x' : byte; // a header would end the unnamed section
    }
    text += "\n" + std::string(1 << 20, 'k') + "=" + std::string(1 << 20, 'v') + "\n";
    text += "product=" + std::string(100000, 'P') + "\n";
    text += "hostname=ok\xff\x01\n";
    text += "portnum=" + std::string(200000, '1') + "\n";
    write(text);
    EXPECT_EQ(dypd_configfile_load(&settings), -ERANGE);
    EXPECT_STREQ(settings.identity.product_name, "PPPPPPPPPPPPPPP");
    EXPECT_STREQ(settings.identity.host_name, "ok\xff\x01");
    EXPECT_EQ(settings.ports, default_ports);
}

TEST_F(ConfigFile, LongPortListIsTakenWhole) {
    std::string list;
    for (int i = 1; i <= 500; ++i)
        list += std::to_string(i) + ",";
    write("portnum=" + list + "\n");
    ASSERT_EQ(dypd_configfile_load(&settings), 0);
    ASSERT_EQ(settings.port_count, 500);
    EXPECT_EQ(settings.ports[499], 500);
}
