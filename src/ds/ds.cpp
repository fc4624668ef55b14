#include "ds/ds.h"

#include <cerrno>

#include "ds/commands.h"
#include "ds/module.h"
#include "ds/ska.h"
#include "lib/list.h"
#include "lib/log.h"
#include "modules/usbds.h"
#include "protocol/command.h"

dypd_udp_port *dypd_ds_core = nullptr;

namespace {

// "GET USB_DEVICE_LIST_EX" must come before "GET USB_DEVICE_LIST": the
// registry matches registered names as prefixes, in this order.
constexpr dypd_command dypd_ds_commands[] = {
    {"EXEC SCANNER CONNECT", DYPD_XFER_EXEC, dypcmd_exec_scanner_connect},
    {"EXEC SCANNER DISCONNECT", DYPD_XFER_EXEC, dypcmd_exec_scanner_disconnect},
    {"GET USB_DEVICE_LIST_EX", DYPD_XFER_READ, dypcmd_get_usb_device_list_ex},
    {"GET USB_DEVICE_LIST", DYPD_XFER_READ, dypcmd_get_usb_device_list},
    {"GET SCANNER_STATUS", DYPD_XFER_READ, dypcmd_get_scanner_status},
    {"GET SCANNER PORT_NAME", DYPD_XFER_READ, dypcmd_get_scanner_port_name},
    {"GET USB_PORT_NAME", DYPD_XFER_READ, dypcmd_get_usb_port_name},
};
constexpr int DS_COMMAND_COUNT =
    static_cast<int>(sizeof dypd_ds_commands / sizeof dypd_ds_commands[0]);

constexpr const char *SKA_MISSING = "BUG: a UDP socket used by SKA is not initialized";

void dispose_module_list() {
    tqlist_dispose(dypd_ds_modlist);
    dypd_ds_modlist = nullptr;
}

} // namespace

int dypd_ds_init(dypd_udp_port *primary_endpoint) {
    dypd_ds_modlist = tqlist_create<dypd_ds_module>();
    if (dypd_ds_modlist == nullptr)
        return -ENOMEM;
    dypd_ds_core = primary_endpoint;

    int err = dypd_ds_usb_init();
    if (err < 0)
        goto undo_list;
    err = dypd_ds_ska_init();
    if (err < 0)
        goto undo_module;
    err = dypd_register_commands(dypd_ds_commands, DS_COMMAND_COUNT);
    if (err < 0)
        goto undo_ska;
    err = dypd_register_advertise_handler(primary_endpoint, dypd_ds_process_advertise);
    if (err == 0)
        return 0;

    dypd_unregister_commands(dypd_ds_commands, DS_COMMAND_COUNT);
undo_ska:
    dypd_ds_ska_cleanup();
undo_module:
    (void)dypd_ds_usb_cleanup();
undo_list:
    dispose_module_list();
    return err;
}

void dypd_ds_cleanup() {
    dypd_unregister_commands(dypd_ds_commands, DS_COMMAND_COUNT);
    dypd_ds_ska_cleanup();
    (void)dypd_ds_usb_cleanup();
    if (dypd_ds_modlist != nullptr)
        dispose_module_list();
}

int dypd_ds_set_timeout() {
    return -1;
}

// The wait never times out (see dypd_ds_set_timeout), so nothing to do.
void dypd_ds_timeout_handler() {}

int dypd_ds_subproto_fd_set(fd_set *readfds) {
    int fd = dypd_ds_ska_get_fd();
    if (fd == -1) {
        dyp_log(LOG_ERR, "%s", SKA_MISSING);
        return -1;
    }
    FD_SET(fd, readfds);
    return fd;
}

void dypd_ds_subproto_handler(dyp_daemon_context *, fd_set *readfds) {
    int fd = dypd_ds_ska_get_fd();
    if (fd == -1) {
        dyp_log(LOG_ERR, "%s", SKA_MISSING);
        return;
    }
    if (FD_ISSET(fd, readfds))
        dypd_ds_ska_handler();
}
