#include "protocol/session.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "lib/alloc.h"
#include "protocol/command.h"

namespace {
// Family, port and IPv4 address name a requester; the zero padding after
// them is not compared. Field by field, without a call to memcmp.
bool same_requester(const sockaddr_in &a, const sockaddr_in &b) {
    return a.sin_family == b.sin_family && a.sin_port == b.sin_port &&
           a.sin_addr.s_addr == b.sin_addr.s_addr;
}

// A range [position, position + count) inside the buffer; the end may touch
// the buffer's end exactly.
bool range_fits(uint32_t count, uint32_t position) {
    return static_cast<uint64_t>(position) + count <= DYPD_SESSION_BUFFER_SIZE;
}
} // namespace

int dypd_session_init(dypd_session *session) {
    *session = dypd_session{};
    session->buffer = static_cast<uint8_t *>(dyp_calloc(1, DYPD_SESSION_BUFFER_SIZE));
    return session->buffer == nullptr ? -ENOMEM : 0;
}

void dypd_session_cleanup(dypd_session *session) {
    dyp_free(session->buffer);
    session->buffer = nullptr;
    dyp_free(session->requester);
    session->requester = nullptr;
}

int dypd_session_enter(dypd_session *session, const dypd_command *command,
                       const sockaddr_in *requester, int32_t ifindex) {
    if (session == nullptr || requester == nullptr)
        return -EINVAL;
    if (session->requester != nullptr)
        return -EINPROGRESS;
    auto *copy = static_cast<sockaddr_in *>(dyp_malloc(sizeof(sockaddr_in)));
    if (copy == nullptr)
        return -ENOMEM;
    std::memcpy(copy, requester, sizeof(sockaddr_in));
    session->length = 0;
    session->command = command;
    session->requester = copy;
    session->ifindex = ifindex;
    return 0;
}

void dypd_session_leave(dypd_session *session) {
    if (session == nullptr)
        return;
    session->command = nullptr;
    dyp_free(session->requester);
    session->requester = nullptr;
}

int dypd_session_equals(const dypd_session *session, const dypd_command *command,
                        const sockaddr_in *address) {
    if (session == nullptr || command == nullptr || address == nullptr ||
        session->command == nullptr || session->requester == nullptr)
        return 0;
    if (std::strcmp(command->name, session->command->name) != 0)
        return 0;
    return same_requester(*address, *session->requester) ? 1 : 0;
}

uint8_t *dypd_session_get_buffer(dypd_session *session, uint32_t *capacity) {
    *capacity = DYPD_SESSION_BUFFER_SIZE;
    return session->buffer;
}

void dypd_session_release_buffer(dypd_session *session, const uint8_t *buffer, uint32_t count) {
    if (buffer == session->buffer)
        session->length = count;
}

int dypd_session_put_data(dypd_session *session, const void *source, uint32_t count,
                          uint32_t position) {
    if (session == nullptr || source == nullptr)
        return -EINVAL;
    if (!range_fits(count, position))
        return -ENOMEM;
    std::memcpy(session->buffer + position, source, count);
    if (position + count > session->length)
        session->length = position + count;
    return 0;
}

int dypd_session_get_data(const dypd_session *session, void *destination, uint32_t count,
                          uint32_t position) {
    if (session == nullptr || destination == nullptr || !range_fits(count, position))
        return -EINVAL;
    // Past `length` the buffer may still hold an earlier result or upload,
    // perhaps another host's: that part of the range reads as zeros. Zeroing
    // here costs nothing for windows inside the result, and no more than
    // the window for one reaching past it, where clearing the buffer at
    // every new result would cost up to 64 KiB per command.
    uint32_t valid = position < session->length ? std::min(count, session->length - position) : 0;
    std::memcpy(destination, session->buffer + position, valid);
    std::memset(static_cast<uint8_t *>(destination) + valid, 0, count - valid);
    return 0;
}
