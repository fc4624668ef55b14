#include "ds/ska.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

#include "ds/walk.h"
#include "lib/alloc.h"
#include "lib/be.h"
#include "lib/fd.h"
#include "lib/log.h"
#include "lib/text.h"
#include "lib/nerrno.h"

dypd_ds_ska_record dypd_ds_ska = {-1, nullptr};

namespace {

constexpr uint32_t SKA_LENGTH = 0; // u16 BE, the whole datagram
constexpr uint32_t SKA_MAGIC_AT = 2;
constexpr uint32_t SKA_ADDRESS_SIZE = 128;

void ska_release() {
    dyp_free(dypd_ds_ska.buffer);
    dypd_ds_ska.buffer = nullptr;
    if (dypd_ds_ska.fd >= 0)
        close_fd_slot(dypd_ds_ska.fd);
    dypd_ds_ska.fd = -1;
}

// Counts the names from byte SKA_HEADER_SIZE up to the first empty one.
// The caller made sure the packet ends in two NULs, so the scan stops
// inside it.
uint32_t count_names(const uint8_t *packet) {
    uint32_t count = 0;
    for (const char *name = reinterpret_cast<const char *>(packet + SKA_HEADER_SIZE); *name != '\0';
         name += strlen(name) + 1)
        ++count;
    return count;
}

void pass_names_alive(const uint8_t *packet) {
    uint32_t count = count_names(packet);
    auto *slots = static_cast<char(*)[DYPD_DS_NAME_SLOT]>(dyp_calloc(count, DYPD_DS_NAME_SLOT));
    if (slots == nullptr) {
        dyp_log(LOG_ERR, "no memory for names of alive interfaces num %d", static_cast<int>(count));
        return;
    }
    const char *name = reinterpret_cast<const char *>(packet + SKA_HEADER_SIZE);
    for (uint32_t i = 0; i < count; ++i, name += strlen(name) + 1)
        copy_text(slots[i], name);
    // A packet of SKA_BUFFER_SIZE bytes holds at most about 2000 names, so
    // the count fits the list's 16 bits.
    const dypd_ds_name_list list = {static_cast<uint16_t>(count), slots};
    dypd_ds_walk(DYPD_DS_OP_KEEP_ALIVE, [&](dypd_ds_module *module) {
        module->keep_alive(module, &list);
        return true;
    });
    dyp_free(slots);
}

} // namespace

int dypd_ds_ska_init() {
    dypd_ds_ska.buffer = nullptr;
    dypd_ds_ska.fd = -1;
    unique_fd socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket_fd.valid()) {
        int err = neg_errno();
        dyp_log(LOG_ERR, "cannot create a UDP socket (err: %d)", err);
        return err;
    }
    if (!fd_selectable(socket_fd.get())) {
        dyp_log(LOG_ERR, "cannot watch the SKA socket: select takes descriptors below %d",
                FD_SETSIZE);
        return -EMFILE;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(SKA_PORT);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(socket_fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
        int err = neg_errno();
        dyp_log(LOG_ERR, "cannot bind a socket address (err: %d)", err);
        return err;
    }
    dypd_ds_ska.buffer = static_cast<uint8_t *>(dyp_malloc(SKA_BUFFER_SIZE + 1));
    if (dypd_ds_ska.buffer == nullptr)
        return -ENOMEM;
    dypd_ds_ska.fd = socket_fd.release();
    return 0;
}

void dypd_ds_ska_cleanup() {
    ska_release();
}

int dypd_ds_ska_get_fd() {
    return dypd_ds_ska.fd;
}

void dypd_ds_ska_handler() {
    if (dypd_ds_ska.fd < 0 || dypd_ds_ska.buffer == nullptr)
        return;
    uint8_t *packet = dypd_ds_ska.buffer;
    sockaddr_storage sender = {};
    static_assert(sizeof sender >= SKA_ADDRESS_SIZE);
    socklen_t sender_size;
    ssize_t received;
    do {
        sender_size = SKA_ADDRESS_SIZE;
        received = recvfrom(dypd_ds_ska.fd, packet, SKA_BUFFER_SIZE, 0,
                            reinterpret_cast<sockaddr *>(&sender), &sender_size);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        dyp_log(LOG_ERR, "an error occurred while receiving a SKA packet (err: %d)", neg_errno());
        return;
    }
    uint32_t size = static_cast<uint32_t>(received);
    packet[size] = '\0';
    if (size < SKA_MIN_PACKET || get_be16(packet + SKA_LENGTH) != size ||
        get_be16(packet + SKA_MAGIC_AT) != SKA_MAGIC)
        return;
    // Names are handed on only when the list is properly ended; the packet
    // is acknowledged either way.
    if (packet[size - 1] == '\0' && packet[size - 2] == '\0')
        pass_names_alive(packet);

    ssize_t sent;
    do {
        sent = sendto(dypd_ds_ska.fd, packet, size, 0, reinterpret_cast<const sockaddr *>(&sender),
                      sender_size);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0)
        dyp_log(LOG_ERR, "an error occurred while sending a SKA packet (err: %d)", neg_errno());
}
