#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ds/ds.h"
#include "ds/ska.h"
#include "modules/usbds.h"
#include "protocol/command.h"
#include "support/fake_ds_module.h"

static int32_t other_handler(const uint8_t *, uint8_t *, uint32_t, const sockaddr_in *, int32_t) {
    return 0;
}

static std::vector<std::string> registered_commands() {
    std::vector<std::string> names;
    tqlist_for_each(dypd_cmdlist, [&](const dypd_command *cmd) {
        names.emplace_back(cmd->name);
        return true;
    });
    return names;
}

// Everything init builds is gone again.
static void expect_torn_down() {
    EXPECT_EQ(dypd_ds_modlist, nullptr);
    EXPECT_EQ(dypd_ds_ska_get_fd(), -1);
    EXPECT_TRUE(registered_commands().empty());
}

using DsInit = ska_namespace_test;

TEST_F(DsInit, BuildsTheDeviceServerWatchesSkaAndUndoesEachStepInTurn) {
    ASSERT_EQ(dypd_command_init(), 0);
    dypd_udp_port endpoint{};
    ASSERT_EQ(dypd_ds_init(&endpoint), 0);
    EXPECT_EQ(dypd_ds_core, &endpoint);
    EXPECT_EQ(endpoint.advertise, &dypd_ds_process_advertise);
    EXPECT_EQ(dypd_ds_modlist->head.next->item, &usbds_module);
    EXPECT_EQ(registered_commands(),
              (std::vector<std::string>{"EXEC SCANNER CONNECT", "EXEC SCANNER DISCONNECT",
                                        "GET USB_DEVICE_LIST_EX", "GET USB_DEVICE_LIST",
                                        "GET SCANNER_STATUS", "GET SCANNER PORT_NAME",
                                        "GET USB_PORT_NAME"}));
    fd_set set;
    FD_ZERO(&set);
    int fd = dypd_ds_subproto_fd_set(&set);
    EXPECT_EQ(fd, dypd_ds_ska_get_fd());
    EXPECT_TRUE(FD_ISSET(fd, &set));
    dypd_ds_cleanup();
    expect_torn_down();
    EXPECT_EQ(endpoint.advertise, &dypd_ds_process_advertise); // stays registered

    endpoint.advertise = other_handler;
    EXPECT_EQ(dypd_ds_init(&endpoint), -EINVAL);
    expect_torn_down();
    EXPECT_EQ(endpoint.advertise, &other_handler);
    endpoint.advertise = nullptr;
    int holder = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in any{AF_INET, htons(SKA_PORT), {INADDR_ANY}, {}};
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
    EXPECT_EQ(dypd_ds_init(&endpoint), -EADDRINUSE);
    close(holder);
    expect_torn_down();
    // Allocation order: the module list (the core stays unset), the usbds
    // list node, the SKA buffer, then one node per command.
    dypd_ds_core = nullptr;
    for (unsigned failing : {1u, 2u, 3u, 4u, 10u}) {
        SCOPED_TRACE(failing);
        dyp_alloc_fail_after(failing);
        EXPECT_EQ(dypd_ds_init(&endpoint), -ENOMEM);
        dyp_alloc_fail_after(0);
        expect_torn_down();
        EXPECT_EQ(endpoint.advertise, nullptr);
        EXPECT_EQ(dypd_ds_core, failing == 1 ? nullptr : &endpoint);
    }
    dypd_command_cleanup();
}
