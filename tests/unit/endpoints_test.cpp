#include "daemon/endpoints.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "lib/alloc.h"
#include "protocol/advertise.h"

TEST(BuildEndpoints, EveryPortButThePrimaryGetsTheGenericHandler) {
    int32_t ports[] = {65536, 0}; // both bind an ephemeral port; only the second is port 0
    dypd_settings settings{.bind_interfaces = "lo,!*", .ports = ports, .port_count = 2};
    dyp_daemon_context daemon{};
    ASSERT_EQ(dypd_build_endpoints(&daemon, &settings), 0);
    ASSERT_EQ(daemon.endpoint_count, 2);
    EXPECT_EQ(daemon.header.type, DYPD_ENDPOINT_DAEMON);
    EXPECT_EQ(daemon.endpoints[0]->advertise, dypd_process_advertise);
    EXPECT_EQ(daemon.endpoints[1]->advertise, nullptr);
    EXPECT_EQ(settings.primary, daemon.endpoints[1]);
    EXPECT_EQ(settings.last_session, &daemon.endpoints[1]->session);
    EXPECT_EQ(daemon.endpoints[0]->header.bind_count, 2);
    for (int i = 0; i < 2; ++i)
        dypd_core_cleanup(daemon.endpoints[i]);
    dyp_free(daemon.endpoints);
    daemon = {};
    settings.port_count = 1;
    dyp_alloc_fail_after(4); // the array, the endpoint, its port list, then its receive buffer
    EXPECT_EQ(dypd_build_endpoints(&daemon, &settings), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(daemon.endpoints[0], nullptr) << "the half-built endpoint was taken down";
    dyp_free(daemon.endpoints);
}
