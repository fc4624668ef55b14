#include "daemon/dypd_priv.h"

dyp_daemon_context dyp_daemon;

const char *dypd_get_product_name() { return dyp_daemon.header.settings->product_name; }

const char *dypd_get_host_name() { return dyp_daemon.header.settings->host_name; }

uint16_t dypd_get_status() { return dyp_daemon.header.settings->status; }
