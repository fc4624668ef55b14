#include "daemon/endpoints.h"

#include <gtest/gtest.h>

#include "lib/alloc.h"
#include "protocol/advertise.h"

TEST(BuildEndpoints, EveryPortButThePrimaryGetsTheGenericHandler) {
    int32_t ports[] = {65536, 0}; // both bind an ephemeral port; only the second is port 0
    dypd_settings settings{.bind_interfaces = "lo,!*", .ports = ports, .port_count = 2};
    dyp_daemon_context daemon{};
    ASSERT_EQ(dypd_build_endpoints(&daemon, &settings), 0);
    ASSERT_EQ(daemon.endpoint_count, 2);
    EXPECT_EQ(daemon.endpoints[0]->advertise, dypd_process_advertise);
    EXPECT_EQ(daemon.endpoints[1]->advertise, nullptr);
    EXPECT_EQ(settings.primary, daemon.endpoints[1]);
    for (int i = 0; i < 2; ++i)
        dypd_core_cleanup(daemon.endpoints[i]);
    dyp_free(daemon.endpoints);
}
