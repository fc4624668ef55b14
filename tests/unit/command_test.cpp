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
    void TearDown() override {
        dyp_alloc_fail_after(0);
        dypd_command_cleanup();
    }
    std::vector<std::string> names() const {
        std::vector<std::string> out;
        tqlist_for_each(dypd_cmdlist, [&](const dypd_command *c) {
            out.emplace_back(c->name);
            return true;
        });
        return out;
    }
    std::vector<std::string> logged() const {
        std::vector<std::string> out;
        for (const auto &line : log.lines())
            out.push_back(std::to_string(line.priority) + " " + line.text);
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
    EXPECT_EQ(logged()[0], "6 registered command GET USB_DEVICE_LIST_EX");
    EXPECT_EQ(logged()[3], "6 registered command EXEC SCANNER CONNECT");
}

TEST_F(CommandTest, FailedAppendRollsBackWhatTheCallAdded) {
    const dypd_command kept{"KEEP", DYPD_XFER_READ, nullptr};
    ASSERT_EQ(dypd_register_command(&kept), 0);
    log.clear();
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_register_commands(table, 4), -ENOMEM);
    EXPECT_TRUE(log.lines().empty());
    dyp_alloc_fail_after(4);
    EXPECT_EQ(dypd_register_commands(table, 4), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(names(), std::vector<std::string>{"KEEP"});
    EXPECT_EQ(logged(), (std::vector<std::string>{
                            "6 registered command GET USB_DEVICE_LIST_EX",
                            "6 registered command GET USB_DEVICE_LIST",
                            "6 registered command GET SCANNER_STATUS",
                            "6 unregistered command GET USB_DEVICE_LIST_EX",
                            "6 unregistered command GET USB_DEVICE_LIST",
                            "6 unregistered command GET SCANNER_STATUS",
                        }));
}

TEST_F(CommandTest, RemovalIsByNameNotByIdentityAndQuietWhenNothingMatches) {
    ASSERT_EQ(dypd_register_commands(table + 2, 2), 0);
    log.clear();
    dypd_unregister_commands(table, 2);
    EXPECT_TRUE(log.lines().empty());
    const dypd_command copy{"GET SCANNER_STATUS", DYPD_XFER_READ, nullptr};
    dypd_unregister_command(&copy);
    EXPECT_EQ(names(), std::vector<std::string>{"EXEC SCANNER CONNECT"});
    EXPECT_EQ(logged(), std::vector<std::string>{"6 unregistered command GET SCANNER_STATUS"});
    dypd_command_cleanup();
    EXPECT_EQ(dypd_cmdlist, nullptr);
    dypd_command_cleanup();
}

using CommandDeathTest = CommandTest;

TEST_F(CommandDeathTest, NullArgumentsStopTheProcessNamingFileAndFunction) {
    const char *null_name = "command:[0-9]+: dypd_get_command: Assertion `name != "
                            "\\(\\(void \\*\\)0\\)' failed";
    const char *null_cmd = "command:[0-9]+: dypd_register_command: Assertion `cmd != "
                           "\\(\\(void \\*\\)0\\)' failed";
    EXPECT_DEATH((void)dypd_get_command(nullptr), null_name);
    EXPECT_DEATH((void)dypd_register_command(nullptr), null_cmd);
    EXPECT_DEATH((void)dypd_register_commands(nullptr, 2), null_cmd);
    EXPECT_DEATH(dypd_unregister_commands(nullptr, 1), "dypd_unregister_command: Assertion `cmd");
}
} // namespace
