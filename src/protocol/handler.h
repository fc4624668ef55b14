// The DYP request handler: one datagram per call, the transfer state machine.
#pragma once

#include <cstdint>

#include "protocol/port.h"

struct dyp_daemon_context;

void dypd_dyp_handler(dyp_daemon_context *daemon, dypd_udp_port *endpoint);

// Test seam: the millisecond clock of the 501 ms rule. Null restores the
// wall clock.
using dypd_clock_fn = uint32_t (*)();
void dypd_handler_set_clock(dypd_clock_fn clock);
