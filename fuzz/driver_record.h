// The simulated driver as the long-running fuzz targets keep it.
#pragma once

#include <utility>

#include "sim_driver.h"

// The simulator records every request it answers. Dropping that record at
// the end of each input keeps a long run's memory flat, and keeps inputs
// from looking like leaks, while the devices and their holders stay.
inline void fuzz_forget_driver_requests(sim_driver &driver) {
    sim_driver fresh;
    fresh.devices = std::move(driver.devices);
    fresh.forced_count = driver.forced_count;
    fresh.control_file_missing = driver.control_file_missing;
    driver = std::move(fresh);
}
