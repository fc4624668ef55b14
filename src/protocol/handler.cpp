#include "protocol/handler.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "lib/be.h"
#include "lib/clock.h"
#include "lib/log.h"
#include "protocol/command.h"
#include "protocol/packet.h"
#include "protocol/reply_queue.h"

namespace {
// A new START from anybody is refused until this long after the endpoint's
// last response, so that a host in the middle of a transfer keeps it.
constexpr uint32_t SESSION_GUARD_MS = 501;
// Upper bound (exclusive) of the random delay before an advertise reply, so
// that the replies of many boxes to one broadcast do not collide.
constexpr long ADVERTISE_DELAY_SPAN_US = 150000;

dypd_clock_fn clock_now = dypd_get_systime;

struct request_fields {
    uint16_t type;
    uint16_t offset;
    uint16_t length;
};

// What one request leads to: a response of `size` bytes in the transmit
// buffer, nothing at all, or the session abandoned without a word.
enum class outcome { reply, silence, abandon };

struct request_context {
    dypd_udp_port *endpoint;
    const uint8_t *request;
    request_fields fields;
    sockaddr_in sender;
    int ifindex;
    uint32_t size;
};

// Milliseconds from `since` to `now` on the 32-bit clock. The clock wraps
// about every 49.7 days and the difference is meant modulo 2^32; it is
// computed in 64 bits, so that the wrap is explicit, not an overflow.
uint32_t elapsed_ms(uint32_t now, uint32_t since) {
    return static_cast<uint32_t>((uint64_t{now} + (uint64_t{1} << 32) - since) & UINT32_MAX);
}

// The length field of the last window: what is left of a result of `total`
// bytes from `offset`, modulo 65536. An offset past the result wraps it on
// purpose (as hosts expect); the sum stays positive, so nothing overflows.
uint16_t window_rest(uint32_t total, uint16_t offset) {
    return static_cast<uint16_t>((total + 0x10000u - offset) & UINT16_MAX);
}

// What a datagram does not fill may still hold an earlier one's bytes, and
// a command reads the whole data area whatever the datagram's size: that
// tail is zeroed. Only what the previous datagram filled beyond this one
// needs it, so a run of requests of one size costs nothing. A failed
// receive may have filled the whole buffer (a datagram too long for it is
// read, then refused).
void clear_stale_request(dypd_udp_port *endpoint, int received) {
    uint32_t filled = received < 0 ? DYP_REQUEST_MAX : static_cast<uint32_t>(received);
    if (endpoint->recv_filled > filled)
        std::memset(endpoint->recv_buffer + filled, 0, endpoint->recv_filled - filled);
    endpoint->recv_filled = filled;
}

bool in_progress(const dypd_session *session) {
    return session->command != nullptr && session->requester != nullptr;
}

int receive_request(dypd_udp_port *endpoint, sockaddr_in *sender, int *ifindex) {
    int received;
    do {
        received = dypd_recvfrom(&endpoint->header, endpoint->recv_buffer, DYP_REQUEST_MAX, 0,
                                 sender, ifindex);
    } while (received == -EINTR);
    return received;
}

void send_reply(dypd_udp_port *endpoint, uint32_t size, const sockaddr_in *sender) {
    dypd_send_datagram(endpoint, endpoint->send_buffer, size, sender);
}

// Runs a command of mode 0 or 2 over the whole session buffer and records
// the size of its result; a failure records nothing.
int run_command(request_context &ctx) {
    dypd_session *session = &ctx.endpoint->session;
    uint32_t capacity = 0;
    uint8_t *buffer = dypd_session_get_buffer(session, &capacity);
    int32_t result = session->command->handler(session, ctx.request, buffer, capacity);
    dypd_session_release_buffer(session, buffer, result < 0 ? 0 : static_cast<uint32_t>(result));
    return result;
}

// Runs a mode 1 command over the upload; its result means nothing to the host.
void run_upload_command(request_context &ctx) {
    dypd_session *session = &ctx.endpoint->session;
    uint32_t capacity = 0;
    uint8_t *buffer = dypd_session_get_buffer(session, &capacity);
    (void)session->command->handler(session, ctx.request, buffer, session->length);
    dypd_session_release_buffer(session, buffer, 0);
}

// Makes sure that DATA, END and the continuation of START come from the
// session's own requester; a stranger is ignored without disturbing it.
outcome check_requester(request_context &ctx) {
    dypd_session *session = &ctx.endpoint->session;
    if (session->command == nullptr) {
        dyp_log(LOG_ERR, "session is NOT in progress or other cause, cond %d", ctx.fields.type);
        return outcome::abandon;
    }
    if (!dypd_session_equals(session, session->command, &ctx.sender))
        return outcome::silence;
    return outcome::reply;
}

// Opens the session for a START; a mode 0 command produces its result now.
outcome start_session(request_context &ctx) {
    dypd_session *session = &ctx.endpoint->session;
    if (in_progress(session)) {
        if (elapsed_ms(clock_now(), ctx.endpoint->header.last_activity) < SESSION_GUARD_MS)
            return outcome::silence;
        dypd_session_leave(session);
    }
    const dypd_command *command =
        dypd_get_command(reinterpret_cast<const char *>(ctx.request + DYP_REQ_NAME));
    if (command == nullptr) {
        dyp_log(LOG_WARNING, "command is not registered");
        return outcome::silence;
    }
    if (dypd_session_enter(session, command, &ctx.sender, ctx.ifindex) < 0)
        return outcome::silence;
    if (command->mode == DYPD_XFER_READ && run_command(ctx) < 0)
        return outcome::abandon;
    return outcome::reply;
}

// Moves one window: an upload is stored, a read window is copied into the
// transmit buffer after the header. Cuts a read `length` to one window.
outcome move_window(request_context &ctx) {
    dypd_session *session = &ctx.endpoint->session;
    request_fields &f = ctx.fields;
    const uint8_t *data = ctx.request + DYP_REQ_DATA;
    switch (session->command->mode) {
    case DYPD_XFER_WRITE:
        // An upload longer than the request's data area cannot have come in
        // this datagram; it is refused rather than read past the buffer.
        if (f.length > DYP_EXEC_DATA_SIZE)
            return outcome::abandon;
        return dypd_session_put_data(session, data, f.length, f.offset) < 0 ? outcome::abandon
                                                                            : outcome::reply;
    case DYPD_XFER_EXEC:
        return dypd_session_put_data(session, data, DYP_EXEC_DATA_SIZE, 0) < 0 ? outcome::abandon
                                                                               : outcome::reply;
    case DYPD_XFER_READ:
        f.length = static_cast<uint16_t>(std::min<uint32_t>(f.length, DYP_WINDOW_MAX));
        return dypd_session_get_data(session, ctx.endpoint->send_buffer + DYP_RSP_DATA, f.length,
                                     f.offset) < 0
                   ? outcome::abandon
                   : outcome::reply;
    default:
        return outcome::abandon;
    }
}

void put_response(request_context &ctx, uint16_t status, uint16_t offset, uint16_t length,
                  uint32_t data_size) {
    uint8_t *response = ctx.endpoint->send_buffer;
    response[DYP_RSP_TYPE] = ctx.request[DYP_REQ_TYPE];
    response[DYP_RSP_TYPE + 1] = ctx.request[DYP_REQ_TYPE + 1];
    put_be16(response + DYP_RSP_STATUS, status);
    put_be16(response + DYP_RSP_OFFSET, offset);
    put_be16(response + DYP_RSP_LENGTH, length);
    ctx.size = DYP_RESPONSE_HEADER_SIZE + data_size;
}

uint16_t acknowledged_offset(const request_fields &f) {
    return static_cast<uint16_t>(f.offset + f.length);
}

bool more_to_read(const request_context &ctx) {
    return static_cast<uint32_t>(ctx.fields.offset) + ctx.fields.length <
           ctx.endpoint->session.length;
}

// END closes the session in every mode: an upload is handed to its command
// first, and a read tells whether the host left part of the result unread.
outcome respond_end(request_context &ctx, int32_t mode) {
    uint16_t status = 0;
    if (mode == DYPD_XFER_READ)
        status = more_to_read(ctx) ? 1 : 0;
    if (mode == DYPD_XFER_WRITE)
        run_upload_command(ctx);
    put_response(ctx, status, 0, 0, 0);
    dypd_session_leave(&ctx.endpoint->session);
    return outcome::reply;
}

outcome respond_read(request_context &ctx) {
    const request_fields &f = ctx.fields;
    if (more_to_read(ctx)) {
        put_response(ctx, 1, f.offset, f.length, f.length);
        return outcome::reply;
    }
    // An offset beyond the result wraps the length field; the datagram
    // itself carries no more than the window copied for this request, so it
    // never reaches past the transmit buffer nor repeats stale bytes.
    uint16_t rest = window_rest(ctx.endpoint->session.length, f.offset);
    put_response(ctx, 0, f.offset, rest, std::min<uint32_t>(rest, f.length));
    return outcome::reply;
}

// The START of an exec command runs it and answers with its result.
outcome respond_exec_start(request_context &ctx) {
    int32_t result = run_command(ctx);
    if (result < 0)
        return outcome::abandon;
    // The transmit buffer holds one window: a longer result is cut to it.
    uint32_t n = std::min<uint32_t>(static_cast<uint16_t>(result), DYP_WINDOW_MAX);
    int err = dypd_session_get_data(&ctx.endpoint->session,
                                    ctx.endpoint->send_buffer + DYP_RSP_DATA, n, 0);
    if (err < 0) {
        dyp_log(LOG_ERR, "an error occurred while getting an session data, err %d", err);
        return outcome::abandon;
    }
    put_response(ctx, 0, 0, static_cast<uint16_t>(n), n);
    return outcome::reply;
}

outcome build_response(request_context &ctx) {
    int32_t mode = ctx.endpoint->session.command->mode;
    if (mode != DYPD_XFER_READ && mode != DYPD_XFER_WRITE && mode != DYPD_XFER_EXEC)
        return outcome::abandon;
    if (ctx.fields.type == DYP_TYPE_END)
        return respond_end(ctx, mode);
    if (mode == DYPD_XFER_READ)
        return respond_read(ctx);
    if (mode == DYPD_XFER_EXEC && ctx.fields.type == DYP_TYPE_START)
        return respond_exec_start(ctx);
    // Any other window of an upload or an exec is acknowledged.
    put_response(ctx, 0, acknowledged_offset(ctx.fields), ctx.fields.length, 0);
    return outcome::reply;
}

// START opens the session and then counts as the first DATA packet; END
// skips the window.
outcome handle_transfer(request_context &ctx) {
    outcome result = outcome::reply;
    if (ctx.fields.type == DYP_TYPE_START)
        result = start_session(ctx);
    if (result == outcome::reply)
        result = check_requester(ctx);
    if (result == outcome::reply && ctx.fields.type != DYP_TYPE_END)
        result = move_window(ctx);
    return result == outcome::reply ? build_response(ctx) : result;
}

// The session is neither consulted nor changed by a discovery request. A
// reply waits in the queue for its delay while the daemon goes on serving.
void handle_advertise(request_context &ctx) {
    dypd_udp_port *endpoint = ctx.endpoint;
    if (endpoint->advertise == nullptr)
        return;
    // Over a bound the request is refused before the handler does any work.
    dypd_queued_reply *slot = dypd_reply_queue_slot(&ctx.sender);
    if (slot == nullptr)
        return;
    int32_t size = endpoint->advertise(ctx.request, slot->bytes, DYP_RESPONSE_MAX, &ctx.sender,
                                       ctx.ifindex);
    if (size == 0)
        dypd_send_datagram(endpoint, slot->bytes, 0, &ctx.sender);
    if (size <= 0)
        return;
    // A reply counts as activity from the moment the request is handled,
    // so it shields a transfer in progress.
    endpoint->header.last_activity = clock_now();
    // A handler that claims more than it was given cannot make the reply
    // read past the slot.
    dypd_reply_queue_push(slot, endpoint, &ctx.sender,
                          std::min<uint32_t>(static_cast<uint32_t>(size), DYP_RESPONSE_MAX),
                          static_cast<uint32_t>(random() % ADVERTISE_DELAY_SPAN_US));
}

void abandon_session(dypd_session *session) {
    if (in_progress(session))
        dypd_session_leave(session);
}
} // namespace

void dypd_handler_set_clock(dypd_clock_fn clock) {
    clock_now = clock != nullptr ? clock : dypd_get_systime;
}

void dypd_dyp_handler(dyp_daemon_context *daemon, dypd_udp_port *endpoint) {
    (void)daemon;
    if (endpoint == nullptr)
        return;
    request_context ctx{};
    ctx.endpoint = endpoint;
    ctx.request = endpoint->recv_buffer;
    int received = receive_request(endpoint, &ctx.sender, &ctx.ifindex);
    clear_stale_request(endpoint, received);
    if (received < static_cast<int>(DYP_REQUEST_HEADER_SIZE))
        return;
    uint8_t *request = endpoint->recv_buffer;
    request[DYP_REQ_NAME + DYP_NAME_SIZE - 1] = '\0';
    ctx.fields = {get_be16(request + DYP_REQ_TYPE), get_be16(request + DYP_REQ_OFFSET),
                  get_be16(request + DYP_REQ_LENGTH)};

    outcome result;
    switch (ctx.fields.type) {
    case DYP_TYPE_START:
    case DYP_TYPE_DATA:
    case DYP_TYPE_END:
        result = handle_transfer(ctx);
        break;
    case DYP_TYPE_ADVERTISE:
        handle_advertise(ctx);
        return;
    default:
        result = outcome::abandon;
        break;
    }
    if (result == outcome::abandon) {
        abandon_session(&endpoint->session);
    } else if (result == outcome::reply) {
        endpoint->header.last_activity = clock_now();
        send_reply(endpoint, ctx.size, &ctx.sender);
    }
}
