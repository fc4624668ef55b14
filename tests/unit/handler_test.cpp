#include "protocol/handler.h"

#include <cstring>
#include <gtest/gtest.h>
#include <syslog.h>

#include "daemon/endpoints.h"
#include "lib/alloc.h"
#include "lib/be.h"
#include "protocol/command.h"
#include "protocol/packet.h"
#include "protocol/reply_queue.h"
#include "support/log_capture.h"
#include "support/udp.h"

namespace {
using bytes = std::vector<uint8_t>;

bytes operator+(bytes head, const bytes &tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// What the test command, clocks and advertise handler share.
struct {
    uint32_t result_size, size_given, now;
    int calls, advertise_result;
    uint32_t now_us;
    bytes data_area; // the request's data area as the last command saw it
} fake;

// Writes `result_size` bytes, byte i being i % 251 (so that no two windows
// look alike), and returns their count.
int32_t produce(dypd_session *, const uint8_t *request, uint8_t *buffer, uint32_t size) {
    ++fake.calls;
    fake.size_given = size;
    fake.data_area.assign(request + DYP_REQ_DATA, request + DYP_REQUEST_MAX);
    for (uint32_t i = 0; i < fake.result_size; ++i)
        buffer[i] = static_cast<uint8_t>(i % 251);
    return static_cast<int32_t>(fake.result_size);
}

const dypd_command commands[] = {{"GET READ", DYPD_XFER_READ, produce},
                                 {"PUT WRITE", DYPD_XFER_WRITE, produce},
                                 {"EXEC RUN", DYPD_XFER_EXEC, produce}};

int32_t fake_advertise(const uint8_t *, uint8_t *reply, uint32_t, const sockaddr_in *, int32_t) {
    std::memset(reply, 0xa5, DYP_ADVERTISE_REPLY_SIZE);
    return fake.advertise_result;
}

// The expected reply: the four header words, then `count` result bytes from `from`.
bytes reply(std::initializer_list<uint16_t> header, uint32_t from = 0, uint32_t count = 0) {
    bytes r;
    for (uint16_t word : header)
        r.insert(r.end(), {uint8_t(word >> 8), uint8_t(word)});
    for (uint32_t i = from; i < from + count; ++i)
        r.push_back(static_cast<uint8_t>(i % 251));
    return r;
}

// An endpoint built as the daemon builds it, two requesters, a fake clock.
class HandlerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fake = {1200, 0, 100000, 0, 0, 5000000, {}};
        dypd_handler_set_clock([] { return fake.now; });
        dypd_reply_queue_set_clock([] { return fake.now_us; });
        ASSERT_EQ(dypd_reply_queue_init(), 0);
        ASSERT_EQ(dypd_command_init(), 0);
        ASSERT_EQ(dypd_register_commands(commands, 3), 0);
        ASSERT_EQ(dypd_build_endpoints(&daemon, &settings), 0);
        ep = daemon.endpoints[0];
        box = loopback_of(ep->header.fd);
    }
    void TearDown() override {
        dypd_handler_set_clock(nullptr);
        dypd_reply_queue_set_clock(nullptr);
        dypd_reply_queue_cleanup();
        dypd_core_cleanup(ep);
        dyp_free(daemon.endpoints);
        dypd_command_cleanup();
    }

    // Sends `size` bytes (a header cut short or followed by `fill`) from `client`,
    // lets the handler take them once and returns the reply (queued by then).
    std::optional<bytes> ask(const unique_fd &client, uint16_t type, const char *name,
                             uint16_t offset, uint16_t length,
                             size_t size = DYP_REQUEST_HEADER_SIZE, uint8_t fill = 0) {
        bytes r(DYP_REQUEST_HEADER_SIZE);
        put_be16(&r[DYP_REQ_TYPE], type);
        std::memcpy(&r[DYP_REQ_NAME], name, std::strlen(name));
        put_be16(&r[DYP_REQ_OFFSET], offset);
        put_be16(&r[DYP_REQ_LENGTH], length);
        r.resize(size, fill);
        (void)sendto(client.get(), r.data(), size, 0, reinterpret_cast<sockaddr *>(&box),
                     sizeof box);
        dypd_dyp_handler(&daemon, ep); // the endpoint's socket blocks until the request is in
        return next_datagram(client.get());
    }

    int32_t port = 0; // the kernel chooses
    dypd_settings settings{.bind_interfaces = "*", .ports = &port, .port_count = 1};
    dyp_daemon_context daemon{};
    dypd_udp_port *ep = nullptr;
    sockaddr_in box{};
    unique_fd a = udp_socket(), b = udp_socket();
    log_capture log;
};

TEST_F(HandlerTest, ReadsTheResultInWindowsOf512WithOffsetsEchoed) {
    EXPECT_EQ(ask(a, DYP_TYPE_START, "GET READ:x", 0, 1000), reply({1, 1, 0, 512}, 0, 512));
    EXPECT_FALSE(ask(b, 0, "", 0, 0, DYP_REQUEST_HEADER_SIZE - 1)) << "87 bytes: not a request";
    EXPECT_EQ(ask(a, DYP_TYPE_DATA, "", 1024, 512), reply({2, 0, 1024, 176}, 1024, 176));
    // Beyond the result the length field wraps; the datagram does not grow.
    auto beyond = ask(a, DYP_TYPE_DATA, "", 1300, 4);
    ASSERT_EQ(beyond.value_or(bytes{}).size(), 8u + 4u);
    EXPECT_EQ(bytes(beyond->begin(), beyond->begin() + 8), reply({2, 0, 1300, 65436}));
    // An END short of the result's end answers "more" and closes all the same.
    EXPECT_EQ(ask(a, DYP_TYPE_END, "", 0, 1100), reply({3, 1, 0, 0}));
    EXPECT_FALSE(ep->session.requester);
    EXPECT_EQ(fake.calls, 1);
}

// Both acknowledge DATA with the next offset; an upload runs at END, an exec
// at START, whose reply carries its result.
TEST_F(HandlerTest, UploadRunsTheCommandAtEndAndExecAtStart) {
    EXPECT_EQ(ask(a, DYP_TYPE_START, "PUT WRITE", 0, 10, 98, 'u'), reply({1, 0, 10, 10}));
    EXPECT_EQ(ask(a, DYP_TYPE_DATA, "", 65530, 6, 94), reply({2, 0, 0, 6})) << "offset wraps";
    EXPECT_EQ(fake.calls, 0);
    EXPECT_EQ(ask(a, DYP_TYPE_END, "", 0, 0), reply({3, 0, 0, 0}));
    EXPECT_EQ(fake.size_given, 65536u) << "up to the highest byte written";
    EXPECT_EQ(ep->session.length, 0u);
    fake.result_size = 300;
    EXPECT_EQ(ask(a, DYP_TYPE_START, "EXEC RUN", 7, 3), reply({1, 0, 0, 300}, 0, 300));
    EXPECT_EQ(ask(a, DYP_TYPE_DATA, "", 100, 20), reply({2, 0, 120, 20}));
    EXPECT_EQ(ask(a, DYP_TYPE_END, "", 0, 0), reply({3, 0, 0, 0}));
    EXPECT_EQ(fake.calls, 2);
    EXPECT_FALSE(ep->session.requester);
}

// Neither an earlier result (another host's device list) nor an earlier
// request may reach a host or a command: a window past the result reads
// zeros, and so does the data area past a short datagram.
TEST_F(HandlerTest, NoByteOfAnEarlierResultOrRequestIsHandedOn) {
    ASSERT_TRUE(ask(a, DYP_TYPE_START, "GET READ", 0, 512));
    ASSERT_TRUE(ask(a, DYP_TYPE_END, "", 0, 0));
    fake.result_size = 10;
    EXPECT_EQ(ask(b, DYP_TYPE_START, "GET READ", 0, 512), reply({1, 0, 0, 10}, 0, 10));
    auto past = ask(b, DYP_TYPE_DATA, "", 600, 512);
    ASSERT_TRUE(past);
    EXPECT_EQ(*past, (reply({2, 0, 600, 65536 + 10 - 600}) + bytes(512, 0))) << "sizes as before";
    ASSERT_TRUE(ask(b, DYP_TYPE_END, "", 0, 0));

    const bytes zeros(DYP_EXEC_DATA_SIZE, 0);
    ASSERT_TRUE(ask(a, DYP_TYPE_START, "EXEC RUN", 0, 0, DYP_REQUEST_MAX, 'u'));
    EXPECT_EQ(fake.data_area, bytes(DYP_EXEC_DATA_SIZE, 'u'));
    ASSERT_TRUE(ask(a, DYP_TYPE_END, "", 0, 0));
    ASSERT_TRUE(ask(a, DYP_TYPE_START, "EXEC RUN", 0, 0, DYP_REQUEST_HEADER_SIZE + 2, 'v'));
    EXPECT_EQ(fake.data_area, (bytes{'v', 'v'} + bytes(DYP_EXEC_DATA_SIZE - 2, 0)));
    ASSERT_TRUE(ask(a, DYP_TYPE_END, "", 0, 0));
    // A datagram too long for the buffer is read into it, then refused.
    EXPECT_FALSE(ask(b, DYP_TYPE_START, "EXEC RUN", 0, 0, DYP_REQUEST_MAX + 90, 'o'));
    ASSERT_TRUE(ask(a, DYP_TYPE_START, "EXEC RUN", 0, 0));
    EXPECT_EQ(fake.data_area, zeros);
}

TEST_F(HandlerTest, EndWithoutSessionIsLoggedAndInvalidTypesAbandonIt) {
    EXPECT_FALSE(ask(a, DYP_TYPE_END, "GET READ", 0, 512)) << "no session";
    EXPECT_EQ(log.count(LOG_ERR, "session is NOT in progress or other cause, cond 3"), 1);
    // A range beyond the buffer, then invalid types from anybody.
    for (int type : {int(DYP_TYPE_DATA), 0, 5, 0xffff}) {
        ASSERT_TRUE(ask(a, DYP_TYPE_START, "GET READ", 0, 0));
        EXPECT_FALSE(ask(type == DYP_TYPE_DATA ? a : b, uint16_t(type), "", 65535, 2));
        EXPECT_FALSE(ep->session.requester) << "type " << type;
    }
    EXPECT_EQ(log.count(LOG_ERR, ""), 1) << "abandoning logs nothing";
}

// The clock wraps between the two: the difference is taken modulo 2^32.
TEST_F(HandlerTest, AnotherStartIsDroppedAt500msAndDisplacesAt501ms) {
    fake.now = UINT32_MAX - 200;
    ASSERT_TRUE(ask(a, DYP_TYPE_START, "GET READ", 0, 512));
    fake.now += 500;
    EXPECT_FALSE(ask(b, DYP_TYPE_START, "GET READ", 0, 512));
    EXPECT_FALSE(ask(a, DYP_TYPE_START, "EXEC RUN", 0, 0)) << "even the same host";
    EXPECT_EQ(ask(a, DYP_TYPE_DATA, "", 512, 512)->size(), 520u);
    fake.now += 501;
    EXPECT_TRUE(ask(b, DYP_TYPE_START, "GET READ", 0, 512));
    EXPECT_FALSE(ask(a, DYP_TYPE_DATA, "", 1024, 512)) << "now a stranger";
    fake.now += 501;
    EXPECT_FALSE(ask(a, DYP_TYPE_START, "GET NOTHING", 0, 512));
    EXPECT_EQ(log.count(LOG_WARNING, "command is not registered"), 1);
    EXPECT_FALSE(ep->session.requester) << "the stale session was left before the lookup";
    // On the wall clock a fresh session is protected all the same.
    dypd_handler_set_clock(nullptr);
    ASSERT_TRUE(ask(a, DYP_TYPE_START, "GET READ", 0, 512));
    EXPECT_FALSE(ask(b, DYP_TYPE_START, "GET READ", 0, 512));
}

TEST_F(HandlerTest, AdvertiseReplyWaitsWhileCommandsAreAnsweredAndShieldsTheSession) {
    ASSERT_EQ(dypd_register_advertise_handler(ep, fake_advertise), 0);
    EXPECT_EQ(dypd_register_advertise_handler(ep, fake_advertise), -EINVAL) << "one at most";
    EXPECT_EQ(ask(b, DYP_TYPE_ADVERTISE, "", 0, 0), bytes{}) << "a result of 0: at once";
    EXPECT_EQ(dypd_reply_queue_wait_ms(), -1) << "and nothing queued";
    fake.advertise_result = DYP_ADVERTISE_REPLY_SIZE;
    ASSERT_TRUE(ask(a, DYP_TYPE_START, "GET READ", 0, 512));
    EXPECT_FALSE(ask(b, DYP_TYPE_ADVERTISE, "", 0, 0)) << "not before its delay";
    int wait_ms = dypd_reply_queue_wait_ms();
    ASSERT_TRUE(wait_ms >= 0 && wait_ms <= 150) << wait_ms;
    // The transfer goes on meanwhile, and the advertise reply still waits.
    EXPECT_EQ(ask(a, DYP_TYPE_DATA, "", 512, 512)->size(), 520u);
    EXPECT_FALSE(next_datagram(b.get()));
    fake.now_us += static_cast<uint32_t>(wait_ms) * 1000;
    dypd_reply_queue_send_due();
    EXPECT_EQ(next_datagram(b.get()), bytes(164, 0xa5));
    EXPECT_EQ(dypd_reply_queue_wait_ms(), -1) << "sent once";
    // The last transfer reply is 400 ms old; the advertise request alone
    // renews the shield, though its reply is still waiting.
    fake.now += 400;
    EXPECT_FALSE(ask(b, DYP_TYPE_ADVERTISE, "", 0, 0));
    fake.now += 500;
    EXPECT_FALSE(ask(b, DYP_TYPE_START, "GET READ", 0, 512));
    EXPECT_TRUE(ep->session.requester);
}

// Each reply waits a delay of its own below 150 ms (early sends: see the
// reply queue's test); the delays spread over the range.
TEST_F(HandlerTest, AdvertiseDelaysAreDrawnPerReplyBelow150ms) {
    ASSERT_EQ(dypd_register_advertise_handler(ep, fake_advertise), 0);
    fake.advertise_result = DYP_ADVERTISE_REPLY_SIZE;
    int shortest = 150, longest = 0;
    for (int i = 0; i < 40; ++i) {
        ASSERT_FALSE(ask(b, DYP_TYPE_ADVERTISE, "", 0, 0));
        int wait_ms = dypd_reply_queue_wait_ms();
        ASSERT_TRUE(wait_ms >= 0 && wait_ms <= 150) << wait_ms;
        fake.now_us += 150000;
        dypd_reply_queue_send_due();
        ASSERT_EQ(next_datagram(b.get()), bytes(164, 0xa5));
        shortest = std::min(shortest, wait_ms);
        longest = std::max(longest, wait_ms);
    }
    EXPECT_GT(longest - shortest, 50) << "the same delay, again and again";
}
} // namespace
