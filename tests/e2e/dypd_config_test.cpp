// dypd-config run on files: what it prints must be what the daemon's loader
// makes of them, and every value the loader drops must be reported.
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/netns.h"
#include "support/sim_testbed.h"

namespace {

const std::string TOOL = DYPTEST_EMULATOR DYPD_CONFIG_BINARY;
const std::string SCRATCH = "/tmp/dypd-config-test-" + std::to_string(getpid());

struct checked {
    int status;
    std::string settings; // standard output
    std::string notes;    // standard error
};

checked check_text(const std::string &text, const std::string &options = "") {
    std::ofstream(SCRATCH + ".conf") << text;
    std::string status = run_shell_output(TOOL + " " + options + " -f " + SCRATCH + ".conf >" +
                                          SCRATCH + ".out 2>" + SCRATCH + ".err; echo $?");
    checked run{std::atoi(status.c_str()), read_text_file(SCRATCH + ".out"),
                read_text_file(SCRATCH + ".err")};
    (void)run_shell("rm -f " + SCRATCH + ".conf " + SCRATCH + ".out " + SCRATCH + ".err");
    return run;
}

// The settings block without its first line, which names the file.
std::string settings_only(const std::string &printout) {
    size_t from = printout.find("Product");
    return from == std::string::npos ? printout : printout.substr(from);
}

int count_lines(const std::string &text) {
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

} // namespace

TEST(DypdConfig, ShippedExampleGivesTheBuiltInDefaultsWithoutANote) {
    std::string example = read_text_file(DYPTEST_SOURCE_DIR "/packaging/dypd.conf");
    ASSERT_FALSE(example.empty());
    checked shipped = check_text(example);
    checked empty = check_text("");
    EXPECT_EQ(shipped.status, 0) << shipped.notes;
    EXPECT_EQ(shipped.notes, "");
    EXPECT_EQ(settings_only(shipped.settings), settings_only(empty.settings));
    EXPECT_NE(shipped.settings.find("Product            = TQ Mirel 70\n"), std::string::npos);
    EXPECT_NE(shipped.settings.find("   ( 2)UDP Port    = 19541\n"), std::string::npos);
}

TEST(DypdConfig, EveryValueTheLoaderDropsIsReportedOnce) {
    struct {
        const char *text, *note;
    } cases[] = {
        {"prodcut=x\n", "unknown key \"prodcut\" is ignored"},
        {"[box]\nhostname=y\n", "\"hostname\" in section [box] is ignored"},
        {"product=first\nproduct=second\n", "product is given again"},
        {"product=A very long product\n", "cut to its first 15 characters: \"A very long pro\""},
        {"hostname= box\n", "the blank after '=' becomes part of the value \" box\""},
        {"portnum=19540,abc\n", "portnum piece \"abc\" is not a number"},
        {"ds_port=19540x\n", "ds_port \"19540x\" is not a whole number"},
        {"portnum=85076\nds_port=85076\n", "port 85076 is not a UDP port: the daemon binds 19540"},
        {"netif=lo\n", "interface list \"lo\" answers on every interface"},
        {"netif=nosuch0,!*\n", "interface \"nosuch0\" does not exist here"},
    };
    for (const auto &c : cases) {
        checked run = check_text(c.text);
        EXPECT_EQ(run.status, 1) << c.text << run.notes;
        EXPECT_EQ(count_lines(run.notes), 1) << c.text << run.notes;
        EXPECT_NE(run.notes.find(c.note), std::string::npos) << c.text << run.notes;
    }
}

TEST(DypdConfig, PrintsWhatTheLoaderKeeps) {
    checked run = check_text("#product=commented\nproduct=Scan Box\nportnum=0x4c54, 19541\n"
                             "ds_port=19541\nnetif=lo,!*\n");
    EXPECT_EQ(run.status, 0) << run.notes;
    EXPECT_NE(run.settings.find("Product            = Scan Box\n"), std::string::npos);
    EXPECT_NE(run.settings.find("   ( 1)UDP Port    = 19540\n   ( 2)UDP Port    = 19541\n"),
              std::string::npos)
        << run.settings;
    EXPECT_NE(run.settings.find("Answers on         = lo\n"), std::string::npos) << run.settings;
    // -i wins over the file, as on the daemon's command line.
    checked overridden = check_text("netif=lo,!*\n", "-i '!lo'");
    EXPECT_NE(overridden.settings.find("Bind Interface     = !lo\n"), std::string::npos);
    EXPECT_EQ(overridden.settings.find("Answers on         = lo"), std::string::npos);
}

TEST(DypdConfig, FilesTheDaemonRefusesExitTwo) {
    const char *refused[] = {
        "ds_port=99999999999\n",           // out of range: the loader fails
        "portnum=19540,19541\nds_port=5\n", // two ports, neither primary
    };
    for (const char *text : refused) {
        checked run = check_text(text);
        EXPECT_EQ(run.status, 2) << text;
        EXPECT_NE(run.notes.find("error: "), std::string::npos) << text;
    }
    EXPECT_EQ(run_shell(TOOL + " -f /nonexistent/dypd.conf 2>/dev/null"), 2);
}
