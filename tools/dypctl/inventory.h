// Every device on the LAN: the boxes that answer discovery, each asked for
// its extended device list, several at a time.
#pragma once

#include <string>
#include <vector>

#include "codec.h"
#include "discovery.h"
#include "exchange.h"

namespace dyp {

struct inventory_options {
    discover_options discovery;
    transfer_options transfer;
    unsigned parallel = 16; // list reads in flight at once, at least 1
};

struct box_inventory {
    box_info box;
    bool listed = false;
    device_list devices; // when listed
    std::string error;   // when not: why the box did not give its list
};

struct inventory {
    std::vector<box_inventory> boxes;  // in order of discovery
    std::vector<std::string> problems; // discovery replies that were skipped
};

// Discovers the boxes, then reads every box's extended list; a box whose
// list cannot be had is kept with its error.
inventory take_inventory(const inventory_options &opt);

// Reads the lists of `boxes` (already discovered) into `out`, at most
// `parallel` at a time.
void read_inventory_lists(std::vector<box_inventory> &out, const transfer_options &transfer,
                          unsigned parallel);

} // namespace dyp
