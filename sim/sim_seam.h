// Routes the usbds module's driver calls to a simulated driver in the same
// process for the life of the scope, and counts opens and closes so tests
// can prove that every descriptor is closed on every path.
#pragma once

#include "sim_driver.h"

class sim_driver_scope {
  public:
    explicit sim_driver_scope(sim_driver &driver);
    ~sim_driver_scope();
    sim_driver_scope(const sim_driver_scope &) = delete;
    sim_driver_scope &operator=(const sim_driver_scope &) = delete;

    int opens() const;
    int closes() const;
    // The flags of the last open.
    int last_open_flags() const;
};
