#include "protocol/handler.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <syslog.h>

#include "daemon/dypd_priv.h"
#include "lib/alloc.h"
#include "lib/be.h"
#include "lib/fd.h"
#include "protocol/command.h"
#include "protocol/packet.h"
#include "support/log_capture.h"

namespace {
using bytes = std::vector<uint8_t>;

// What the test commands produce and what they were given.
struct {
    uint32_t result_size;
    bool fail;
    int calls;
    uint32_t size_given;
    bytes seen; // the start of the buffer the command was handed
} cmd;

uint8_t pattern(uint32_t i) {
    return static_cast<uint8_t>(i * 7 + i / 251);
}

int32_t produce(dypd_session *, const uint8_t *, uint8_t *buffer, uint32_t size) {
    ++cmd.calls;
    cmd.size_given = size;
    cmd.seen.assign(buffer, buffer + std::min<uint32_t>(size, DYP_EXEC_DATA_SIZE));
    for (uint32_t i = 0; i < cmd.result_size; ++i)
        buffer[i] = pattern(i);
    return cmd.fail ? -EIO : static_cast<int32_t>(cmd.result_size);
}

const dypd_command commands[] = {
    {"GET READ", DYPD_XFER_READ, produce},
    {"PUT WRITE", DYPD_XFER_WRITE, produce},
    {"EXEC RUN", DYPD_XFER_EXEC, produce},
};

uint32_t fake_now;
std::vector<uint32_t> sleeps;
int32_t advertise_result;

int32_t fake_advertise(const uint8_t *, uint8_t *reply, uint32_t, const sockaddr_in *, int32_t) {
    std::memset(reply, 0xa5, DYP_ADVERTISE_REPLY_SIZE);
    return advertise_result;
}

// A request of `size` bytes: the header, then data bytes of `fill`.
bytes packet(uint16_t type, const char *name, uint16_t offset, uint16_t length,
             size_t size = DYP_REQUEST_HEADER_SIZE, uint8_t fill = 0) {
    bytes r(std::max<size_t>(size, DYP_REQUEST_HEADER_SIZE), fill);
    std::fill_n(r.begin(), DYP_REQUEST_HEADER_SIZE, 0);
    put_be16(r.data() + DYP_REQ_TYPE, type);
    if (name != nullptr)
        std::strncpy(reinterpret_cast<char *>(r.data() + DYP_REQ_NAME), name, DYP_NAME_SIZE);
    put_be16(r.data() + DYP_REQ_OFFSET, offset);
    put_be16(r.data() + DYP_REQ_LENGTH, length);
    r.resize(size); // a short datagram is cut from a whole header
    return r;
}

// The expected reply: a header followed by `count` result bytes from `from`.
bytes window(uint16_t type, uint16_t status, uint16_t offset, uint16_t length, uint32_t from = 0,
             uint32_t count = 0) {
    bytes r(DYP_RESPONSE_HEADER_SIZE);
    put_be16(r.data(), type);
    put_be16(r.data() + DYP_RSP_STATUS, status);
    put_be16(r.data() + DYP_RSP_OFFSET, offset);
    put_be16(r.data() + DYP_RSP_LENGTH, length);
    for (uint32_t i = 0; i < count; ++i)
        r.push_back(pattern(from + i));
    return r;
}

unique_fd loopback_client() {
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in any_port{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&any_port), sizeof any_port), 0);
    return fd;
}

// An endpoint on a free loopback port, two requesters and the handler's
// clock and sleep under the test's control.
class HandlerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        cmd = {};
        cmd.result_size = 1200;
        sleeps.clear();
        fake_now = 100000;
        dypd_handler_set_clock([] { return fake_now; }, [](uint32_t us) { sleeps.push_back(us); });
        ASSERT_EQ(dypd_command_init(), 0);
        ASSERT_EQ(dypd_register_commands(commands, 3), 0);
        ASSERT_EQ(dypd_init_socket(&ep.header, DYPD_ENDPOINT_UDP), 0);
        ASSERT_EQ(dypd_set_udp_port(&ep.header, 0), 0);
        ASSERT_EQ(dypd_open_socket(&ep.header), 0);
        socklen_t size = sizeof endpoint_address;
        ASSERT_EQ(getsockname(ep.header.fd, reinterpret_cast<sockaddr *>(&endpoint_address), &size),
                  0);
        endpoint_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ep.recv_buffer = static_cast<uint8_t *>(dyp_calloc(1, DYP_REQUEST_MAX));
        ep.send_buffer = static_cast<uint8_t *>(dyp_calloc(1, DYP_RESPONSE_MAX));
        ASSERT_EQ(dypd_session_init(&ep.session), 0);
        log.clear();
    }

    void TearDown() override {
        dypd_handler_set_clock(nullptr, nullptr);
        dypd_session_cleanup(&ep.session);
        dyp_free(ep.recv_buffer);
        dyp_free(ep.send_buffer);
        dypd_release_socket(&ep.header);
        dyp_free(ep.header.ports);
        dypd_command_cleanup();
    }

    // Sends from `client`, runs the handler once (one main-loop pass for
    // this endpoint) and returns the reply, queued by then, or nullopt.
    std::optional<bytes> exchange(const unique_fd &client, const bytes &request) {
        EXPECT_EQ(sendto(client.get(), request.data(), request.size(), 0,
                         reinterpret_cast<sockaddr *>(&endpoint_address), sizeof endpoint_address),
                  static_cast<ssize_t>(request.size()));
        pollfd readable{ep.header.fd, POLLIN, 0};
        EXPECT_EQ(poll(&readable, 1, 2000), 1);
        dypd_dyp_handler(&dyp_daemon, &ep);
        uint8_t buf[2048];
        ssize_t n = recv(client.get(), buf, sizeof buf, MSG_DONTWAIT);
        return n < 0 ? std::nullopt : std::optional<bytes>(bytes(buf, buf + n));
    }

    bool in_progress() const { return ep.session.command && ep.session.requester; }

    dypd_udp_port ep{};
    sockaddr_in endpoint_address{};
    unique_fd a = loopback_client(), b = loopback_client();
    log_capture log;
};

TEST_F(HandlerTest, ReadsTheResultInWindowsOf512AllocatingOnlyTheRequesterCopy) {
    unsigned long allocations = dyp_alloc_count();
    EXPECT_EQ(exchange(a, packet(DYP_TYPE_START, "GET READ:x", 0, 1000)),
              window(1, 1, 0, 512, 0, 512));
    EXPECT_EQ(cmd.size_given, DYPD_SESSION_BUFFER_SIZE);
    EXPECT_EQ(ep.session.ifindex, static_cast<int32_t>(if_nametoindex("lo")));
    EXPECT_FALSE(exchange(b, packet(0, nullptr, 0, 0, DYP_REQUEST_HEADER_SIZE - 1)))
        << "87 bytes are not a request and leave the session alone";
    EXPECT_EQ(exchange(a, packet(DYP_TYPE_DATA, nullptr, 1024, 512)),
              window(2, 0, 1024, 176, 1024, 176));
    // Beyond the result the length field wraps, the datagram does not grow.
    auto beyond = exchange(a, packet(DYP_TYPE_DATA, nullptr, 1300, 4));
    ASSERT_EQ(beyond.value_or(bytes{}).size(), 8u + 4u);
    EXPECT_EQ(bytes(beyond->begin(), beyond->begin() + 8), window(2, 0, 1300, 1200 - 1300));
    // An END's length is never cut: 0 + 1100 < 1200 still means more.
    EXPECT_EQ(exchange(a, packet(DYP_TYPE_END, nullptr, 0, 1100)), window(3, 1, 0, 0));
    EXPECT_FALSE(in_progress());
    EXPECT_EQ(cmd.calls, 1);
    EXPECT_EQ(dyp_alloc_count() - allocations, 1u);
}

TEST_F(HandlerTest, UploadIsAcknowledgedAndHandedToTheCommandAtEnd) {
    EXPECT_EQ(exchange(a, packet(DYP_TYPE_START, "PUT WRITE", 0, 10, 98, 'u')),
              window(1, 0, 10, 10));
    EXPECT_EQ(exchange(a, packet(DYP_TYPE_DATA, nullptr, 65530, 6, 94, 'w')), window(2, 0, 0, 6))
        << "the next offset wraps at 65536";
    EXPECT_EQ(cmd.calls, 0);
    EXPECT_EQ(exchange(a, packet(DYP_TYPE_END, nullptr, 0, 0)), window(3, 0, 0, 0));
    EXPECT_EQ(cmd.size_given, 65536u) << "up to the highest byte written";
    EXPECT_EQ(std::string(cmd.seen.begin(), cmd.seen.begin() + 10), std::string(10, 'u'));
    EXPECT_EQ(ep.session.length, 0u);
    EXPECT_FALSE(in_progress());
}

TEST_F(HandlerTest, ExecGetsTheWholeDataAreaAndRepliesWithAtMostOneWindow) {
    // Leave a trace in the receive buffer beyond the short START below.
    EXPECT_FALSE(exchange(b, packet(DYP_TYPE_DATA, nullptr, 0, 0, DYP_REQUEST_MAX, 0xee)));
    cmd.result_size = 700;
    EXPECT_EQ(exchange(a, packet(DYP_TYPE_START, "EXEC RUN", 7, 3, 100, 0x42)),
              window(1, 0, 0, 512, 0, 512));
    ASSERT_EQ(cmd.seen.size(), DYP_EXEC_DATA_SIZE);
    EXPECT_EQ(cmd.seen[11], 0x42);
    EXPECT_EQ(cmd.seen[12], 0xee);
    EXPECT_EQ(exchange(a, packet(DYP_TYPE_DATA, nullptr, 100, 20)), window(2, 0, 120, 20));
    EXPECT_EQ(exchange(a, packet(DYP_TYPE_END, nullptr, 0, 0)), window(3, 0, 0, 0));
    EXPECT_EQ(cmd.calls, 1);
    EXPECT_FALSE(in_progress());
}

TEST_F(HandlerTest, FailuresAbandonTheSessionWithoutReply) {
    struct {
        const char *name;
        bool fail;
        bytes second;
    } cases[] = {
        {"GET READ", true, {}},
        {"EXEC RUN", true, {}},
        {"GET READ", false, packet(DYP_TYPE_DATA, nullptr, 65535, 2)},
        {"PUT WRITE", false, packet(DYP_TYPE_DATA, nullptr, 0, 423, DYP_REQUEST_MAX)},
        {"GET READ", false, packet(0, nullptr, 0, 0)},
        {"GET READ", false, packet(5, nullptr, 0, 0)},
        {"GET READ", false, packet(0xffff, nullptr, 0, 0)},
    };
    for (const auto &c : cases) {
        fake_now += 1000;
        cmd.fail = c.fail;
        auto r = exchange(a, packet(DYP_TYPE_START, c.name, 0, 0));
        // An invalid type abandons the session whoever sends it.
        if (!c.second.empty())
            r = exchange(get_be16(c.second.data()) == DYP_TYPE_DATA ? a : b, c.second);
        EXPECT_FALSE(r) << c.name;
        EXPECT_FALSE(in_progress()) << c.name;
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(HandlerTest, AnotherStartIsDroppedAt500msAndDisplacesAt501ms) {
    ASSERT_TRUE(exchange(a, packet(DYP_TYPE_START, "GET READ", 0, 512)));
    fake_now += 500;
    EXPECT_FALSE(exchange(b, packet(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_FALSE(exchange(a, packet(DYP_TYPE_START, "EXEC RUN", 0, 0))) << "even the same host";
    EXPECT_EQ(exchange(a, packet(DYP_TYPE_DATA, nullptr, 512, 512))->size(), 520u);
    fake_now += 501;
    EXPECT_TRUE(exchange(b, packet(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_FALSE(exchange(a, packet(DYP_TYPE_DATA, nullptr, 1024, 512))) << "now a stranger";
    fake_now += 501;
    EXPECT_FALSE(exchange(a, packet(DYP_TYPE_START, "GET NOTHING", 0, 512)));
    EXPECT_EQ(log.count(LOG_WARNING, "command is not registered"), 1);
    EXPECT_FALSE(in_progress()) << "the stale session was left before the lookup";
}

TEST_F(HandlerTest, RealClockProtectsAFreshSession) {
    dypd_handler_set_clock(nullptr, nullptr);
    ASSERT_TRUE(exchange(a, packet(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_FALSE(exchange(b, packet(DYP_TYPE_START, "GET READ", 0, 512)));
}

TEST_F(HandlerTest, DataOrEndWithoutSessionIsLoggedWithItsType) {
    EXPECT_FALSE(exchange(a, packet(DYP_TYPE_DATA, "GET READ", 0, 512)));
    EXPECT_FALSE(exchange(a, packet(DYP_TYPE_END, "GET READ", 0, 512)));
    EXPECT_EQ(log.count(LOG_ERR, "session is NOT in progress or other cause, cond 2"), 1);
    EXPECT_EQ(log.count(LOG_ERR, "session is NOT in progress or other cause, cond 3"), 1);
    EXPECT_EQ(cmd.calls, 0);
}

TEST_F(HandlerTest, AdvertiseReplyIsDelayedAndShieldsTheSessionAnEmptyOneIsNot) {
    EXPECT_FALSE(exchange(a, packet(DYP_TYPE_ADVERTISE, nullptr, 0, 0))) << "no handler";
    ASSERT_EQ(dypd_register_advertise_handler(&ep, fake_advertise), 0);
    advertise_result = 0;
    EXPECT_EQ(exchange(b, packet(DYP_TYPE_ADVERTISE, nullptr, 0, 0)), bytes{});
    advertise_result = -EINVAL;
    EXPECT_FALSE(exchange(b, packet(DYP_TYPE_ADVERTISE, nullptr, 0, 0)));
    EXPECT_EQ(ep.header.last_activity, 0u);
    EXPECT_TRUE(sleeps.empty());

    advertise_result = DYP_ADVERTISE_REPLY_SIZE;
    ASSERT_TRUE(exchange(a, packet(DYP_TYPE_START, "GET READ", 0, 512)));
    fake_now += 400;
    EXPECT_EQ(exchange(b, packet(DYP_TYPE_ADVERTISE, nullptr, 0, 0)), bytes(164, 0xa5));
    ASSERT_EQ(sleeps.size(), 1u);
    EXPECT_LT(sleeps[0], 150000u);
    fake_now += 500; // 900 ms after the transfer reply, 500 after the advertise reply
    EXPECT_FALSE(exchange(b, packet(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_TRUE(in_progress());
}
} // namespace
