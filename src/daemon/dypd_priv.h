// The daemon context, the runtime settings and the main loop.
#pragma once

#include <csignal>
#include <cstdio>
#include <cstdint>

#include "protocol/identity.h"
#include "protocol/port.h"
#include "transport/socket.h"

// Runtime settings: built by start-up, updated in place by the loader.
struct dypd_settings {
    const char *config_path;        // null when no file is used
    const char *bind_interfaces;    // default "*"
    const char *wireless_interface; // -w; read by nothing else
    int32_t *ports;                 // default {19540, 19541}
    int32_t port_count;
    int32_t primary_port;           // "ds_port", default 19540
    int32_t daemon_mode;            // 1 = detach
    int32_t debug;                  // 1 = also log to standard error
    dypd_identity identity;         // product name, host name, status
    dypd_udp_port *primary;
    dypd_session *last_session;     // start-up only
    char *loaded_bind_interfaces;   // the loader's "netif" value, while it owns one
};

extern const char network_interface_name[]; // "*"
extern const char wireless_interface_name[]; // ""
extern int32_t default_ports[2];

struct dyp_daemon_context {
    dypd_endpoint_header header; // type 3; its descriptor is never opened
    dypd_udp_port **endpoints;
    int32_t endpoint_count;
    int32_t stop;
    int32_t spare_fd;
};

extern dyp_daemon_context dyp_daemon;
extern volatile sig_atomic_t dypd_sighap;

// Start-up after the configuration is loaded: the endpoints, the command
// registry, the device server and the signal actions, ready for dypd_run.
// 0, or the failing step's negative errno with everything built taken
// down again.
int dypd_initialise(dypd_settings *settings);
int dypd_run(dyp_daemon_context *daemon, dypd_settings *settings);
void dypd_cleanup(dyp_daemon_context *daemon);
// The endpoint half of dypd_cleanup: every endpoint and the array.
void dypd_release_endpoints(dyp_daemon_context *daemon);
void dypd_core_cleanup(dypd_udp_port *endpoint);
void dypd_signal_handler(int signal);

// Start-up's built-in settings, and the settings as `-d` prints them
// (dypd.cpp); dypd-config uses both.
void dypd_set_defaults(dypd_settings *settings);
void dypd_print_settings(const dypd_settings *settings, FILE *stream);

// Configuration file (config.cpp). The loader owns the port list it made
// and the "netif" value it kept; release frees both (at exit) and restores
// the built-in port list and bind list.
int dypd_configfile_load(dypd_settings *settings);
void dypd_configfile_release(dypd_settings *settings);
// printf format for a load that ended with -EFBIG: the path and
// TQ_CONFIG_MAX_SIZE.
extern const char dypd_config_refused[];
