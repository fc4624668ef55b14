#include "daemon/endpoints.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <vector>

#include "lib/alloc.h"
#include "protocol/advertise.h"

namespace {

// Settings with ephemeral ports (0) so that nothing fixed is bound.
class BuildEndpoints : public ::testing::Test {
  protected:
    void TearDown() override {
        dyp_alloc_fail_after(0);
        for (int32_t i = 0; daemon.endpoints != nullptr && i < daemon.endpoint_count; ++i)
            dypd_core_cleanup(daemon.endpoints[i]);
        dyp_free(daemon.endpoints);
    }
    int build(std::vector<int32_t> port_list, int32_t primary) {
        ports = port_list;
        settings.ports = ports.data();
        settings.port_count = static_cast<int32_t>(ports.size());
        settings.primary_port = primary;
        settings.bind_interfaces = "lo,!*";
        return dypd_build_endpoints(&daemon, &settings);
    }
    dypd_advertise_handler handler(int i) const { return daemon.endpoints[i]->advertise; }

    std::vector<int32_t> ports;
    dypd_settings settings{};
    dyp_daemon_context daemon{};
};

} // namespace

TEST_F(BuildEndpoints, OtherPortsGetTheGenericHandlerAndTheFirstIsPrimaryByDefault) {
    ASSERT_EQ(build({0, 0}, 5), 0);
    ASSERT_EQ(daemon.endpoint_count, 2);
    EXPECT_EQ(daemon.header.type, DYPD_ENDPOINT_DAEMON);
    EXPECT_EQ(daemon.header.settings, &settings.identity);
    EXPECT_EQ(daemon.spare_fd, -1);
    EXPECT_EQ(handler(0), dypd_process_advertise);
    EXPECT_EQ(handler(1), dypd_process_advertise);
    EXPECT_EQ(settings.primary, daemon.endpoints[0]);
    EXPECT_EQ(settings.last_session, &daemon.endpoints[1]->session);
    for (int i = 0; i < 2; ++i) {
        EXPECT_GE(daemon.endpoints[i]->header.fd, 0);
        EXPECT_EQ(daemon.endpoints[i]->header.bind_count, 2);
        EXPECT_NE(daemon.endpoints[i]->recv_buffer, nullptr);
        EXPECT_NE(daemon.endpoints[i]->session.buffer, nullptr);
    }
}

TEST_F(BuildEndpoints, PrimaryPortAndASinglePortCarryNoGenericHandler) {
    ASSERT_EQ(build({0}, 5), 0);
    EXPECT_EQ(handler(0), nullptr);
    EXPECT_EQ(settings.primary, daemon.endpoints[0]);
    TearDown();
    daemon = dyp_daemon_context{};
    settings = dypd_settings{};
    ASSERT_EQ(build({65536, 0}, 0), 0) << "65536 binds port 0 but is not the primary port";
    EXPECT_EQ(handler(0), dypd_process_advertise);
    EXPECT_EQ(handler(1), nullptr);
    EXPECT_EQ(settings.primary, daemon.endpoints[1]);
}

TEST_F(BuildEndpoints, ReportsNoMemoryForTheArrayAndForABuffer) {
    dyp_alloc_fail_after(1);
    EXPECT_EQ(build({0}, 0), -ENOMEM);
    TearDown();
    daemon = dyp_daemon_context{};
    dyp_alloc_fail_after(4); // array, endpoint, port list, receive buffer
    EXPECT_EQ(build({0}, 0), -ENOMEM);
    EXPECT_EQ(daemon.endpoints[0], nullptr) << "the half-built endpoint was taken down";
}
