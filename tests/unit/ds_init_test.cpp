#include <arpa/inet.h>

#include "ds/ds.h"
#include "ds/ska.h"
#include "lib/fd.h"
#include "modules/usbds.h"
#include "protocol/command.h"
#include "support/fake_ds_module.h"

static std::vector<std::string> registered_commands() {
    std::vector<std::string> names;
    tqlist_for_each(dypd_cmdlist, [&](const dypd_command *cmd) {
        names.emplace_back(cmd->name);
        return true;
    });
    return names;
}

// Everything init builds is gone again; the endpoint's advertise handler is `advertise`.
static void expect_torn_down(const dypd_udp_port &endpoint, dypd_advertise_handler advertise) {
    EXPECT_EQ(dypd_ds_modlist, nullptr);
    EXPECT_EQ(dypd_ds_ska_get_fd(), -1);
    EXPECT_TRUE(registered_commands().empty());
    EXPECT_EQ(endpoint.advertise, advertise);
}

using DsInit = ska_namespace_test;

TEST_F(DsInit, BuildsTheDeviceServerWatchesSkaAndUndoesEachStepInTurn) {
    ASSERT_EQ(dypd_command_init(), 0);
    dypd_udp_port endpoint{};
    ASSERT_EQ(dypd_ds_init(&endpoint), 0);
    EXPECT_EQ(dypd_ds_core, &endpoint);
    EXPECT_EQ(dypd_ds_modlist->head.next->item, &usbds_module);
    EXPECT_EQ(registered_commands(),
              (std::vector<std::string>{"EXEC SCANNER CONNECT", "EXEC SCANNER DISCONNECT",
                                        "GET USB_DEVICE_LIST_EX", "GET USB_DEVICE_LIST",
                                        "GET SCANNER_STATUS", "GET SCANNER PORT_NAME",
                                        "GET USB_PORT_NAME"}));
    fd_set set;
    FD_ZERO(&set);
    EXPECT_EQ(dypd_ds_subproto_fd_set(&set), dypd_ds_ska_get_fd());
    EXPECT_TRUE(FD_ISSET(dypd_ds_ska_get_fd(), &set));
    dypd_ds_cleanup();
    expect_torn_down(endpoint, &dypd_ds_process_advertise); // stays registered

    // Another advertise handler, or SKA's port taken.
    endpoint.advertise = [](const uint8_t *, uint8_t *, uint32_t, const sockaddr_in *, int32_t) {
        return 0;
    };
    const dypd_advertise_handler other = endpoint.advertise;
    EXPECT_EQ(dypd_ds_init(&endpoint), -EINVAL);
    expect_torn_down(endpoint, other);
    endpoint.advertise = nullptr;
    unique_fd holder(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in any{AF_INET, htons(SKA_PORT), {INADDR_ANY}, {}};
    ASSERT_EQ(bind(holder.get(), reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
    EXPECT_EQ(dypd_ds_init(&endpoint), -EADDRINUSE);
    expect_torn_down(endpoint, nullptr);
    // Failed allocations are swept with the whole start-up in alloc_sweep_test.
    dypd_command_cleanup();
}
