// USB serial numbers of shared devices, read from the sysfs device tree.
#pragma once

#include <cstdint>

#include "ds/module.h"

struct dypd_session;

constexpr uint32_t DYPD_DS_SERIAL_SIZE = 64;

// Fills `serial` (64 bytes, NUL-padded; a serial of 64 characters or more
// fills it without terminator) with the serial number of the device at
// `info`'s location. A missing file gives an empty serial. Returns 0 or a
// negative errno value.
int dypd_ds_get_serial(const dypd_session *session, const dypd_ds_interface_info *info,
                       uint8_t *serial);

// Where the USB device directories live, "/sys/bus/usb/devices" unless a
// test points it at a tree of its own. Null restores the default.
void dypd_ds_set_sysfs_root(const char *root);
