// dypd-config run on files: what it prints must be what the daemon's loader
// makes of them, and every value the loader drops must be reported.
#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>

#include "support/sim_testbed.h"

namespace {

const std::string TOOL = DYPTEST_EMULATOR DYPD_CONFIG_BINARY;
const std::string CONF = "/tmp/dypd-config-test-" + std::to_string(getpid()) + ".conf";

// dypd-config on a file holding `text`: its settings on standard output, notes on standard error.
finished_run check_text(const std::string &text, const std::string &options = "") {
    std::ofstream(CONF) << text;
    finished_run run = run_to_end(TOOL + " " + options + " -f " + CONF);
    (void)unlink(CONF.c_str());
    return run;
}

// The settings block without its first line, which names the file.
std::string settings_only(const std::string &printout) {
    size_t from = printout.find("Product");
    return from == std::string::npos ? printout : printout.substr(from);
}

} // namespace

TEST(DypdConfig, ShippedExampleGivesTheBuiltInDefaultsWithoutANote) {
    std::string example = read_text_file(DYPTEST_SOURCE_DIR "/packaging/dypd.conf");
    ASSERT_FALSE(example.empty());
    finished_run shipped = check_text(example);
    finished_run empty = check_text("");
    EXPECT_EQ(shipped.status, 0) << shipped.err;
    EXPECT_EQ(shipped.err, "");
    EXPECT_EQ(settings_only(shipped.out), settings_only(empty.out));
    EXPECT_NE(shipped.out.find("Product            = TQ Mirel 70\n"), std::string::npos);
    EXPECT_NE(shipped.out.find("   ( 2)UDP Port    = 19541\n"), std::string::npos);
}

// Exit 1 with one note for every value the loader drops, 2 for files the
// daemon refuses; the printout is what the loader keeps, and -i wins over
// the file as on the daemon's command line.
TEST(DypdConfig, ReportsEveryDroppedValueOnceAndPrintsWhatTheLoaderKeeps) {
    const struct {
        std::string text, options;
        int status;
        std::vector<std::string> found; // in standard output for status 0, else in the note
    } cases[] = {
        {"prodcut=x\n", "", 1, {"unknown key \"prodcut\" is ignored"}},
        {"[box]\nhostname=y\n", "", 1, {"\"hostname\" in section [box] is ignored"}},
        {"product=first\nproduct=second\n", "", 1, {"product is given again"}},
        {"product=A very long product\n", "", 1, {"first 15 characters: \"A very long pro\""}},
        {"hostname= box\n", "", 1, {"the blank after '=' becomes part of the value \" box\""}},
        {"portnum=19540,abc\n", "", 1, {"portnum piece \"abc\" is not a number"}},
        {"ds_port=19540x\n", "", 1, {"ds_port \"19540x\" is not a whole number"}},
        {"portnum=85076\nds_port=85076\n", "", 1, {"85076 is not a UDP port: the daemon binds"}},
        {"netif=lo\n", "", 1, {"interface list \"lo\" answers on every interface"}},
        {"netif=nosuch0,!*\n", "", 1, {"interface \"nosuch0\" does not exist here"}},
        {"ds_port=99999999999\n", "", 2, {"error: "}},            // out of range: the loader fails
        {"portnum=19540,19541\nds_port=5\n", "", 2, {"error: "}}, // two ports, neither primary
        {"#product=commented\nproduct=Scan Box\nportnum=0x4c54, 19541\nds_port=19541\n"
         "netif=lo,!*\n",
         "",
         0,
         {"Product            = Scan Box\n",
          "   ( 1)UDP Port    = 19540\n   ( 2)UDP Port    = 19541\n", "Answers on         = lo\n"}},
        {"netif=lo,!*\n", "-i '!lo'", 0, {"Bind Interface     = !lo\n"}},
    };
    for (const auto &c : cases) {
        finished_run run = check_text(c.text, c.options);
        EXPECT_EQ(run.status, c.status) << c.text << run.err;
        const std::string &said = c.status == 0 ? run.out : run.err;
        for (const std::string &part : c.found)
            EXPECT_NE(said.find(part), std::string::npos) << c.text << said;
        if (c.status == 1)
            EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << c.text << run.err;
    }
    EXPECT_EQ(check_text("netif=lo,!*\n", "-i '!lo'").out.find("Answers on         = lo"),
              std::string::npos);
    EXPECT_EQ(run_shell(TOOL + " -f /nonexistent/dypd.conf 2>/dev/null"), 2);
}
