// Loads the simulated driver's devices from an INI file: one section per
// device, named by its interface name; driver-wide settings before the
// first section. See examples/devices.ini for every key.
#pragma once

#include <string>

#include "sim_driver.h"

// 0 with `driver` filled, or a negative errno value with a reason in
// `error`: -EIO for an unreadable file, -EINVAL for a malformed value or an
// unknown key.
int sim_load_devices(const char *path, sim_driver &driver, std::string &error);
