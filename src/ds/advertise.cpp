#include <cerrno>
#include <cstring>

#include "ds/ds.h"
#include "ds/walk.h"
#include "lib/alloc.h"
#include "lib/be.h"
#include "lib/log.h"
#include "lib/text.h"
#include "protocol/advertise_fill.h"
#include "protocol/identity.h"
#include "protocol/packet.h"

namespace {

constexpr uint16_t STATUS_KEEP = 0x7F7D;
constexpr uint16_t STATUS_ALWAYS = 0x8082;
constexpr uint16_t STATUS_PRESENT = 0x0001;
constexpr uint16_t STATUS_FLAGGED = 0x0400;

enum class probe { next, found, stop };

// Asks one module for its first interface and describes it into `info`.
probe probe_module(dypd_ds_module *module, dypd_ds_interface_info *info) {
    dypd_ds_name_list list = {
        1, static_cast<char(*)[DYPD_DS_NAME_SLOT]>(dyp_calloc(1, DYPD_DS_NAME_SLOT))};
    if (list.names == nullptr) {
        dyp_log(LOG_ERR, "no memory for an interface name module %s", module->name);
        return probe::stop;
    }
    probe verdict = probe::next;
    int count = module->get_interface_names(module, &list);
    if (count < 0) {
        dypd_ds_log_failure(count, dypd_ds_quiet::noent,
                            "cannot get an interface name module %s (err: %d)", module->name,
                            count);
    } else if (count > 0) {
        memcpy(info->name, list.names[0], DYPD_DS_NAME_SLOT);
        info->name[DYPD_DS_NAME_SLOT - 1] = '\0';
        int result = module->get_interface_info(module, info);
        if (result >= 0)
            verdict = probe::found;
        else
            dypd_ds_log_failure(result, dypd_ds_quiet::nodev_noent,
                                "cannot get interface info module %s (err: %d)", module->name,
                                result);
    }
    dyp_free(list.names);
    return verdict;
}

// The first shared interface of any module, into `info`; false if none.
bool find_first_interface(dypd_ds_interface_info *info) {
    bool found = false;
    dypd_ds_walk(DYPD_DS_OP_INTERFACE_NAMES | DYPD_DS_OP_INTERFACE_INFO,
                 [&](dypd_ds_module *module) {
                     probe verdict = probe_module(module, info);
                     found = verdict == probe::found;
                     return verdict == probe::next;
                 });
    return found;
}

} // namespace

int32_t dypd_ds_process_advertise(const uint8_t *request, uint8_t *reply, uint32_t capacity,
                                  const sockaddr_in *sender, int32_t ifindex) {
    int err = dypd_advertise_fill_common(request, reply, capacity, sender, ifindex, -ENXIO);
    if (err < 0)
        return err;
    memcpy(reply + DYP_ADV_VERSION, DYPD_PROTOCOL_VERSION, sizeof DYPD_PROTOCOL_VERSION);

    bool found = false;
    bool flagged = false;
    auto *info =
        static_cast<dypd_ds_interface_info *>(dyp_calloc(1, sizeof(dypd_ds_interface_info)));
    if (info != nullptr) {
        found = find_first_interface(info);
        if (found) {
            // Bounded: a module's description need not end in a NUL.
            copy_text(reinterpret_cast<char *>(reply + DYP_ADV_DESCRIPTION),
                      DYP_ADV_DESCRIPTION_SIZE, info->description, sizeof info->description);
            flagged = info->status_flag != 0;
        }
        dyp_free(info);
    }
    dypd_advertise_fill_host_name(reply);

    uint16_t status = static_cast<uint16_t>((dypd_get_status() & STATUS_KEEP) | STATUS_ALWAYS);
    if (found)
        status |= STATUS_PRESENT;
    if (flagged)
        status |= STATUS_FLAGGED;
    put_be16(reply + DYP_ADV_STATUS, status);
    return static_cast<int32_t>(DYP_ADVERTISE_REPLY_SIZE);
}
