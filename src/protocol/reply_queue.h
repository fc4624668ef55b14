// Advertise replies waiting out their random delay. The daemon goes on
// serving while they wait; the main loop bounds its wait by the earliest
// one and sends them when they are due. The storage is made once, at
// start-up: nothing is allocated per datagram.
#pragma once

#include <cstdint>
#include <netinet/in.h>

#include "protocol/packet.h"
#include "protocol/port.h"

// A request beyond either bound gets no reply: a host repeats discovery
// anyway, and a spoofed source gains at most this many replies at a time.
constexpr int DYPD_REPLY_QUEUE_SLOTS = 64;
constexpr int DYPD_REPLY_QUEUE_PER_ADDRESS = 4;

struct dypd_queued_reply {
    dypd_udp_port *endpoint; // null while the slot is free
    sockaddr_in peer;
    uint32_t due_us; // on the wrapping 32-bit clock
    uint32_t size;
    uint8_t bytes[DYP_RESPONSE_MAX];
};

// 0, or -ENOMEM. Also forgets the drop count.
int dypd_reply_queue_init();
// Drops whatever is queued and frees the storage.
void dypd_reply_queue_cleanup();
// Drops whatever is queued; nothing of it is sent.
void dypd_reply_queue_clear();

// A free slot for a reply to `peer`, or null when the queue is full or
// `peer`'s address already has its share. Refusals are counted and the
// count logged at LOG_NOTICE at most once a minute.
dypd_queued_reply *dypd_reply_queue_slot(const sockaddr_in *peer);
// Queues the `size` bytes written into `slot->bytes`, to be sent from
// `endpoint` to `peer` `delay_us` from now.
void dypd_reply_queue_push(dypd_queued_reply *slot, dypd_udp_port *endpoint,
                           const sockaddr_in *peer, uint32_t size, uint32_t delay_us);

// Milliseconds until the earliest reply is due, rounded up; 0 when one is
// due already, -1 when none is queued.
int dypd_reply_queue_wait_ms();
// Sends every reply that is due, earliest first, and logs the refusals not
// yet reported once their minute has passed.
void dypd_reply_queue_send_due();

// Sends `size` bytes from the endpoint's socket to `peer`, repeating an
// interrupted send. Other failures are not reported: the host repeats.
void dypd_send_datagram(dypd_udp_port *endpoint, const uint8_t *data, uint32_t size,
                        const sockaddr_in *peer);

// Test seam: the monotonic microsecond clock of due times and of the
// drop notice, cut to 32 bits. Null restores CLOCK_MONOTONIC.
using dypd_usec_clock_fn = uint32_t (*)();
void dypd_reply_queue_set_clock(dypd_usec_clock_fn clock);
