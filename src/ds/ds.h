// Device-server start-up, cleanup and the main loop's four hooks.
#pragma once

#include <sys/select.h>

#include "protocol/port.h"

struct dyp_daemon_context;

extern dypd_udp_port *dypd_ds_core;

int dypd_ds_init(dypd_udp_port *primary_endpoint);
void dypd_ds_cleanup();

int dypd_ds_set_timeout();
void dypd_ds_timeout_handler();
int dypd_ds_subproto_fd_set(fd_set *readfds);
void dypd_ds_subproto_handler(dyp_daemon_context *daemon, fd_set *readfds);

// The device server's own advertise handler for the primary endpoint.
int32_t dypd_ds_process_advertise(const uint8_t *request, uint8_t *reply, uint32_t capacity,
                                  const sockaddr_in *sender, int32_t ifindex);
