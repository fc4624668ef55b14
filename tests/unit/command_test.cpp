#include "protocol/command.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <syslog.h>

#include "lib/alloc.h"
#include "support/log_capture.h"

namespace {
int32_t no_handler(dypd_session *, const uint8_t *, uint8_t *, uint32_t) {
    return 0;
}

// The longer name first, as the device server registers them, so that it is
// found before the plain name that is its prefix.
const dypd_command table[] = {
    {"GET USB_DEVICE_LIST_EX", DYPD_XFER_READ, no_handler},
    {"GET USB_DEVICE_LIST", DYPD_XFER_READ, no_handler},
    {"GET SCANNER_STATUS", DYPD_XFER_READ, no_handler},
    {"EXEC SCANNER CONNECT", DYPD_XFER_EXEC, no_handler},
};

class CommandTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(dypd_command_init(), 0); }
    void TearDown() override {
        dyp_alloc_fail_after(0);
        dypd_command_cleanup();
    }
    log_capture log;
};

std::vector<std::string> registered_names() {
    std::vector<std::string> names;
    tqlist_for_each(dypd_cmdlist, [&](const dypd_command *c) {
        names.emplace_back(c->name);
        return true;
    });
    return names;
}

TEST(CommandLifecycle, InitReportsNoMemoryAndCleanupIsIdempotent) {
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_command_init(), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(dypd_cmdlist, nullptr);
    ASSERT_EQ(dypd_command_init(), 0);
    dypd_command_cleanup();
    EXPECT_EQ(dypd_cmdlist, nullptr);
    dypd_command_cleanup();
}

TEST_F(CommandTest, LookupMatchesByPrefixInRegistrationOrder) {
    EXPECT_EQ(dypd_get_command("GET USB_DEVICE_LIST"), nullptr) << "empty registry";
    ASSERT_EQ(dypd_register_commands(table, 4), 0);
    EXPECT_EQ(dypd_get_command("GET USB_DEVICE_LIST"), &table[1]);
    EXPECT_EQ(dypd_get_command("GET USB_DEVICE_LIST_EX"), &table[0]);
    EXPECT_EQ(dypd_get_command("GET SCANNER_STATUS:usb1"), &table[2]);
    EXPECT_EQ(dypd_get_command("GET SCANNER_STATUSES"), &table[2]);
    EXPECT_EQ(dypd_get_command("GET SCANNER_STAT"), nullptr) << "shorter never matches";
    EXPECT_EQ(dypd_get_command(""), nullptr);
}

TEST_F(CommandTest, RegistrationAppendsAndLogsInTableOrder) {
    ASSERT_EQ(dypd_register_commands(nullptr, 0), 0);
    ASSERT_EQ(dypd_register_commands(table, 4), 0);
    ASSERT_EQ(log.lines().size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(log.lines()[i].priority, LOG_INFO);
        EXPECT_EQ(log.lines()[i].text, std::string("registered command ") + table[i].name);
    }
    ASSERT_EQ(dypd_register_command(&table[1]), 0) << "duplicates are not checked";
    EXPECT_EQ(registered_names().size(), 5u);
}

TEST_F(CommandTest, FailedFourthAppendRollsBackTheFirstThree) {
    const dypd_command kept{"KEEP", DYPD_XFER_READ, no_handler};
    ASSERT_EQ(dypd_register_command(&kept), 0);
    log.clear();
    dyp_alloc_fail_after(4);
    EXPECT_EQ(dypd_register_commands(table, 4), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(registered_names(), std::vector<std::string>{"KEEP"});
    std::vector<std::string> texts;
    for (const auto &line : log.lines())
        texts.push_back(line.text);
    EXPECT_EQ(texts, (std::vector<std::string>{
                         "registered command GET USB_DEVICE_LIST_EX",
                         "registered command GET USB_DEVICE_LIST",
                         "registered command GET SCANNER_STATUS",
                         "unregistered command GET USB_DEVICE_LIST_EX",
                         "unregistered command GET USB_DEVICE_LIST",
                         "unregistered command GET SCANNER_STATUS",
                     }));
}

TEST_F(CommandTest, FailedFirstAppendLeavesNothingToUndo) {
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_register_commands(table, 4), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_TRUE(registered_names().empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(CommandTest, RemovalIsByNamePrefixNotByIdentity) {
    ASSERT_EQ(dypd_register_commands(table, 4), 0);
    log.clear();
    // A copy from another table removes the registered entry of that name.
    const dypd_command copy{"GET SCANNER_STATUS", DYPD_XFER_READ, nullptr};
    dypd_unregister_command(&copy);
    EXPECT_EQ(dypd_get_command("GET SCANNER_STATUS"), nullptr);
    EXPECT_EQ(log.count(LOG_INFO, "unregistered command GET SCANNER_STATUS"), 1);

    // "GET USB_DEVICE_LIST_EX" is matched first by the entry registered first.
    dypd_unregister_command(&table[0]);
    EXPECT_EQ(registered_names(),
              (std::vector<std::string>{"GET USB_DEVICE_LIST", "EXEC SCANNER CONNECT"}));
}

TEST_F(CommandTest, UnregisteringUnknownEntriesChangesAndLogsNothing) {
    ASSERT_EQ(dypd_register_command(&table[3]), 0);
    log.clear();
    dypd_unregister_commands(table, 3);
    dypd_unregister_commands(nullptr, 0);
    EXPECT_EQ(registered_names(), std::vector<std::string>{"EXEC SCANNER CONNECT"});
    EXPECT_TRUE(log.lines().empty());
}

using CommandDeathTest = CommandTest;

TEST_F(CommandDeathTest, NullArgumentsStopTheProcessNamingFileAndFunction) {
    EXPECT_DEATH((void)dypd_get_command(nullptr),
                 "command:[0-9]+: dypd_get_command: Assertion `name != \\(\\(void \\*\\)0\\)' "
                 "failed");
    EXPECT_DEATH((void)dypd_register_command(nullptr),
                 "command:[0-9]+: dypd_register_command: Assertion `cmd != \\(\\(void \\*\\)0\\)'");
    EXPECT_DEATH((void)dypd_register_commands(nullptr, 2),
                 "command:[0-9]+: dypd_register_command: Assertion `cmd != \\(\\(void \\*\\)0\\)'");
    EXPECT_DEATH(dypd_unregister_command(nullptr),
                 "command:[0-9]+: dypd_unregister_command: Assertion `cmd != ");
    EXPECT_DEATH(dypd_unregister_commands(nullptr, 1),
                 "command:[0-9]+: dypd_unregister_command: Assertion `cmd != ");
}
} // namespace
