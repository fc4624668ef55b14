#include "protocol/session.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "lib/alloc.h"
#include "protocol/command.h"

namespace {
const dypd_command cmd_a{"GET A", DYPD_XFER_READ, nullptr};
const dypd_command cmd_b{"GET B", DYPD_XFER_READ, nullptr};

class SessionTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(dypd_session_init(&s), 0); }
    void TearDown() override { dypd_session_cleanup(&s); }
    dypd_session s{};
    sockaddr_in host{AF_INET, htons(4000), {htonl(INADDR_LOOPBACK)}, {}};
};

TEST_F(SessionTest, OneRequesterAtATimeComparedByNameFamilyPortAndAddress) {
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_session_enter(&s, &cmd_a, &host, 1), -ENOMEM);
    dyp_alloc_fail_after(0);
    ASSERT_EQ(dypd_session_enter(&s, &cmd_a, &host, 3), 0);
    EXPECT_EQ(dypd_session_enter(&s, &cmd_b, &host, 4), -EINPROGRESS);
    dypd_command same_name = cmd_a;
    sockaddr_in padded = host, other_port = host;
    padded.sin_zero[3] = 0x5a; // the last eight bytes are not compared
    other_port.sin_port = htons(4001);
    EXPECT_EQ(dypd_session_equals(&s, &same_name, &padded), 1);
    EXPECT_EQ(dypd_session_equals(&s, &cmd_a, &other_port), 0);
    EXPECT_EQ(dypd_session_equals(&s, &cmd_b, &host), 0);
}

// The bound is inclusive: a range may end at 65536, whatever `length` says.
TEST_F(SessionTest, DataStaysInsideTheBufferAndLengthLastsUntilTheNextEntry) {
    EXPECT_EQ(dypd_session_put_data(&s, "x", 1, 65535), 0);
    EXPECT_EQ(dypd_session_put_data(&s, "xy", 2, 65535), -ENOMEM);
    EXPECT_EQ(dypd_session_put_data(&s, "xy", 2, UINT32_MAX), -ENOMEM);
    EXPECT_EQ(s.length, 65536u);
    uint8_t last[2] = {};
    EXPECT_EQ(dypd_session_get_data(&s, last, 1, 65535), 0);
    EXPECT_EQ(last[0], 'x');
    EXPECT_EQ(dypd_session_get_data(&s, last, 2, 65535), -EINVAL);
    dypd_session_release_buffer(&s, s.buffer, 300);
    dypd_session_release_buffer(&s, last, 2); // not the session's buffer: ignored
    EXPECT_EQ(s.length, 300u);
    ASSERT_EQ(dypd_session_enter(&s, &cmd_a, &host, 1), 0);
    EXPECT_EQ(s.length, 0u);
    ASSERT_EQ(dypd_session_put_data(&s, "abc", 3, 7), 0);
    dypd_session_leave(&s);
    EXPECT_EQ(s.length, 10u) << "leaving keeps the length";
}
} // namespace
