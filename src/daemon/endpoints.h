// Building the daemon context and one UDP endpoint per configured port.
#pragma once

#include "daemon/dypd_priv.h"

// Fills `daemon` with one open endpoint per port of `settings` and chooses
// the primary endpoint. Returns 0 or the negative errno of the failing step;
// endpoints already built are then left in place.
int dypd_build_endpoints(dyp_daemon_context *daemon, dypd_settings *settings);
