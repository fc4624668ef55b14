// The module walk shared by the device server's commands, its advertise
// handler and SKA: which modules take part, which results stay quiet, and
// the name listing that several commands begin with.
#pragma once

#include <cstdint>

#include "ds/module.h"

// Operation slots a walk needs; a module lacking one of them is skipped.
enum dypd_ds_op : unsigned {
    DYPD_DS_OP_CONNECT = 1u << 0,
    DYPD_DS_OP_CONNECT_EX = 1u << 1,
    DYPD_DS_OP_DISCONNECT = 1u << 2,
    DYPD_DS_OP_NUM_INTERFACES = 1u << 3,
    DYPD_DS_OP_INTERFACE_INFO = 1u << 4,
    DYPD_DS_OP_INTERFACE_NAMES = 1u << 5,
    DYPD_DS_OP_KEEP_ALIVE = 1u << 6,
};

bool dypd_ds_module_has(const dypd_ds_module *module, unsigned needed);

// Calls `visit(module)` for every registered module that has all `needed`
// slots, in registration order, until `visit` returns false. The walk ends
// at an empty entry as well: a null item means the list is corrupt.
template <typename F> void dypd_ds_walk(unsigned needed, F &&visit) {
    tqlist_for_each(dypd_ds_modlist, [&](dypd_ds_module *module) {
        if (module == nullptr)
            return false;
        if (!dypd_ds_module_has(module, needed))
            return true;
        return visit(module);
    });
}

// Which negative results a caller keeps out of the log.
enum class dypd_ds_quiet {
    noent,       // -ENOENT only
    nodev_noent, // -ENODEV and -ENOENT
};

// Logs a module failure at LOG_ERR unless `result` is one of the quiet
// codes. The caller's format carries the module name and the result.
void dypd_ds_log_failure(int result, dypd_ds_quiet quiet, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// The largest list a module may be asked for: the count field is 16 bits.
constexpr uint32_t DYPD_DS_NAMES_MAX = UINT16_MAX;

// Asks `module` for its interface count (at most `limit`), allocates that
// many zeroed slots into `list` and fetches the names. Returns the number
// of names fetched (1 or more; the caller then frees list->names), or 0
// when the module has nothing to give or failed (slots already freed,
// failures logged).
int dypd_ds_fetch_names(dypd_ds_module *module, uint32_t limit, dypd_ds_name_list *list);

// Asks `module` about the interface named in list slot `slot`, copied into
// info->name and always terminated. A failure other than -ENODEV or
// -ENOENT is logged. Returns the module's result.
int dypd_ds_slot_info(dypd_ds_module *module, const char *slot, dypd_ds_interface_info *info);
