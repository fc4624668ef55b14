#include "daemon/dypd_priv.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "lib/alloc.h"
#include "lib/cfgctrl.h"
#include "lib/tqstdio.h"
#include "support/time_limit.h"

int dypd_main(int argc, char **argv);

namespace {

const char command_line_list[] = "eth0";

// Settings as start-up leaves them before the file, and a file to load.
class ConfigFile : public ::testing::Test {
  protected:
    ConfigFile() { reset(); }
    ~ConfigFile() override {
        reset();
        (void)unlink(path.c_str());
    }
    // Frees what earlier loads allocated and restores the settings before the file.
    void reset() {
        dypd_configfile_release(&settings);
        settings = {.config_path = path.c_str(),
                    .bind_interfaces = network_interface_name,
                    .ports = default_ports,
                    .port_count = 2,
                    .primary_port = 19540};
    }
    int load(const std::string &text) {
        std::ofstream(path) << text;
        return dypd_configfile_load(&settings);
    }
    // What the file sets, as "product|host name|bind list|port,port,|primary port".
    std::string summary() const {
        std::string text = std::string(settings.identity.product_name) + "|" +
                           settings.identity.host_name + "|" + settings.bind_interfaces + "|";
        for (int i = 0; i < settings.port_count; ++i)
            text += std::to_string(settings.ports[i]) + ",";
        return text + "|" + std::to_string(settings.primary_port);
    }

    // Runs the program's start-up on `path` in debug mode; its standard error.
    std::string start_up() {
        char name[] = "dypd", debug[] = "-d", file[] = "-f";
        char *argv[] = {name, debug, file, path.data()};
        optind = 0;
        testing::internal::CaptureStderr();
        EXPECT_EQ(dypd_main(4, argv), 1);
        return testing::internal::GetCapturedStderr();
    }

    std::string path = "/tmp/dypd-config-" + std::to_string(getpid());
    dypd_settings settings{};
};

} // namespace

// A blank after '=' stays in text values; numbers skip it. There is no range
// check but the conversion's own.
TEST_F(ConfigFile, AppliesEveryKeyOutsideAnySectionByItsRules) {
    const struct {
        const char *text;
        int result;
        const char *summary;
    } cases[] = {
        {"product= Scanner Hub\nhostname=abcdefghijklmnopqrst\nnetif= eth0,!br1\n"
         "portnum= 1000, 1001,,0x4c54,070\nds_port= 1001\n[x]\nproduct=inside\n",
         0, " Scanner Hub|abcdefghijklmno| eth0,!br1|1000,1001,19540,56,|1001"},
        {"netif=\n", 0, "||*|19540,19541,|19540"}, // an empty netif is no list
        {"portnum=19550, 19551\nds_port=0x4c55\n", 0, "||*|19550,19551,|19541"},
        {"portnum=0x4c54\n", 0, "||*|19540,|19540"},
        {"portnum=,19550,,\n", 0, "||*|19550,|19540"}, // empty pieces are skipped
        {"portnum=,,\nds_port=9\n", 0, "||*|19540,19541,|9"},
        {"portnum=85076,-1\nds_port=85076\n", 0, "||*|85076,-1,|85076"},
        {"portnum=19550,abc\nds_port=1\n", 0, "||*|19540,19541,|19540"}, // ds_port unread
        {"portnum=\nds_port=7\n", 0, "||*|19540,19541,|7"},
        {"portnum=1,99999999999\nds_port=1\n", -ERANGE, "||*|19540,19541,|19540"},
        {"ds_port=019\n", 0, "||*|19540,19541,|19540"}, // not an octal number
        {"ds_port=4294967296\n", -ERANGE, "||*|19540,19541,|19540"},
        // A piece of a port list is no line of its own.
        {"portnum=19550,ds_port=7\n", 0, "||*|19540,19541,|19540"},
        {"portnum=19550,\rds_port=7", 0, "||*|19550,|7"}, // CR ends a line, so does the end
        {"netif=br0\n\n\rproduct=last", 0, "last||br0|19540,19541,|19540"},
    };
    for (const auto &c : cases) {
        reset();
        EXPECT_EQ(load(c.text), c.result) << c.text;
        EXPECT_EQ(summary(), c.summary) << c.text;
        ASSERT_EQ(load("product=\nhostname=\nnetif=\nportnum=\nds_port=\n"), 0);
        EXPECT_EQ(summary(), c.summary) << "empty values change nothing after " << c.text;
    }
    // netif is read only while it has its default: a list from -i wins.
    settings.bind_interfaces = command_line_list;
    ASSERT_EQ(load("netif=br1\n"), 0);
    EXPECT_EQ(settings.bind_interfaces, command_line_list);
    settings.config_path = "/nonexistent/dypd.conf";
    EXPECT_EQ(dypd_configfile_load(&settings), -ENOENT);
}

// A daemon reloads on every hang-up for as long as it runs: the lists a
// load makes must not pile up, and at exit nothing the loader kept remains.
TEST_F(ConfigFile, ReloadsReplaceTheirListsAndTheLoaderKeepsNothingAfterRelease) {
    const long before = dyp_alloc_live();
    ASSERT_EQ(load("netif=eth0\nportnum=19550,19551\n"), 0);
    const long loaded = dyp_alloc_live();
    EXPECT_EQ(loaded, before + 2) << "the port list and the netif value";
    for (int reload = 0; reload < 1000; ++reload)
        ASSERT_EQ(dypd_configfile_load(&settings), 0);
    EXPECT_EQ(dyp_alloc_live(), loaded);
    EXPECT_EQ(summary(), "||eth0|19550,19551,|19540");
    dypd_configfile_release(&settings);
    EXPECT_EQ(dyp_alloc_live(), before);
    EXPECT_EQ(settings.bind_interfaces, network_interface_name);

    // The same at the exit of the program, here after a refused configuration.
    std::ofstream(path) << "netif=eth0\nportnum=19550\nds_port=99999999999\n";
    EXPECT_EQ(start_up(), "Detected invalid configuration\n");
    EXPECT_EQ(dyp_alloc_live(), before);
}

// A FIFO as the file (opening it waits for a writer) must not hold
// start-up: it is refused and said so.
TEST_F(ConfigFile, AFileThatCouldNeverEndIsRefusedAndSaidSo) {
    (void)unlink(path.c_str());
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const std::string said = "the config file " + path + " is not a regular file of at most " +
                             std::to_string(TQ_CONFIG_MAX_SIZE) +
                             " bytes\nDetected invalid configuration\n";
    EXPECT_EQ(run_with_time_limit([&] { return start_up() == said ? 0 : -EPROTO; }), 0);
}
