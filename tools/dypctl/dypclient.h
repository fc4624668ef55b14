// Host-side client of the DYP and SKA protocols, for dypctl and the tests:
// the wire codec, the UDP exchanges, discovery, device and box selection,
// the hold loop and the inventory. Nothing here prints or parses a command
// line.
#pragma once

#include "codec.h"
#include "discovery.h"
#include "exchange.h"
#include "hold.h"
#include "inventory.h"
#include "selection.h"
