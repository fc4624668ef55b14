#include "protocol/command.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "lib/alloc.h"
#include "support/log_capture.h"

namespace {
// The longer name first, so that it is found before its own prefix.
const dypd_command table[] = {
    {"GET USB_DEVICE_LIST_EX", DYPD_XFER_READ, nullptr},
    {"GET USB_DEVICE_LIST", DYPD_XFER_READ, nullptr},
    {"GET SCANNER_STATUS", DYPD_XFER_READ, nullptr},
    {"EXEC SCANNER CONNECT", DYPD_XFER_EXEC, nullptr},
};

class CommandTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(dypd_command_init(), 0); }
    void TearDown() override { dypd_command_cleanup(); }
    // The registered names, then every logged line with its priority.
    std::string registry_and_log() const {
        std::string out;
        tqlist_for_each(dypd_cmdlist, [&](const dypd_command *c) {
            out += std::string(c->name) + ";";
            return true;
        });
        for (const auto &line : log.lines())
            out += "\n" + std::to_string(line.priority) + " " + line.text;
        return out;
    }
    log_capture log;
};

TEST_F(CommandTest, LookupMatchesByPrefixInRegistrationOrder) {
    EXPECT_EQ(dypd_get_command("GET USB_DEVICE_LIST"), nullptr) << "empty registry";
    ASSERT_EQ(dypd_register_commands(nullptr, 0), 0);
    ASSERT_EQ(dypd_register_commands(table, 4), 0);
    EXPECT_EQ(dypd_get_command("GET USB_DEVICE_LIST"), &table[1]);
    EXPECT_EQ(dypd_get_command("GET USB_DEVICE_LIST_EX"), &table[0]);
    EXPECT_EQ(dypd_get_command("GET SCANNER_STATUS:usb1"), &table[2]);
    EXPECT_EQ(dypd_get_command("GET SCANNER_STATUSES"), &table[2]);
    EXPECT_EQ(dypd_get_command("GET SCANNER_STAT"), nullptr) << "a shorter name never matches";
    EXPECT_EQ(log.count(LOG_INFO, "registered command EXEC SCANNER CONNECT"), 1);
}

TEST_F(CommandTest, FailedAppendRollsBackWhatTheCallAdded) {
    const dypd_command kept{"KEEP", DYPD_XFER_READ, nullptr};
    ASSERT_EQ(dypd_register_command(&kept), 0);
    log.clear();
    dyp_alloc_fail_after(4);
    EXPECT_EQ(dypd_register_commands(table, 4), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(registry_and_log(), "KEEP;"
                                  "\n6 registered command GET USB_DEVICE_LIST_EX"
                                  "\n6 registered command GET USB_DEVICE_LIST"
                                  "\n6 registered command GET SCANNER_STATUS"
                                  "\n6 unregistered command GET USB_DEVICE_LIST_EX"
                                  "\n6 unregistered command GET USB_DEVICE_LIST"
                                  "\n6 unregistered command GET SCANNER_STATUS");
}

TEST_F(CommandTest, RemovalIsByNameNotByIdentityAndQuietWhenNothingMatches) {
    ASSERT_EQ(dypd_register_commands(table + 2, 2), 0);
    log.clear();
    dypd_unregister_commands(table, 2);
    const dypd_command copy{"GET SCANNER_STATUS", DYPD_XFER_READ, nullptr};
    dypd_unregister_command(&copy);
    EXPECT_EQ(registry_and_log(),
              "EXEC SCANNER CONNECT;\n6 unregistered command GET SCANNER_STATUS");
    dypd_command_cleanup();
    EXPECT_EQ(dypd_cmdlist, nullptr);
}

using CommandDeathTest = CommandTest;

TEST_F(CommandDeathTest, NullArgumentsStopTheProcessNamingFileAndFunction) {
    EXPECT_DEATH((void)dypd_get_command(nullptr),
                 "command:[0-9]+: dypd_get_command: Assertion `name != \\(\\(void \\*\\)0\\)'");
    EXPECT_DEATH((void)dypd_register_commands(nullptr, 2),
                 "command:[0-9]+: dypd_register_command: Assertion `cmd != \\(\\(void \\*\\)0\\)'");
    EXPECT_DEATH(dypd_unregister_commands(nullptr, 1), "dypd_unregister_command: Assertion `cmd");
}
} // namespace
