#include "daemon/endpoints.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "lib/alloc.h"
#include "protocol/advertise.h"
#include "support/descriptor_fill.h"
#include "support/log_capture.h"

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

// A socket select cannot watch would make the main loop write past its
// read set: it is refused when the endpoint is built, and said so.
TEST(BuildEndpoints, ASocketAtOrAboveFdSetsizeIsRefused) {
    int32_t port = 0;
    dypd_settings settings{.bind_interfaces = "*", .ports = &port, .port_count = 1};
    dyp_daemon_context daemon{};
    log_capture log;
    const long before = dyp_alloc_live();
    {
        descriptor_fill fill;
        ASSERT_TRUE(fill.ok()) << "cannot raise the descriptor limit";
        EXPECT_EQ(dypd_build_endpoints(&daemon, &settings), -EMFILE);
        dypd_release_endpoints(&daemon);
    }
    EXPECT_EQ(log.count(LOG_ERR, "cannot watch the socket of port 0: select takes descriptors "
                                 "below " + std::to_string(FD_SETSIZE)),
              1);
    EXPECT_EQ(dyp_alloc_live(), before);
    ASSERT_EQ(dypd_build_endpoints(&daemon, &settings), 0);
    EXPECT_LT(daemon.endpoints[0]->header.fd, FD_SETSIZE);
    dypd_release_endpoints(&daemon);
}
