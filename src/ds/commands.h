// The device server's command handlers (forms of dypd_command_handler).
#pragma once

#include <cstdint>

struct dypd_session;

// Every handler has the form of dypd_command_handler: (session, request
// packet, output buffer, its size) -> bytes written.
using dypcmd_handler = int32_t(dypd_session *session, const uint8_t *request, uint8_t *out,
                               uint32_t size);

dypcmd_handler dypcmd_exec_scanner_connect;
dypcmd_handler dypcmd_exec_scanner_disconnect;
dypcmd_handler dypcmd_get_usb_device_list;
dypcmd_handler dypcmd_get_usb_device_list_ex;
dypcmd_handler dypcmd_get_scanner_status;
dypcmd_handler dypcmd_get_scanner_port_name;
dypcmd_handler dypcmd_get_usb_port_name;

// The parameter text of a command: what follows the first ':' of the
// request's name field, as an offset into the request packet; 0 when the
// name holds no ':'.
uint32_t dypcmd_param_offset(const uint8_t *request);

// The name of the local interface a session's request arrived on, in a
// buffer of IF_NAMESIZE bytes; logs "no interface #%d" and leaves it empty
// when the index has no name. Returns true when a name was found.
bool dypcmd_session_ifname(const dypd_session *session, char *ifname);
