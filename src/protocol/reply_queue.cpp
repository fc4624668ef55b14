#include "protocol/reply_queue.h"

#include <cerrno>
#include <ctime>

#include "lib/alloc.h"
#include "lib/clock.h"
#include "lib/log.h"

namespace {

constexpr uint32_t DROP_NOTICE_INTERVAL_US = 60u * 1000 * 1000;

// The monotonic clock in microseconds, cut to 32 bits: it wraps every 71.6
// minutes. Times are only ever compared through their difference, which
// stays right across the wrap while it is under half of that; a reply
// waits 150 ms at most. 64-bit times cost a 32-bit box 160 bytes of code
// for nothing.
uint32_t monotonic_us() {
    return dypd_clock_units(CLOCK_MONOTONIC, 1000000);
}

// Whether time `a` comes before time `b` on the wrapping clock.
bool earlier(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b) < 0;
}

dypd_usec_clock_fn clock_us = monotonic_us;
dypd_queued_reply *slots = nullptr;

// Refusals since the last notice, and when that notice was logged.
struct {
    uint32_t count;
    bool logged;
    uint32_t logged_at_us;
} drops;

// Logs the refusals counted since the last notice, at most once a minute.
// After a quiet spell of a multiple of the clock's wrap, give or take a
// minute, a notice may come up to a minute late; the count is kept.
void report_drops() {
    if (drops.count == 0)
        return;
    uint32_t now = clock_us();
    if (drops.logged && now - drops.logged_at_us < DROP_NOTICE_INTERVAL_US)
        return;
    dyp_log(LOG_NOTICE, "advertise replies dropped over the queue bounds: %u", drops.count);
    drops = {0, true, now};
}

// The queued reply due first; null when none is queued.
dypd_queued_reply *earliest() {
    dypd_queued_reply *first = nullptr;
    for (int i = 0; slots != nullptr && i < DYPD_REPLY_QUEUE_SLOTS; ++i) {
        dypd_queued_reply *r = &slots[i];
        if (r->endpoint != nullptr && (first == nullptr || earlier(r->due_us, first->due_us)))
            first = r;
    }
    return first;
}

} // namespace

int dypd_reply_queue_init() {
    drops = {};
    slots = static_cast<dypd_queued_reply *>(
        dyp_calloc(DYPD_REPLY_QUEUE_SLOTS, sizeof(dypd_queued_reply)));
    return slots == nullptr ? -ENOMEM : 0;
}

void dypd_reply_queue_cleanup() {
    dyp_free(slots);
    slots = nullptr;
}

void dypd_reply_queue_clear() {
    for (int i = 0; slots != nullptr && i < DYPD_REPLY_QUEUE_SLOTS; ++i)
        slots[i].endpoint = nullptr;
}

dypd_queued_reply *dypd_reply_queue_slot(const sockaddr_in *peer) {
    dypd_queued_reply *free_slot = nullptr;
    int same_address = 0;
    for (int i = 0; slots != nullptr && i < DYPD_REPLY_QUEUE_SLOTS; ++i) {
        dypd_queued_reply *r = &slots[i];
        if (r->endpoint == nullptr) {
            free_slot = free_slot != nullptr ? free_slot : r;
        } else if (r->peer.sin_addr.s_addr == peer->sin_addr.s_addr) {
            ++same_address;
        }
    }
    if (free_slot == nullptr || same_address >= DYPD_REPLY_QUEUE_PER_ADDRESS) {
        ++drops.count;
        report_drops();
        return nullptr;
    }
    return free_slot;
}

void dypd_reply_queue_push(dypd_queued_reply *slot, dypd_udp_port *endpoint,
                           const sockaddr_in *peer, uint32_t size, uint32_t delay_us) {
    slot->endpoint = endpoint;
    slot->peer = *peer;
    slot->size = size;
    slot->due_us = clock_us() + delay_us;
}

int dypd_reply_queue_wait_ms() {
    const dypd_queued_reply *first = earliest();
    if (first == nullptr)
        return -1;
    uint32_t now = clock_us();
    if (!earlier(now, first->due_us))
        return 0;
    // Rounded up, so that the wait never ends just short of the due time
    // and spins until it comes.
    uint32_t left_us = first->due_us - now;
    return static_cast<int>(left_us / 1000 + (left_us % 1000 != 0 ? 1 : 0));
}

void dypd_reply_queue_send_due() {
    uint32_t now = clock_us();
    for (dypd_queued_reply *r = earliest(); r != nullptr && !earlier(now, r->due_us);
         r = earliest()) {
        dypd_send_datagram(r->endpoint, r->bytes, r->size, &r->peer);
        r->endpoint = nullptr;
    }
    // Refusals of a burst that has ended are reported all the same.
    report_drops();
}

void dypd_send_datagram(dypd_udp_port *endpoint, const uint8_t *data, uint32_t size,
                        const sockaddr_in *peer) {
    int sent;
    do {
        sent = dypd_sendto(&endpoint->header, data, size, 0, peer);
    } while (sent == -EINTR);
}

void dypd_reply_queue_set_clock(dypd_usec_clock_fn clock) {
    clock_us = clock != nullptr ? clock : monotonic_us;
}
