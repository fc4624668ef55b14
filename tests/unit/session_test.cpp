#include "protocol/session.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>

#include "lib/alloc.h"
#include "protocol/command.h"

namespace {
const dypd_command cmd_a{"GET A", DYPD_XFER_READ, nullptr};
const dypd_command cmd_b{"GET B", DYPD_XFER_READ, nullptr};

sockaddr_in address(uint32_t ip, uint16_t port) {
    return sockaddr_in{AF_INET, htons(port), {htonl(ip)}, {}};
}

class SessionTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(dypd_session_init(&s), 0); }
    void TearDown() override { dypd_session_cleanup(&s); }
    dypd_session s{};
    sockaddr_in host = address(INADDR_LOOPBACK, 4000);
};

TEST(SessionInit, ReportsNoMemory) {
    dypd_session s;
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_session_init(&s), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(s.buffer, nullptr);
}

TEST_F(SessionTest, OneRequesterAtATimeAndLengthKeptUntilTheNextEntry) {
    EXPECT_EQ(dypd_session_enter(&s, &cmd_a, nullptr, 1), -EINVAL);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_session_enter(&s, &cmd_a, &host, 1), -ENOMEM);
    dyp_alloc_fail_after(0);
    ASSERT_EQ(dypd_session_enter(&s, &cmd_a, &host, 3), 0);
    EXPECT_EQ(s.ifindex, 3);
    EXPECT_EQ(dypd_session_enter(&s, &cmd_b, &host, 4), -EINPROGRESS);
    ASSERT_EQ(dypd_session_put_data(&s, "abc", 3, 7), 0);
    dypd_session_leave(&s);
    dypd_session_leave(&s);
    EXPECT_EQ(s.length, 10u);
    ASSERT_EQ(dypd_session_enter(&s, &cmd_b, &host, 1), 0);
    EXPECT_EQ(s.length, 0u);
}

TEST_F(SessionTest, EqualsComparesCommandNameFamilyPortAndAddressOnly) {
    EXPECT_EQ(dypd_session_equals(&s, &cmd_a, &host), 0) << "idle";
    ASSERT_EQ(dypd_session_enter(&s, &cmd_a, &host, 1), 0);
    dypd_command same_name = cmd_a;
    sockaddr_in padded = host, other_port = address(INADDR_LOOPBACK, 4001),
                other_ip = address(INADDR_LOOPBACK + 1, 4000);
    std::memset(padded.sin_zero, 0x5a, sizeof padded.sin_zero);
    EXPECT_EQ(dypd_session_equals(&s, &same_name, &padded), 1);
    EXPECT_EQ(dypd_session_equals(&s, &cmd_b, &host), 0);
    EXPECT_EQ(dypd_session_equals(&s, &cmd_a, &other_port), 0);
    EXPECT_EQ(dypd_session_equals(&s, &cmd_a, &other_ip), 0);
}

TEST_F(SessionTest, DataStaysInsideTheBufferWhateverTheLength) {
    EXPECT_EQ(dypd_session_put_data(&s, "x", 1, 65535), 0);
    EXPECT_EQ(s.length, 65536u);
    EXPECT_EQ(dypd_session_put_data(&s, "xy", 2, 65535), -ENOMEM);
    EXPECT_EQ(dypd_session_put_data(&s, "xy", 2, UINT32_MAX), -ENOMEM);
    uint8_t last = 0;
    EXPECT_EQ(dypd_session_get_data(&s, &last, 1, 65535), 0);
    EXPECT_EQ(last, 'x');
    EXPECT_EQ(dypd_session_get_data(&s, &last, 2, 65535), -EINVAL);

    uint32_t capacity = 0;
    uint8_t *buffer = dypd_session_get_buffer(&s, &capacity);
    EXPECT_EQ(capacity, DYPD_SESSION_BUFFER_SIZE);
    dypd_session_release_buffer(&s, buffer, 300);
    dypd_session_release_buffer(&s, &last, 2);
    EXPECT_EQ(s.length, 300u) << "a foreign buffer records nothing";
}
} // namespace
