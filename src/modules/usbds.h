// The usbds module: shares the box's USB interfaces through the kernel
// driver's control file.
#pragma once

#include "ds/module.h"

extern dypd_ds_module usbds_module;

int dypd_ds_usb_init();
int dypd_ds_usb_cleanup();
