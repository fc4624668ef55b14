#include "protocol/session.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

#include "lib/alloc.h"
#include "protocol/command.h"

namespace {
const dypd_command read_cmd{"GET A", DYPD_XFER_READ, nullptr};
const dypd_command other_cmd{"GET B", DYPD_XFER_READ, nullptr};

sockaddr_in address(const char *ip, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    (void)inet_pton(AF_INET, ip, &a.sin_addr);
    return a;
}

class SessionTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(dypd_session_init(&session), 0); }
    void TearDown() override {
        dypd_session_cleanup(&session);
        dyp_alloc_fail_after(0);
    }
    dypd_session session{};
    sockaddr_in host = address("127.0.0.1", 4000);
};

TEST(SessionInit, ReportsNoMemoryAndLeavesNoBuffer) {
    dypd_session s;
    std::memset(&s, 0xa5, sizeof s);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_session_init(&s), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(s.buffer, nullptr);
    EXPECT_EQ(s.requester, nullptr);
    EXPECT_EQ(s.command, nullptr);
    EXPECT_EQ(s.length, 0u);
    dypd_session_cleanup(&s);
}

TEST_F(SessionTest, EnterBindsOneRequesterAndRefusesASecond) {
    session.length = 77;
    ASSERT_EQ(dypd_session_enter(&session, &read_cmd, &host, 3), 0);
    EXPECT_EQ(session.command, &read_cmd);
    EXPECT_EQ(session.ifindex, 3);
    EXPECT_EQ(session.length, 0u);
    ASSERT_NE(session.requester, nullptr);
    EXPECT_NE(session.requester, &host);
    EXPECT_EQ(std::memcmp(session.requester, &host, sizeof host), 0);

    sockaddr_in other = address("127.0.0.2", 4000);
    EXPECT_EQ(dypd_session_enter(&session, &other_cmd, &other, 4), -EINPROGRESS);
    EXPECT_EQ(session.command, &read_cmd);
    EXPECT_EQ(session.ifindex, 3);
}

TEST_F(SessionTest, EnterRefusesBadArgumentsAndMemoryShortage) {
    EXPECT_EQ(dypd_session_enter(nullptr, &read_cmd, &host, 1), -EINVAL);
    EXPECT_EQ(dypd_session_enter(&session, &read_cmd, nullptr, 1), -EINVAL);
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_session_enter(&session, &read_cmd, &host, 1), -ENOMEM);
    EXPECT_EQ(session.requester, nullptr);
    EXPECT_EQ(session.command, nullptr);
}

TEST_F(SessionTest, LeaveKeepsLengthAndIsHarmlessTwice) {
    ASSERT_EQ(dypd_session_enter(&session, &read_cmd, &host, 1), 0);
    ASSERT_EQ(dypd_session_put_data(&session, "abc", 3, 7), 0);
    dypd_session_leave(&session);
    dypd_session_leave(&session);
    dypd_session_leave(nullptr);
    EXPECT_EQ(session.command, nullptr);
    EXPECT_EQ(session.requester, nullptr);
    EXPECT_EQ(session.length, 10u);
    ASSERT_EQ(dypd_session_enter(&session, &read_cmd, &host, 1), 0);
    EXPECT_EQ(session.length, 0u);
}

TEST_F(SessionTest, EqualsComparesCommandNameFamilyPortAndAddress) {
    EXPECT_EQ(dypd_session_equals(&session, &read_cmd, &host), 0) << "idle session";
    ASSERT_EQ(dypd_session_enter(&session, &read_cmd, &host, 1), 0);
    EXPECT_EQ(dypd_session_equals(&session, &read_cmd, &host), 1);

    dypd_command same_name = read_cmd;
    EXPECT_EQ(dypd_session_equals(&session, &same_name, &host), 1) << "names, not identity";
    EXPECT_EQ(dypd_session_equals(&session, &other_cmd, &host), 0);

    sockaddr_in other_port = address("127.0.0.1", 4001);
    sockaddr_in other_ip = address("127.0.0.9", 4000);
    EXPECT_EQ(dypd_session_equals(&session, &read_cmd, &other_port), 0);
    EXPECT_EQ(dypd_session_equals(&session, &read_cmd, &other_ip), 0);

    sockaddr_in padded = host;
    std::memset(padded.sin_zero, 0x5a, sizeof padded.sin_zero);
    EXPECT_EQ(dypd_session_equals(&session, &read_cmd, &padded), 1);

    EXPECT_EQ(dypd_session_equals(nullptr, &read_cmd, &host), 0);
    EXPECT_EQ(dypd_session_equals(&session, nullptr, &host), 0);
    EXPECT_EQ(dypd_session_equals(&session, &read_cmd, nullptr), 0);
}

TEST_F(SessionTest, PutDataStopsAtTheBufferEndAndRaisesLength) {
    EXPECT_EQ(dypd_session_put_data(&session, "x", 1, 65535), 0);
    EXPECT_EQ(session.length, 65536u);
    session.length = 5;
    EXPECT_EQ(dypd_session_put_data(&session, "xy", 2, 65535), -ENOMEM);
    EXPECT_EQ(dypd_session_put_data(&session, "xy", 2, UINT32_MAX), -ENOMEM);
    EXPECT_EQ(session.length, 5u);
    EXPECT_EQ(dypd_session_put_data(&session, "ab", 2, 1), 0);
    EXPECT_EQ(session.length, 5u) << "a write inside the data does not shrink it";
    EXPECT_EQ(dypd_session_put_data(nullptr, "ab", 2, 1), -EINVAL);
    EXPECT_EQ(dypd_session_put_data(&session, nullptr, 2, 1), -EINVAL);
}

TEST_F(SessionTest, GetDataIsBoundByTheBufferNotByLength) {
    std::memset(session.buffer, 0x11, DYPD_SESSION_BUFFER_SIZE);
    session.length = 10;
    static uint8_t all[DYPD_SESSION_BUFFER_SIZE];
    EXPECT_EQ(dypd_session_get_data(&session, all, DYPD_SESSION_BUFFER_SIZE, 0), 0);
    EXPECT_EQ(all[65535], 0x11);
    EXPECT_EQ(dypd_session_get_data(&session, all, 2, 65535), -EINVAL);
    EXPECT_EQ(dypd_session_get_data(&session, nullptr, 1, 0), -EINVAL);
    EXPECT_EQ(dypd_session_get_data(nullptr, all, 1, 0), -EINVAL);
}

TEST_F(SessionTest, ReleaseRecordsCountOnlyForItsOwnBuffer) {
    uint32_t capacity = 0;
    uint8_t *buffer = dypd_session_get_buffer(&session, &capacity);
    EXPECT_EQ(buffer, session.buffer);
    EXPECT_EQ(capacity, DYPD_SESSION_BUFFER_SIZE);
    dypd_session_release_buffer(&session, buffer, 300);
    EXPECT_EQ(session.length, 300u);
    uint8_t foreign[4];
    dypd_session_release_buffer(&session, foreign, 2);
    EXPECT_EQ(session.length, 300u);
}
} // namespace
