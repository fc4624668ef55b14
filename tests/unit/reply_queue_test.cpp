#include "protocol/reply_queue.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "daemon/endpoints.h"
#include "lib/alloc.h"
#include "support/log_capture.h"
#include "support/udp.h"

namespace {
using bytes = std::vector<uint8_t>;

uint32_t now_us;

// The queue on a fake clock, with one endpoint built as the daemon builds it
// and a client socket on loopback that the replies go to.
class ReplyQueueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        now_us = 1000000;
        dypd_reply_queue_set_clock([] { return now_us; });
        ASSERT_EQ(dypd_reply_queue_init(), 0);
        ASSERT_EQ(dypd_build_endpoints(&daemon, &settings), 0);
        ep = daemon.endpoints[0];
        ASSERT_TRUE(client.valid());
    }
    void TearDown() override {
        dypd_reply_queue_cleanup();
        dypd_reply_queue_set_clock(nullptr);
        dypd_core_cleanup(ep);
        dyp_free(daemon.endpoints);
    }

    // Queues `content` for `peer` after `delay_us`; false when refused.
    bool queue(const sockaddr_in &peer, const bytes &content = {1}, uint32_t delay_us = 1000) {
        dypd_queued_reply *slot = dypd_reply_queue_slot(&peer);
        if (slot == nullptr)
            return false;
        std::copy(content.begin(), content.end(), slot->bytes);
        dypd_reply_queue_push(slot, ep, &peer, static_cast<uint32_t>(content.size()), delay_us);
        return true;
    }
    std::optional<bytes> received() { return next_datagram(client.get()); }

    int32_t port = 0;
    dypd_settings settings{.bind_interfaces = "*", .ports = &port, .port_count = 1};
    dyp_daemon_context daemon{};
    dypd_udp_port *ep = nullptr;
    unique_fd client = udp_socket("127.0.0.1");
    sockaddr_in client_address = loopback_of(client.get());
    log_capture log;
};

const char DROPPED[] = "advertise replies dropped over the queue bounds: ";

TEST_F(ReplyQueueTest, RefusesTheFifthPerAddressAndTheSixtyFifthInAllCountingEachRefusal) {
    // Loopback addresses only: the replies are sent at the end. The bound is
    // per address: another port of the same host shares it.
    for (uint16_t p = 1; p <= 4; ++p)
        ASSERT_TRUE(queue(ipv4("127.0.1.1", p)));
    EXPECT_FALSE(queue(ipv4("127.0.1.1", 5)));
    EXPECT_EQ(log.count(LOG_NOTICE, std::string(DROPPED) + "1"), 1) << "the first one at once";
    EXPECT_TRUE(queue(ipv4("127.0.1.2", 9)));
    // 1 + 4 + 4 * 14 + 3 = 64 queued.
    for (int host = 3; host <= 17; ++host) {
        std::string text = "127.0.1." + std::to_string(host);
        for (int i = 0; i < (host == 17 ? 3 : 4); ++i)
            ASSERT_TRUE(queue(ipv4(text.c_str(), 9))) << text << " #" << i;
    }
    EXPECT_FALSE(queue(ipv4("127.0.1.99", 9))) << "the 65th";
    EXPECT_FALSE(queue(ipv4("127.0.1.1", 9)));
    EXPECT_EQ(log.count(LOG_NOTICE, DROPPED), 1) << "once a minute at most";
    now_us += 59999999;
    EXPECT_FALSE(queue(ipv4("127.0.1.2", 9)));
    EXPECT_EQ(log.count(LOG_NOTICE, DROPPED), 1);
    now_us += 1;
    EXPECT_FALSE(queue(ipv4("127.0.1.2", 9)));
    EXPECT_EQ(log.count(LOG_NOTICE, std::string(DROPPED) + "4"), 1) << "every refusal counted";
    // A reply sent frees its slot, for its own address as for any other.
    dypd_reply_queue_send_due();
    EXPECT_TRUE(queue(ipv4("127.0.1.99", 9)));
    // A refusal left over from a burst is reported once its minute is up,
    // without waiting for another.
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(queue(ipv4("127.0.1.99", 9)));
    EXPECT_FALSE(queue(ipv4("127.0.1.99", 9))) << "within the minute: counted, not logged";
    now_us += 59999999;
    dypd_reply_queue_send_due();
    EXPECT_EQ(log.count(LOG_NOTICE, DROPPED), 2);
    now_us += 1;
    dypd_reply_queue_send_due();
    EXPECT_EQ(log.count(LOG_NOTICE, std::string(DROPPED) + "1"), 2);
}

// The clock is 32 bits of microseconds and wraps every 71.6 minutes: the
// same replies keep their order and their waits when their due times lie
// on both sides of the wrap.
TEST_F(ReplyQueueTest, SendsDueRepliesEarliestFirstByteExactAndNothingEarlyAcrossTheClockWrap) {
    for (uint32_t start : {1000000u, UINT32_MAX - 15000u}) {
        SCOPED_TRACE(start);
        now_us = start;
        EXPECT_EQ(dypd_reply_queue_wait_ms(), -1) << "an empty queue does not limit the wait";
        bytes late(164, 0x33), soon(DYP_RESPONSE_MAX, 0x11), middle{0x22, 0x00, 0x22};
        ASSERT_TRUE(queue(client_address, late, 30000));
        ASSERT_TRUE(queue(client_address, soon, 10001));
        ASSERT_TRUE(queue(client_address, middle, 20000));
        EXPECT_EQ(dypd_reply_queue_wait_ms(), 11) << "rounded up, never short of the due time";
        now_us += 10000;
        dypd_reply_queue_send_due();
        EXPECT_FALSE(received());
        now_us += 10000;
        dypd_reply_queue_send_due();
        EXPECT_EQ(received(), soon);
        EXPECT_EQ(received(), middle);
        EXPECT_FALSE(received());
        EXPECT_EQ(dypd_reply_queue_wait_ms(), 10);
        now_us += 15000;
        EXPECT_EQ(dypd_reply_queue_wait_ms(), 0) << "overdue";
        dypd_reply_queue_send_due();
        EXPECT_EQ(received(), late);
    }
}

// Reload and shutdown drop what waits: nothing of it is sent later, its
// slots are free again, and the storage goes (the sanitizer build's leak
// check runs at exit).
TEST_F(ReplyQueueTest, ClearAndCleanupDropQueuedRepliesUnsent) {
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(queue(client_address));
    dypd_reply_queue_clear();
    EXPECT_EQ(dypd_reply_queue_wait_ms(), -1);
    now_us += 200000;
    dypd_reply_queue_send_due();
    EXPECT_FALSE(received());
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(queue(client_address));
    dypd_reply_queue_cleanup();
    EXPECT_EQ(dypd_reply_queue_wait_ms(), -1);
    dypd_reply_queue_send_due();
    EXPECT_FALSE(received());
    EXPECT_FALSE(queue(client_address)) << "no storage, no slot";
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_reply_queue_init(), -ENOMEM);
    dyp_alloc_fail_after(0);
}
} // namespace
