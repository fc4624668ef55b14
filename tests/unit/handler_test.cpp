#include "protocol/handler.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <net/if.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <vector>

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
struct command_probe {
    uint32_t result_size = 0;
    bool fail = false;
    int calls = 0;
    uint32_t size_given = 0;
    bytes buffer_seen;
    bytes request_seen;
} probe;

uint8_t pattern(uint32_t i) {
    return static_cast<uint8_t>(i * 7 + i / 251);
}

int32_t produce_result(dypd_session *, const uint8_t *request, uint8_t *buffer, uint32_t size) {
    ++probe.calls;
    probe.size_given = size;
    probe.request_seen.assign(request, request + DYP_REQUEST_MAX);
    probe.buffer_seen.assign(buffer, buffer + std::min<uint32_t>(size, DYP_EXEC_DATA_SIZE));
    if (probe.fail)
        return -EIO;
    for (uint32_t i = 0; i < probe.result_size; ++i)
        buffer[i] = pattern(i);
    return static_cast<int32_t>(probe.result_size);
}

int32_t consume_upload(dypd_session *, const uint8_t *request, uint8_t *buffer, uint32_t size) {
    ++probe.calls;
    probe.size_given = size;
    probe.request_seen.assign(request, request + DYP_REQUEST_HEADER_SIZE);
    probe.buffer_seen.assign(buffer, buffer + size);
    return -EIO; // ignored by the handler
}

const dypd_command commands[] = {
    {"GET READ", DYPD_XFER_READ, produce_result},
    {"PUT WRITE", DYPD_XFER_WRITE, consume_upload},
    {"EXEC RUN", DYPD_XFER_EXEC, produce_result},
};

uint32_t fake_now;
std::vector<uint32_t> sleeps;
uint32_t fake_clock() {
    return fake_now;
}
void fake_sleep(uint32_t microseconds) {
    sleeps.push_back(microseconds);
}

struct advertise_probe {
    int32_t result = 0;
    int calls = 0;
    int32_t ifindex = 0;
    uint32_t capacity = 0;
} adv;

int32_t test_advertise(const uint8_t *, uint8_t *reply, uint32_t capacity, const sockaddr_in *,
                       int32_t ifindex) {
    ++adv.calls;
    adv.ifindex = ifindex;
    adv.capacity = capacity;
    for (int32_t i = 0; i < adv.result; ++i)
        reply[i] = static_cast<uint8_t>(0xa0 + i);
    return adv.result;
}

bytes request(uint16_t type, const char *name, uint16_t offset, uint16_t length,
              size_t size = DYP_REQUEST_HEADER_SIZE) {
    bytes r(std::max<size_t>(size, DYP_REQUEST_HEADER_SIZE), 0);
    put_be16(r.data() + DYP_REQ_TYPE, type);
    if (name != nullptr)
        std::strncpy(reinterpret_cast<char *>(r.data() + DYP_REQ_NAME), name, DYP_NAME_SIZE);
    put_be16(r.data() + DYP_REQ_OFFSET, offset);
    put_be16(r.data() + DYP_REQ_LENGTH, length);
    r.resize(size); // a short datagram is cut from a whole header
    return r;
}

struct reply_view {
    bytes raw;
    uint16_t status() const { return get_be16(raw.data() + DYP_RSP_STATUS); }
    uint16_t offset() const { return get_be16(raw.data() + DYP_RSP_OFFSET); }
    uint16_t length() const { return get_be16(raw.data() + DYP_RSP_LENGTH); }
    size_t data_size() const { return raw.size() - DYP_RESPONSE_HEADER_SIZE; }
    const uint8_t *data() const { return raw.data() + DYP_RSP_DATA; }
};

unique_fd loopback_socket(uint16_t *port_out = nullptr) {
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    EXPECT_EQ(getsockname(fd.get(), reinterpret_cast<sockaddr *>(&a), &len), 0);
    if (port_out != nullptr)
        *port_out = ntohs(a.sin_port);
    return fd;
}

bool wait_readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 2000) == 1;
}

class HandlerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        probe = command_probe{};
        adv = advertise_probe{};
        sleeps.clear();
        fake_now = 100000;
        dypd_handler_set_clock(fake_clock, fake_sleep);
        ASSERT_EQ(dypd_command_init(), 0);
        ASSERT_EQ(dypd_register_commands(commands, 3), 0);
        open_endpoint();
        client_a = loopback_socket();
        client_b = loopback_socket();
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

    // The endpoint binds the wildcard address on a port of its own; a probe
    // socket finds one that is free.
    void open_endpoint() {
        ASSERT_EQ(dypd_init_socket(&ep.header, DYPD_ENDPOINT_UDP), 0);
        { unique_fd probe_fd = loopback_socket(&port); }
        ASSERT_EQ(dypd_set_udp_port(&ep.header, port), 0);
        ASSERT_EQ(dypd_open_socket(&ep.header), 0);
        ep.recv_buffer = static_cast<uint8_t *>(dyp_calloc(1, DYP_REQUEST_MAX));
        ep.send_buffer = static_cast<uint8_t *>(dyp_calloc(1, DYP_RESPONSE_MAX));
        ASSERT_EQ(dypd_session_init(&ep.session), 0);
    }

    void send_from(const unique_fd &client, const bytes &packet) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(sendto(client.get(), packet.data(), packet.size(), 0,
                         reinterpret_cast<sockaddr *>(&to), sizeof to),
                  static_cast<ssize_t>(packet.size()));
    }

    // One pass of the main loop for this endpoint: the request is handled
    // to its end, so any reply is queued at the client when this returns.
    void step() {
        ASSERT_TRUE(wait_readable(ep.header.fd));
        dypd_dyp_handler(&dyp_daemon, &ep);
    }

    std::optional<reply_view> exchange(const unique_fd &client, const bytes &packet) {
        send_from(client, packet);
        step();
        return pending_reply(client);
    }

    static std::optional<reply_view> pending_reply(const unique_fd &client) {
        uint8_t buf[2048];
        ssize_t n = recv(client.get(), buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0)
            return std::nullopt;
        return reply_view{bytes(buf, buf + n)};
    }

    bool in_progress() const {
        return ep.session.command != nullptr && ep.session.requester != nullptr;
    }

    dypd_udp_port ep{};
    uint16_t port = 0;
    unique_fd client_a, client_b;
    log_capture log;
};

void expect_window(const reply_view &r, uint16_t offset, size_t count) {
    ASSERT_EQ(r.data_size(), count);
    for (size_t i = 0; i < count; ++i)
        ASSERT_EQ(r.data()[i], pattern(static_cast<uint32_t>(offset + i))) << "byte " << i;
}

// ---- mode 0: reading a result in windows ----

TEST_F(HandlerTest, ReadsResultInWindowsOf512WithStatusUntilTheLast) {
    probe.result_size = 1200;
    auto r = exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512));
    ASSERT_TRUE(r);
    EXPECT_EQ(probe.calls, 1);
    EXPECT_EQ(probe.size_given, DYPD_SESSION_BUFFER_SIZE);
    EXPECT_EQ(r->raw[0], 0x00);
    EXPECT_EQ(r->raw[1], 0x01);
    EXPECT_EQ(r->status(), 1);
    EXPECT_EQ(r->offset(), 0);
    EXPECT_EQ(r->length(), 512);
    expect_window(*r, 0, 512);
    EXPECT_EQ(ep.session.ifindex, static_cast<int32_t>(if_nametoindex("lo")));

    r = exchange(client_a, request(DYP_TYPE_DATA, nullptr, 512, 512));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->raw[0], 0x00);
    EXPECT_EQ(r->raw[1], 0x02);
    EXPECT_EQ(r->status(), 1);
    EXPECT_EQ(r->offset(), 512);
    expect_window(*r, 512, 512);

    r = exchange(client_a, request(DYP_TYPE_DATA, nullptr, 1024, 512));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status(), 0);
    EXPECT_EQ(r->offset(), 1024);
    EXPECT_EQ(r->length(), 176);
    expect_window(*r, 1024, 176);

    r = exchange(client_a, request(DYP_TYPE_END, nullptr, 1024, 176));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->raw, (bytes{0x00, 0x03, 0, 0, 0, 0, 0, 0}));
    EXPECT_FALSE(in_progress());
    EXPECT_EQ(probe.calls, 1) << "a read command runs once, at START";
}

TEST_F(HandlerTest, CutsARequestedLengthAboveOneWindow) {
    probe.result_size = 2000;
    auto r = exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 1000));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status(), 1);
    EXPECT_EQ(r->length(), 512);
    expect_window(*r, 0, 512);
}

TEST_F(HandlerTest, ReadsAShortResultWholeInTheStartReply) {
    probe.result_size = 40;
    auto r = exchange(client_a, request(DYP_TYPE_START, "GET READ:arg", 0, 512));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status(), 0);
    EXPECT_EQ(r->length(), 40);
    expect_window(*r, 0, 40);
    EXPECT_STREQ(reinterpret_cast<const char *>(probe.request_seen.data() + DYP_REQ_NAME),
                 "GET READ:arg");
}

TEST_F(HandlerTest, EndBeforeTheLastWindowReportsMoreAndStillCloses) {
    probe.result_size = 1200;
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    // An END's length is never cut: 0 + 1100 < 1200 still leaves bytes.
    auto r = exchange(client_a, request(DYP_TYPE_END, nullptr, 0, 1100));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->raw, (bytes{0x00, 0x03, 0, 1, 0, 0, 0, 0}));
    EXPECT_FALSE(in_progress());
    r = exchange(client_a, request(DYP_TYPE_END, nullptr, 0, 1200));
    EXPECT_FALSE(r) << "the session is closed";
}

TEST_F(HandlerTest, OffsetBeyondTheResultWrapsLengthButNotTheDatagram) {
    probe.result_size = 100;
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    auto r = exchange(client_a, request(DYP_TYPE_DATA, nullptr, 300, 16));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status(), 0);
    EXPECT_EQ(r->offset(), 300);
    EXPECT_EQ(r->length(), static_cast<uint16_t>(100 - 300));
    EXPECT_EQ(r->raw.size(), 8u + 16u);
    r = exchange(client_a, request(DYP_TYPE_DATA, nullptr, 300, 2000));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->raw.size(), DYP_RESPONSE_MAX);
    EXPECT_TRUE(in_progress());
}

TEST_F(HandlerTest, WindowPastTheSessionBufferAbandonsTheSession) {
    probe.result_size = 100;
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_DATA, nullptr, 65535, 2)));
    EXPECT_FALSE(in_progress());
}

TEST_F(HandlerTest, FailingReadCommandGetsNoReplyAndNoSession) {
    probe.fail = true;
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_FALSE(in_progress());
    EXPECT_EQ(ep.session.length, 0u);
}

// ---- mode 1: uploads ----

TEST_F(HandlerTest, UploadIsAcknowledgedAndHandedToTheCommandAtEnd) {
    bytes start = request(DYP_TYPE_START, "PUT WRITE", 0, 10, DYP_REQUEST_HEADER_SIZE + 10);
    std::memcpy(start.data() + DYP_REQ_DATA, "0123456789", 10);
    auto r = exchange(client_a, start);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->raw, (bytes{0x00, 0x01, 0, 0, 0, 10, 0, 10}));
    EXPECT_EQ(probe.calls, 0);

    bytes data = request(DYP_TYPE_DATA, nullptr, 10, 5, DYP_REQUEST_HEADER_SIZE + 5);
    std::memcpy(data.data() + DYP_REQ_DATA, "abcde", 5);
    r = exchange(client_a, data);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->raw, (bytes{0x00, 0x02, 0, 0, 0, 15, 0, 5}));

    r = exchange(client_a, request(DYP_TYPE_END, nullptr, 15, 0));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->raw, (bytes{0x00, 0x03, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(probe.calls, 1);
    EXPECT_EQ(probe.size_given, 15u);
    EXPECT_EQ(std::string(probe.buffer_seen.begin(), probe.buffer_seen.end()), "0123456789abcde");
    EXPECT_EQ(get_be16(probe.request_seen.data()), DYP_TYPE_END);
    EXPECT_EQ(ep.session.length, 0u);
    EXPECT_FALSE(in_progress());
}

TEST_F(HandlerTest, UploadAcknowledgementOffsetWrapsAt65536) {
    auto r = exchange(client_a,
                      request(DYP_TYPE_START, "PUT WRITE", 65530, 6, DYP_REQUEST_HEADER_SIZE + 6));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->offset(), 0);
    EXPECT_EQ(r->length(), 6);
}

TEST_F(HandlerTest, UploadLongerThanTheDataAreaIsRefused) {
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_START, "PUT WRITE", 0, 423, DYP_REQUEST_MAX)));
    EXPECT_FALSE(in_progress());
}

// ---- mode 2: execution ----

TEST_F(HandlerTest, ExecHandsTheWholeDataAreaAndRepliesWithTheResult) {
    // Leave a trace in the receive buffer beyond the short datagram.
    bytes filler = request(DYP_TYPE_DATA, nullptr, 0, 0, DYP_REQUEST_MAX);
    std::fill(filler.begin() + DYP_REQ_DATA, filler.end(), 0xee);
    EXPECT_FALSE(exchange(client_b, filler));

    probe.result_size = 30;
    bytes start = request(DYP_TYPE_START, "EXEC RUN", 7, 3, DYP_REQUEST_HEADER_SIZE + 12);
    std::memset(start.data() + DYP_REQ_DATA, 0x42, 12);
    auto r = exchange(client_a, start);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status(), 0);
    EXPECT_EQ(r->offset(), 0);
    EXPECT_EQ(r->length(), 30);
    expect_window(*r, 0, 30);
    ASSERT_EQ(probe.buffer_seen.size(), DYP_EXEC_DATA_SIZE);
    EXPECT_EQ(probe.buffer_seen[11], 0x42);
    EXPECT_EQ(probe.buffer_seen[12], 0xee) << "the data area is taken whole";
    EXPECT_EQ(probe.size_given, DYPD_SESSION_BUFFER_SIZE);

    r = exchange(client_a, request(DYP_TYPE_DATA, nullptr, 100, 20));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->raw, (bytes{0x00, 0x02, 0, 0, 0, 120, 0, 20}));
    EXPECT_EQ(probe.calls, 1) << "DATA does not run the command again";

    r = exchange(client_a, request(DYP_TYPE_END, nullptr, 0, 0));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->raw, (bytes{0x00, 0x03, 0, 0, 0, 0, 0, 0}));
    EXPECT_FALSE(in_progress());
}

TEST_F(HandlerTest, ExecResultLongerThanOneWindowIsCut) {
    probe.result_size = 700;
    auto r = exchange(client_a, request(DYP_TYPE_START, "EXEC RUN", 0, 0));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->length(), DYP_WINDOW_MAX);
    expect_window(*r, 0, DYP_WINDOW_MAX);
    EXPECT_EQ(ep.session.length, 700u);
}

TEST_F(HandlerTest, FailingExecCommandAbandonsTheSession) {
    probe.fail = true;
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_START, "EXEC RUN", 0, 0)));
    EXPECT_FALSE(in_progress());
    EXPECT_EQ(ep.session.length, 0u);
}

// ---- who may use the session ----

TEST_F(HandlerTest, SecondRequesterIsDroppedAt500msAndDisplacesAt501ms) {
    probe.result_size = 1200;
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_EQ(ep.header.last_activity, fake_now);

    fake_now += 500;
    EXPECT_FALSE(exchange(client_b, request(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_EQ(probe.calls, 1);
    auto r = exchange(client_a, request(DYP_TYPE_DATA, nullptr, 512, 512));
    ASSERT_TRUE(r) << "the first requester keeps its session";
    EXPECT_EQ(r->offset(), 512);

    fake_now += 501;
    probe.result_size = 300;
    r = exchange(client_b, request(DYP_TYPE_START, "GET READ", 0, 512));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->length(), 300);
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_DATA, nullptr, 1024, 512)))
        << "the displaced requester is now a stranger";
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_END, nullptr, 0, 0)));
    EXPECT_TRUE(in_progress());
    EXPECT_TRUE(exchange(client_b, request(DYP_TYPE_END, nullptr, 0, 300)));
    EXPECT_FALSE(in_progress());
}

TEST_F(HandlerTest, SameRequesterRestartingWithin500msIsDroppedToo) {
    probe.result_size = 1200;
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    fake_now += 200;
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_START, "EXEC RUN", 0, 0)));
    EXPECT_EQ(ep.session.command, &commands[0]);
}

TEST_F(HandlerTest, ClockDifferenceIsTakenModulo2To32) {
    fake_now = UINT32_MAX - 100;
    probe.result_size = 1200;
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    fake_now = 399; // 500 ms later, across the wrap
    EXPECT_FALSE(exchange(client_b, request(DYP_TYPE_START, "GET READ", 0, 512)));
    fake_now = 400;
    EXPECT_TRUE(exchange(client_b, request(DYP_TYPE_START, "GET READ", 0, 512)));
}

TEST_F(HandlerTest, RealClockProtectsAFreshSession) {
    dypd_handler_set_clock(nullptr, nullptr);
    probe.result_size = 1200;
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_NE(ep.header.last_activity, 0u);
    // Far less than half a second has passed since the reply above.
    EXPECT_FALSE(exchange(client_b, request(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_TRUE(exchange(client_a, request(DYP_TYPE_DATA, nullptr, 512, 512)));
}

TEST_F(HandlerTest, UnknownCommandWarnsWithoutReplyAfterLeavingAStaleSession) {
    probe.result_size = 1200;
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    fake_now += 600;
    log.clear();
    EXPECT_FALSE(exchange(client_b, request(DYP_TYPE_START, "GET NOTHING", 0, 512)));
    EXPECT_EQ(log.count(LOG_WARNING, "command is not registered"), 1);
    EXPECT_FALSE(in_progress());
}

TEST_F(HandlerTest, DataOrEndWithoutSessionIsLoggedWithItsType) {
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_DATA, "GET READ", 0, 512)));
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_END, "GET READ", 0, 512)));
    EXPECT_EQ(log.count(LOG_ERR, "session is NOT in progress or other cause, cond 2"), 1);
    EXPECT_EQ(log.count(LOG_ERR, "session is NOT in progress or other cause, cond 3"), 1);
    EXPECT_EQ(probe.calls, 0);
}

TEST_F(HandlerTest, InvalidTypesFromAnybodyAbandonTheSession) {
    for (uint16_t type : {0, 5, 0xffff}) {
        probe.result_size = 1200;
        fake_now += 1000;
        ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
        EXPECT_FALSE(exchange(client_b, request(type, nullptr, 0, 0))) << type;
        EXPECT_FALSE(in_progress()) << type;
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(HandlerTest, ShortDatagramIsIgnoredAndLeavesTheSession) {
    probe.result_size = 1200;
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_FALSE(exchange(client_a, request(5, nullptr, 0, 0, DYP_REQUEST_HEADER_SIZE - 1)));
    EXPECT_TRUE(in_progress());
    EXPECT_TRUE(exchange(client_a, request(DYP_TYPE_DATA, nullptr, 512, 512)));
}

TEST_F(HandlerTest, NameFieldIsCutAt79CharactersAndIgnoredOutsideStart) {
    static dypd_command long_name{{}, DYPD_XFER_READ, produce_result};
    std::string name(79, 'N');
    std::memcpy(long_name.name, name.c_str(), 80);
    ASSERT_EQ(dypd_register_command(&long_name), 0);
    bytes start = request(DYP_TYPE_START, nullptr, 0, 512);
    std::memset(start.data() + DYP_REQ_NAME, 'N', DYP_NAME_SIZE);
    probe.result_size = 10;
    ASSERT_TRUE(exchange(client_a, start));
    EXPECT_EQ(probe.request_seen[DYP_REQ_NAME + 79], 0) << "byte 83 is terminated";
    EXPECT_EQ(ep.session.command, &long_name);
    EXPECT_TRUE(exchange(client_a, request(DYP_TYPE_END, "PUT WRITE", 0, 10)));
    dypd_unregister_command(&long_name);
}

TEST_F(HandlerTest, TransferAllocatesOnlyTheRequesterCopy) {
    probe.result_size = 1200;
    unsigned long before = dyp_alloc_count();
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    EXPECT_EQ(dyp_alloc_count() - before, 1u);
    before = dyp_alloc_count();
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_DATA, nullptr, 512, 512)));
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_END, nullptr, 0, 0)));
    EXPECT_EQ(dyp_alloc_count() - before, 0u);
}

TEST_F(HandlerTest, NoMemoryForTheRequesterMeansNoReply) {
    probe.result_size = 10;
    dyp_alloc_fail_after(1);
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));
    dyp_alloc_fail_after(0);
    EXPECT_FALSE(in_progress());
    EXPECT_EQ(probe.calls, 0);
}

TEST(HandlerNullEndpoint, IsIgnored) {
    dypd_dyp_handler(&dyp_daemon, nullptr);
}

// ---- advertise ----

TEST_F(HandlerTest, AdvertiseReplyIsDelayedAndCountsAsActivity) {
    ASSERT_EQ(dypd_register_advertise_handler(&ep, test_advertise), 0);
    adv.result = 164;
    probe.result_size = 1200;
    ASSERT_TRUE(exchange(client_a, request(DYP_TYPE_START, "GET READ", 0, 512)));

    fake_now += 400;
    auto r = exchange(client_b, request(DYP_TYPE_ADVERTISE, nullptr, 0, 0));
    ASSERT_TRUE(r);
    ASSERT_EQ(r->raw.size(), 164u);
    EXPECT_EQ(r->raw[0], 0xa0);
    EXPECT_EQ(r->raw[163], static_cast<uint8_t>(0xa0 + 163));
    EXPECT_EQ(adv.capacity, DYP_RESPONSE_MAX);
    EXPECT_EQ(adv.ifindex, static_cast<int32_t>(if_nametoindex("lo")));
    ASSERT_EQ(sleeps.size(), 1u);
    EXPECT_LT(sleeps[0], 150000u);
    EXPECT_EQ(ep.header.last_activity, fake_now);
    EXPECT_TRUE(in_progress()) << "the session is not touched";

    // 900 ms after the transfer reply but only 500 after the advertise reply.
    fake_now += 500;
    EXPECT_FALSE(exchange(client_b, request(DYP_TYPE_START, "GET READ", 0, 512)));
    fake_now += 1;
    EXPECT_TRUE(exchange(client_b, request(DYP_TYPE_START, "GET READ", 0, 512)));
}

TEST_F(HandlerTest, AdvertiseZeroSendsAnEmptyDatagramAtOnce) {
    ASSERT_EQ(dypd_register_advertise_handler(&ep, test_advertise), 0);
    adv.result = 0;
    uint32_t before = ep.header.last_activity;
    auto r = exchange(client_a, request(DYP_TYPE_ADVERTISE, nullptr, 0, 0));
    ASSERT_TRUE(r);
    EXPECT_TRUE(r->raw.empty());
    EXPECT_TRUE(sleeps.empty());
    EXPECT_EQ(ep.header.last_activity, before);
}

TEST_F(HandlerTest, AdvertiseFailureOrMissingHandlerSendsNothing) {
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_ADVERTISE, nullptr, 0, 0)));
    ASSERT_EQ(dypd_register_advertise_handler(&ep, test_advertise), 0);
    adv.result = -EINVAL;
    EXPECT_FALSE(exchange(client_a, request(DYP_TYPE_ADVERTISE, nullptr, 0, 0)));
    EXPECT_EQ(adv.calls, 1);
    EXPECT_TRUE(sleeps.empty());
}
} // namespace
