// Keeping one device for this host: connect, keep it alive, notice when the
// box or its driver lost it, and take it again when it can.
#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>

#include "codec.h"
#include "exchange.h"
#include "selection.h"

namespace dyp {

struct hold_options {
    uint16_t port = 0; // as connect's --port; 0 lets the box use 19540
    uint8_t options = 0;
    std::optional<std::array<uint8_t, 6>> mac; // else the local interface's MAC
    int interval_ms = 2000;                    // between keep-alives
    int check_ms = 10000;                      // between status reads
    int retry_min_ms = 500;                    // first pause after a failed attempt
    int retry_max_ms = 30000;                  // the pause doubles up to this
    transfer_options transfer;
};

// One change of state. `event` is one of "connected", "lost", "box-back",
// "reconnected", "held-by-another", "missing", "released".
struct hold_event {
    std::string event;
    std::string interface; // empty while the selector names no device
    std::string serial;    // empty when unknown
    std::string holder;    // the holding host's address; empty when nobody holds it
    std::string detail;    // why, in words
};

using hold_reporter = std::function<void(const hold_event &)>;
// Waits up to `ms` milliseconds; true when the hold must end.
using hold_waiter = std::function<bool(int ms)>;

// Holds the device until `wait` says to stop, then releases it when this
// host holds it and returns. Never returns otherwise: every failure of the
// box is a state to wait out. Every network wait is bounded by the transfer
// options; every pause goes through `wait`.
void hold(const endpoint &box, const device_selector &selector, const hold_options &opt,
          const hold_reporter &report, const hold_waiter &wait);

} // namespace dyp
