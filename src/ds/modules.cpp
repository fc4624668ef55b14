#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "ds/walk.h"
#include "lib/alloc.h"
#include "lib/check.h"
#include "lib/log.h"

tqlist<dypd_ds_module> *dypd_ds_modlist = nullptr;

tqlist<dypd_ds_module> *dypd_ds_get_module_list() {
    return dypd_ds_modlist;
}

int dypd_ds_register_module(dypd_ds_module *mod) {
    DYP_CHECK_NOT_NULL(mod, "ds");
    if (mod->name == nullptr) {
        dyp_log(LOG_ERR, "module name is not specified");
        return -EINVAL;
    }
    // tqlist_append refuses a missing list as it refuses a missing node.
    if (tqlist_append(dypd_ds_modlist, mod) == nullptr)
        return -ENOMEM;
    return 0;
}

int dypd_ds_unregister_module(dypd_ds_module *mod) {
    DYP_CHECK_NOT_NULL(mod, "ds");
    if (dypd_ds_modlist == nullptr)
        return -ENOENT;
    tqlist_node<dypd_ds_module> *head = tqlist_head(dypd_ds_modlist);
    for (tqlist_node<dypd_ds_module> *node = head->next; node != head; node = node->next) {
        if (node->item == mod) {
            (void)tqlist_erase(dypd_ds_modlist, node);
            return 0;
        }
    }
    return -ENOENT;
}

bool dypd_ds_module_has(const dypd_ds_module *module, unsigned needed) {
    unsigned present = (module->connect != nullptr ? DYPD_DS_OP_CONNECT : 0u) |
                       (module->connect_ex != nullptr ? DYPD_DS_OP_CONNECT_EX : 0u) |
                       (module->disconnect != nullptr ? DYPD_DS_OP_DISCONNECT : 0u) |
                       (module->get_num_interfaces != nullptr ? DYPD_DS_OP_NUM_INTERFACES : 0u) |
                       (module->get_interface_info != nullptr ? DYPD_DS_OP_INTERFACE_INFO : 0u) |
                       (module->get_interface_names != nullptr ? DYPD_DS_OP_INTERFACE_NAMES : 0u) |
                       (module->keep_alive != nullptr ? DYPD_DS_OP_KEEP_ALIVE : 0u);
    return (needed & ~present) == 0;
}

void dypd_ds_log_failure(int result, dypd_ds_quiet quiet, const char *format, ...) {
    if (result == -ENOENT || (quiet == dypd_ds_quiet::nodev_noent && result == -ENODEV))
        return;
    va_list args;
    va_start(args, format);
    dyp_vlog(LOG_ERR, format, args);
    va_end(args);
}

int dypd_ds_fetch_names(dypd_ds_module *module, uint32_t limit, dypd_ds_name_list *list) {
    int count = module->get_num_interfaces(module);
    if (count == 0 || count == -ENOENT)
        return 0;
    if (count < 0) {
        dyp_log(LOG_ERR, "cannot get the number of interfaces module %s (err: %d)", module->name,
                count);
        return 0;
    }
    uint32_t wanted = static_cast<uint32_t>(count);
    if (wanted > limit)
        wanted = limit;
    if (wanted > DYPD_DS_NAMES_MAX)
        wanted = DYPD_DS_NAMES_MAX;
    list->count = static_cast<uint16_t>(wanted);
    list->names = static_cast<char(*)[DYPD_DS_NAME_SLOT]>(dyp_calloc(wanted, DYPD_DS_NAME_SLOT));
    if (list->names == nullptr) {
        dyp_log(LOG_ERR, "no memory for interface names num_entries %d module %s",
                static_cast<int>(wanted), module->name);
        return 0;
    }
    int fetched = module->get_interface_names(module, list);
    if (fetched < 0)
        dypd_ds_log_failure(fetched, dypd_ds_quiet::noent,
                            "cannot get interface names module %s (err: %d)", module->name,
                            fetched);
    // A module that claims more names than it was given slots for is not
    // believed: only the slots it was handed can hold names.
    if (fetched > static_cast<int>(wanted))
        fetched = static_cast<int>(wanted);
    if (fetched <= 0) {
        dyp_free(list->names);
        list->names = nullptr;
        return 0;
    }
    return fetched;
}

int dypd_ds_slot_info(dypd_ds_module *module, const char *slot, dypd_ds_interface_info *info) {
    memcpy(info->name, slot, DYPD_DS_NAME_SLOT);
    info->name[DYPD_DS_NAME_SLOT - 1] = '\0';
    int result = module->get_interface_info(module, info);
    if (result < 0)
        dypd_ds_log_failure(result, dypd_ds_quiet::nodev_noent,
                            "cannot get an interface info module %s (err: %d)", module->name,
                            result);
    return result;
}
