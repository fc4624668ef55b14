// Device-server modules: the records that pass through their operations
// and the module list.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/list.h"

// Description of one shared interface (432 bytes, natural alignment).
struct dypd_ds_interface_info {
    char name[16];          // lookup key, rewritten with the driver's copy
    char description[256];  // always NUL-terminated
    uint8_t host_addr[128]; // socket address of the holding host
    uint8_t host_mac[6];
    uint16_t vendor_id;     // host order
    uint16_t product_id;    // host order
    char location[16];      // class letter, bus character, port path
    uint8_t aux1;
    uint8_t aux2;
    uint8_t aux3;
    uint8_t status_flag;
    uint8_t aux5;
};
static_assert(sizeof(dypd_ds_interface_info) == 432);
static_assert(offsetof(dypd_ds_interface_info, host_addr) == 272);
static_assert(offsetof(dypd_ds_interface_info, vendor_id) == 406);
static_assert(offsetof(dypd_ds_interface_info, location) == 410);
static_assert(offsetof(dypd_ds_interface_info, aux1) == 426);
static_assert(offsetof(dypd_ds_interface_info, status_flag) == 429);

constexpr size_t DYPD_DS_NAME_SLOT = 16;

// `count` 16-byte name slots; the caller owns the record and the slots.
struct dypd_ds_name_list {
    uint16_t count;
    char (*names)[DYPD_DS_NAME_SLOT];
};

// The request of connect and disconnect: the driver's connect record.
struct dypd_ds_connect_param {
    char name[16];
    uint8_t host_addr[128];
    uint8_t host_mac[6];
    uint8_t opt_b1;
    uint8_t opt_b0;
};
static_assert(sizeof(dypd_ds_connect_param) == 152);
static_assert(offsetof(dypd_ds_connect_param, host_mac) == 144);
static_assert(offsetof(dypd_ds_connect_param, opt_b0) == 151);

constexpr uint32_t DYPD_DS_CONNECT_EX_SIZE = 172;

// The request of connect_ex.
struct dypd_ds_connect_param_ex {
    uint32_t size; // 172
    char name[16];
    alignas(4) uint8_t host_addr[128];
    uint8_t host_mac[6];
    uint8_t opt_b1; // copy of bit 1 of opts; modules derive it again
    uint8_t opts;
    char ifname[16]; // local interface the request arrived on
};
static_assert(sizeof(dypd_ds_connect_param_ex) == 172);
static_assert(offsetof(dypd_ds_connect_param_ex, host_addr) == 20);
static_assert(offsetof(dypd_ds_connect_param_ex, ifname) == 156);

// A device-server module: a name and a table of operations, any of which
// may be null. Results: 0 or a count, or a negative errno value, where
// -ENODEV means "not my interface" and -ENOENT "nothing to report".
struct dypd_ds_module {
    const char *name;
    uint32_t reserved;
    // Takes an interface over for a host.
    int (*connect)(dypd_ds_module *module, const dypd_ds_connect_param *param);
    // The same with the extended record; preferred when present.
    int (*connect_ex)(dypd_ds_module *module, const dypd_ds_connect_param_ex *param);
    // Releases an interface; reads only name and host_addr.
    int (*disconnect)(dypd_ds_module *module, const dypd_ds_connect_param *param);
    // Number of shared interfaces.
    int (*get_num_interfaces)(dypd_ds_module *module);
    // Fills `info` for the interface named in info->name.
    int (*get_interface_info)(dypd_ds_module *module, dypd_ds_interface_info *info);
    // Fills up to list->count slots; returns the number of names written.
    int (*get_interface_names)(dypd_ds_module *module, dypd_ds_name_list *list);
    // Passes on the names a host reports alive; logs its own failures.
    void (*keep_alive)(dypd_ds_module *module, const dypd_ds_name_list *list);
};

// The module list; does not own the modules. Null outside init..cleanup.
extern tqlist<dypd_ds_module> *dypd_ds_modlist;

tqlist<dypd_ds_module> *dypd_ds_get_module_list();
int dypd_ds_register_module(dypd_ds_module *module);
int dypd_ds_unregister_module(dypd_ds_module *module);
