#include "daemon/dypd_priv.h"

#include <cerrno>
#include <gtest/gtest.h>

TEST(MainLoop, EndsOnTheStopFlagANullDaemonOrAHoleInTheEndpoints) {
    EXPECT_EQ(dypd_run(nullptr, nullptr), -EINVAL);
    dyp_daemon_context daemon{};
    (void)dypd_init_socket(&daemon.header, DYPD_ENDPOINT_DAEMON);
    daemon.spare_fd = -1;
    dypd_udp_port *endpoints[1] = {nullptr};
    daemon.endpoints = endpoints;
    daemon.endpoint_count = 1;
    EXPECT_EQ(dypd_run(&daemon, nullptr), -1);
    daemon.stop = 1;
    EXPECT_EQ(dypd_run(&daemon, nullptr), 0);
}
