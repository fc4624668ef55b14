#include "modules/usbds.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lib/alloc.h"
#include "lib/log.h"
#include "lib/text.h"
#include "modules/driver_abi.h"
#include "modules/driver_io.h"

namespace {

// Cleared after the keep-alive has logged an unopenable control file, and
// set again by the next successful open, so that a run of failures is
// logged once.
uint32_t usbds_report_open_failure = 1;

// Opens the control file, issues one request and closes the file again.
int issue_request(unsigned long request, void *record) {
    usbds_driver_fd driver;
    if (driver.error() < 0)
        return driver.error();
    return driver.ioctl(request, record);
}

int usbds_connect_interface(dypd_ds_module *, const dypd_ds_connect_param *param) {
    usbds_connect_record record{};
    copy_field(record.name, param->name);
    memcpy(record.host_addr, param->host_addr, sizeof record.host_addr);
    memcpy(record.host_mac, param->host_mac, sizeof record.host_mac);
    record.opt_b1 = param->opt_b1;
    record.opt_b0 = param->opt_b0;
    return issue_request(USBDS_IOC_CONNECT, &record);
}

// The option bytes come from `opts` itself; the caller's copy of bit 1 is
// not trusted.
int usbds_connect_interface_ex(dypd_ds_module *, const dypd_ds_connect_param_ex *param) {
    usbds_connect_ex_record record{};
    copy_field(record.name, param->name);
    memcpy(record.host_addr, param->host_addr, sizeof record.host_addr);
    memcpy(record.host_mac, param->host_mac, sizeof record.host_mac);
    record.opt_b1 = (param->opts & 0x02) != 0 ? 1 : 0;
    record.opt_b0 = param->opts & 0x01;
    record.size = param->size;
    copy_field(record.ifname, param->ifname);
    return issue_request(USBDS_IOC_CONNECT_EX, &record);
}

int usbds_disconnect_interface(dypd_ds_module *, const dypd_ds_connect_param *param) {
    usbds_disconnect_record record{};
    copy_field(record.name, param->name);
    memcpy(record.host_addr, param->host_addr, sizeof record.host_addr);
    return issue_request(USBDS_IOC_DISCONNECT, &record);
}

int usbds_get_num_interfaces(dypd_ds_module *) {
    return issue_request(USBDS_IOC_GET_NUM_INTERFACES, nullptr);
}

// The driver answers how many names it wrote. It must never report more
// than the slots it was given, but the count is clamped to them anyway, so
// that a misbehaving driver cannot make the daemon read past its buffer or
// write past the caller's slots.
int usbds_get_interface_names(dypd_ds_module *, dypd_ds_name_list *list) {
    auto *slots = static_cast<char(*)[USBDS_NAME_SIZE]>(dyp_calloc(list->count, USBDS_NAME_SIZE));
    if (slots == nullptr)
        return -ENOMEM;
    usbds_name_list_record record{};
    record.count = list->count;
    record.slots = slots;
    int written = issue_request(USBDS_IOC_GET_INTERFACE_NAMES, &record);
    if (written > list->count)
        written = list->count;
    for (int i = 0; i < written; ++i)
        copy_field(list->names[i], slots[i]);
    dyp_free(slots);
    return written;
}

// "<manufacturer> " or "VID [0x....] ", then the product or "PID [0x....]",
// cut to the 255 characters the description holds. The driver's strings
// are read no further than their fields, terminated or not.
void compose_description(char (&description)[USBDS_TEXT_SIZE], const usbds_info_record &record) {
    int formatted;
    if (record.manufacturer[0] != '\0')
        formatted = snprintf(description, sizeof description, "%.*s ",
                             static_cast<int>(strnlen(record.manufacturer, USBDS_TEXT_SIZE)),
                             record.manufacturer);
    else
        formatted = snprintf(description, sizeof description, "VID [0x%04X] ", record.vendor_id);
    size_t used = formatted < 0 ? 0 : static_cast<size_t>(formatted);
    if (used >= sizeof description)
        used = sizeof description - 1;
    char *rest = description + used;
    size_t room = sizeof description - used;
    if (record.product[0] != '\0')
        copy_text(rest, room, record.product, sizeof record.product);
    else
        (void)snprintf(rest, room, "PID [0x%04X]", record.product_id);
}

// A positive answer of the driver counts as success but leaves `info` as
// the caller prepared it; only 0 means the record was filled.
int usbds_get_interface_info(dypd_ds_module *, dypd_ds_interface_info *info) {
    usbds_info_record record{};
    copy_field(record.name, info->name);
    int result = issue_request(USBDS_IOC_GET_INTERFACE_INFO, &record);
    if (result != 0)
        return result;
    copy_field(info->name, record.name);
    compose_description(info->description, record);
    memcpy(info->host_addr, record.host_addr, sizeof info->host_addr);
    memcpy(info->host_mac, record.host_mac, sizeof info->host_mac);
    info->vendor_id = record.vendor_id;
    info->product_id = record.product_id;
    memcpy(info->location, record.location, sizeof info->location);
    info->aux1 = record.aux1;
    info->aux2 = record.aux2;
    info->aux3 = record.aux3;
    info->status_flag = record.status_flag;
    info->aux5 = record.aux5;
    return 0;
}

void usbds_keep_alive(dypd_ds_module *, const dypd_ds_name_list *list) {
    // Logged as a signed number, as the request appears in the box's logs.
    const int request = static_cast<int>(USBDS_IOC_KEEP_ALIVE);
    usbds_name_list_record record{};
    usbds_driver_fd driver;
    if (driver.error() < 0) {
        if (usbds_report_open_failure != 0)
            dyp_log(LOG_ERR, "cannot open the file, %s (err: %d)", USBDS_CONTROL_PATH,
                    driver.error());
        usbds_report_open_failure = 0;
        return;
    }
    usbds_report_open_failure = 1;
    auto *slots = static_cast<char(*)[USBDS_NAME_SIZE]>(dyp_calloc(list->count, USBDS_NAME_SIZE));
    if (slots == nullptr) {
        dyp_log(LOG_ERR, "no memory for IOCTL(%d) request data", request);
        return;
    }
    record.count = list->count;
    record.slots = slots;
    for (size_t i = 0; i < list->count; ++i)
        copy_field(slots[i], list->names[i]);
    int result = driver.ioctl(USBDS_IOC_KEEP_ALIVE, &record);
    if (result < 0)
        dyp_log(LOG_ERR, "failed to execute IOCTL(%d) (err: %d)", request, result);
    dyp_free(slots);
}

} // namespace

dypd_ds_module usbds_module = {
    .name = "usbds",
    .reserved = 0,
    .connect = usbds_connect_interface,
    .connect_ex = usbds_connect_interface_ex,
    .disconnect = usbds_disconnect_interface,
    .get_num_interfaces = usbds_get_num_interfaces,
    .get_interface_info = usbds_get_interface_info,
    .get_interface_names = usbds_get_interface_names,
    .keep_alive = usbds_keep_alive,
};

int dypd_ds_usb_init() {
    return dypd_ds_register_module(&usbds_module);
}

int dypd_ds_usb_cleanup() {
    return dypd_ds_unregister_module(&usbds_module);
}
