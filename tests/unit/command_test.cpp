#include "protocol/command.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "lib/alloc.h"
#include "support/log_capture.h"

namespace {
// The longer name first, so that it is found before its own prefix.
const dypd_command table[] = {{"GET USB_DEVICE_LIST_EX", DYPD_XFER_READ, nullptr},
                              {"GET USB_DEVICE_LIST", DYPD_XFER_READ, nullptr},
                              {"GET SCANNER_STATUS", DYPD_XFER_READ, nullptr},
                              {"EXEC SCANNER CONNECT", DYPD_XFER_EXEC, nullptr}};

struct CommandTest : ::testing::Test {
    void SetUp() override { ASSERT_EQ(dypd_command_init(), 0); }
    void TearDown() override { dypd_command_cleanup(); }
    log_capture log;
};

TEST_F(CommandTest, LookupMatchesByPrefixInRegistrationOrder) {
    ASSERT_EQ(dypd_register_commands(table, 4), 0);
    EXPECT_EQ(log.count(LOG_INFO, "registered command EXEC SCANNER CONNECT"), 1);
    EXPECT_EQ(dypd_get_command("GET USB_DEVICE_LIST"), &table[1]);
    EXPECT_EQ(dypd_get_command("GET USB_DEVICE_LIST_EX"), &table[0]);
    EXPECT_EQ(dypd_get_command("GET SCANNER_STATUS:usb1"), &table[2]);
    EXPECT_EQ(dypd_get_command("GET SCANNER_STAT"), nullptr) << "a shorter name never matches";
}

// Removal is by name, not identity; a failed fourth append removes the three
// appended before it; neither touches what was there and neither logs for nothing.
TEST_F(CommandTest, RemovalIsByNameAndAFailedAppendRemovesWhatItAppended) {
    const dypd_command kept{"KEEP", DYPD_XFER_READ, nullptr}, copy = table[2];
    ASSERT_EQ(dypd_register_command(&kept), 0);
    dyp_alloc_fail_after(4);
    EXPECT_EQ(dypd_register_commands(table, 4), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(log.count(LOG_INFO, "unregistered command"), 3);
    for (const dypd_command &c : table)
        EXPECT_EQ(dypd_get_command(c.name), nullptr) << c.name;
    ASSERT_EQ(dypd_register_commands(table + 2, 2), 0);
    log.clear();
    dypd_unregister_commands(table, 2);
    EXPECT_TRUE(log.lines().empty());
    dypd_unregister_command(&copy);
    EXPECT_EQ(log.count(LOG_INFO, "unregistered command GET SCANNER_STATUS"), 1);
    EXPECT_EQ(dypd_get_command("GET SCANNER_STATUS"), nullptr);
    EXPECT_EQ(dypd_get_command("EXEC SCANNER CONNECT"), &table[3]);
    EXPECT_EQ(dypd_get_command("KEEP"), &kept);
}
} // namespace
