#include "daemon/dypd_priv.h"

// Built-in values of the runtime settings. The loader recognises the bind
// list default by its address: only while the setting still points here may
// the configuration file supply one.
const char network_interface_name[] = "*";
const char wireless_interface_name[] = "";
int32_t default_ports[2] = {19540, 19541};
