// The per-endpoint transfer session: a 64 KiB buffer bound to one command
// and one requester at a time.
#pragma once

#include <cstdint>
#include <netinet/in.h>

struct dypd_command;

constexpr uint32_t DYPD_SESSION_BUFFER_SIZE = 65536;

struct dypd_session {
    uint8_t *buffer;              // 65536 bytes, for the endpoint's life
    uint32_t length;              // valid bytes in buffer
    const dypd_command *command;  // null when idle
    sockaddr_in *requester;       // heap copy; null when idle
    int32_t ifindex;              // interface the START arrived on
};

int dypd_session_init(dypd_session *session);
void dypd_session_cleanup(dypd_session *session);
int dypd_session_enter(dypd_session *session, const dypd_command *command,
                       const sockaddr_in *requester, int32_t ifindex);
void dypd_session_leave(dypd_session *session);
int dypd_session_equals(const dypd_session *session, const dypd_command *command,
                        const sockaddr_in *address);
uint8_t *dypd_session_get_buffer(dypd_session *session, uint32_t *capacity);
void dypd_session_release_buffer(dypd_session *session, const uint8_t *buffer, uint32_t count);
int dypd_session_put_data(dypd_session *session, const void *source, uint32_t count,
                          uint32_t position);
// Copies [position, position + count) of the buffer; what lies past
// `length` reads as zeros. -EINVAL when the range leaves the buffer.
int dypd_session_get_data(const dypd_session *session, void *destination, uint32_t count,
                          uint32_t position);
