#include "daemon/endpoints.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <vector>

#include "lib/alloc.h"
#include "protocol/advertise.h"

namespace {

// Port 0 binds an ephemeral port, so that nothing fixed is bound.
class BuildEndpoints : public ::testing::Test {
  protected:
    void TearDown() override { build({}, 0); }
    // Takes down what the last build made, then builds `port_list`.
    int build(std::vector<int32_t> port_list, int32_t primary, int failing_allocation = 0) {
        for (int32_t i = 0; daemon.endpoints != nullptr && i < daemon.endpoint_count; ++i)
            dypd_core_cleanup(daemon.endpoints[i]);
        dyp_free(daemon.endpoints);
        daemon = dyp_daemon_context{};
        ports = port_list;
        settings = {.bind_interfaces = "lo,!*",
                    .ports = ports.data(),
                    .port_count = static_cast<int32_t>(ports.size()),
                    .primary_port = primary};
        dyp_alloc_fail_after(failing_allocation);
        int result = ports.empty() ? 0 : dypd_build_endpoints(&daemon, &settings);
        dyp_alloc_fail_after(0);
        return result;
    }
    dypd_advertise_handler handler(int i) const { return daemon.endpoints[i]->advertise; }

    std::vector<int32_t> ports;
    dypd_settings settings{};
    dyp_daemon_context daemon{};
};

} // namespace

TEST_F(BuildEndpoints, EveryPortButThePrimaryGetsTheGenericHandler) {
    ASSERT_EQ(build({65536, 0}, 0), 0) << "65536 binds port 0 but is not the primary port";
    ASSERT_EQ(daemon.endpoint_count, 2);
    EXPECT_EQ(daemon.header.type, DYPD_ENDPOINT_DAEMON);
    EXPECT_EQ(handler(0), dypd_process_advertise);
    EXPECT_EQ(handler(1), nullptr);
    EXPECT_EQ(settings.primary, daemon.endpoints[1]);
    EXPECT_EQ(settings.last_session, &daemon.endpoints[1]->session);
    EXPECT_GE(daemon.endpoints[0]->header.fd, 0);
    EXPECT_EQ(daemon.endpoints[0]->header.bind_count, 2);
    ASSERT_EQ(build({0, 0}, 5), 0);
    EXPECT_TRUE(handler(0) == dypd_process_advertise && handler(1) == dypd_process_advertise);
    EXPECT_EQ(settings.primary, daemon.endpoints[0]) << "the first when none matches";
    ASSERT_EQ(build({0}, 5), 0);
    EXPECT_EQ(handler(0), nullptr) << "a single port is the primary one";
    EXPECT_EQ(build({0}, 0, 1), -ENOMEM);
    // The array, the endpoint, its port list, then its receive buffer.
    EXPECT_EQ(build({0}, 0, 4), -ENOMEM);
    EXPECT_EQ(daemon.endpoints[0], nullptr) << "the half-built endpoint was taken down";
}
