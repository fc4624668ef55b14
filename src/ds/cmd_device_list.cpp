#include <cerrno>
#include <cstring>

#include "ds/commands.h"
#include "ds/serial.h"
#include "ds/walk.h"
#include "lib/alloc.h"
#include "lib/be.h"
#include "lib/buffer.h"
#include "protocol/identity.h"

namespace {

// The count byte holds at most this many interfaces.
constexpr uint32_t LIST_MAX = 255;
constexpr uint32_t DESCRIPTION_MAX = 63;
constexpr uint32_t SA_ADDR = 4; // IPv4 address inside the host's socket address
constexpr uint16_t STATUS_ALWAYS = 0x8082;
constexpr uint16_t STATUS_PRESENT = 0x0001;
constexpr uint16_t STATUS_FLAGGED = 0x0400;

enum class list_form { plain, extended };

struct list_walk {
    list_form form;
    const dypd_session *session;
    dypd_ds_interface_info *info;
    tqbuffer out;
    uint32_t total;
};

bool write_field(tqbuffer *out, const void *data, uint32_t length) {
    return tqbuffer_write(out, data, length) >= 0;
}

// One field of an entry; a null `data` marks a field the form leaves out.
struct entry_field {
    const void *data;
    uint32_t length;
};

// Writes the fields in order; false at the first that finds the buffer
// full (even an empty field does).
template <size_t N> bool write_fields(tqbuffer *out, const entry_field (&fields)[N]) {
    for (const entry_field &field : fields) {
        if (field.data != nullptr && !write_field(out, field.data, field.length))
            return false;
    }
    return true;
}

// One entry for the interface in walk->info. The texts are bounded here,
// not trusted: a module's name or description may lack its NUL.
bool write_entry(list_walk *walk) {
    const dypd_ds_interface_info *info = walk->info;
    tqbuffer *out = &walk->out;
    static constexpr uint8_t zeros[4] = {};
    bool extended = walk->form == list_form::extended;
    uint8_t status[2], vendor[2], product[2];
    put_be16(status, static_cast<uint16_t>(dypd_get_status() | STATUS_ALWAYS | STATUS_PRESENT |
                                           (info->status_flag != 0 ? STATUS_FLAGGED : 0)));
    put_be16(vendor, info->vendor_id);
    put_be16(product, info->product_id);
    const entry_field fields[] = {
        {info->name, static_cast<uint32_t>(strnlen(info->name, 15))},
        {zeros, 1},
        {info->description, static_cast<uint32_t>(strnlen(info->description, DESCRIPTION_MAX))},
        {zeros, 1},
        {info->host_addr + SA_ADDR, 4},
        {status, sizeof status},
        {extended ? zeros : nullptr, 2},
        {vendor, sizeof vendor},
        {product, sizeof product},
        {info->location, sizeof info->location},
        {&info->aux1, 1},
        {&info->aux2, 1},
    };
    if (!write_fields(out, fields))
        return false;
    // The serial is looked up only once everything before it is written.
    if (extended) {
        uint8_t serial[DYPD_DS_SERIAL_SIZE];
        if (dypd_ds_get_serial(walk->session, info, serial) != 0 ||
            !write_field(out, serial, sizeof serial))
            return false;
    }
    return write_field(out, zeros, 4);
}

// Writes the entries of one module's names. Returns how many interfaces
// the module adds to the count, or -1 when its entries must be dropped.
int list_module(list_walk *walk, dypd_ds_module *module, const dypd_ds_name_list *names,
                int fetched) {
    int last_result = 0;
    for (int i = 0; i < fetched; ++i) {
        last_result = dypd_ds_slot_info(module, names->names[i], walk->info);
        if (last_result == -ENODEV)
            continue;
        if (last_result < 0)
            return -1;
        if (!write_entry(walk))
            return -1;
    }
    // An interface the module disowns is still counted, as hosts expect;
    // but a list whose last name is disowned is dropped as a whole.
    return last_result == -ENODEV ? -1 : fetched;
}

int32_t list_devices(list_form form, const dypd_session *session, uint8_t *out, uint32_t size) {
    // Zeroed for both forms, so that fields a module leaves unset cannot
    // carry old heap contents to the host.
    auto *info =
        static_cast<dypd_ds_interface_info *>(dyp_calloc(1, sizeof(dypd_ds_interface_info)));
    if (info == nullptr)
        return -ENOMEM;
    list_walk walk = {form, session, info, {out, size, 0}, 0};
    static constexpr uint8_t no_count = 0;
    (void)tqbuffer_write(&walk.out, &no_count, 1);

    constexpr unsigned needed =
        DYPD_DS_OP_NUM_INTERFACES | DYPD_DS_OP_INTERFACE_INFO | DYPD_DS_OP_INTERFACE_NAMES;
    dypd_ds_walk(needed, [&](dypd_ds_module *module) {
        uint32_t mark = walk.out.length;
        dypd_ds_name_list names = {};
        int fetched = dypd_ds_fetch_names(module, LIST_MAX - walk.total, &names);
        if (fetched > 0) {
            int added = list_module(&walk, module, &names, fetched);
            if (added < 0)
                walk.out.length = mark;
            else
                walk.total += static_cast<uint32_t>(added);
            dyp_free(names.names);
        }
        return walk.total < LIST_MAX;
    });

    if (size > 0)
        out[0] = static_cast<uint8_t>(walk.total);
    dyp_free(info);
    return static_cast<int32_t>(walk.out.length);
}

} // namespace

int32_t dypcmd_get_usb_device_list(dypd_session *session, const uint8_t *, uint8_t *out,
                                   uint32_t size) {
    return list_devices(list_form::plain, session, out, size);
}

int32_t dypcmd_get_usb_device_list_ex(dypd_session *session, const uint8_t *, uint8_t *out,
                                      uint32_t size) {
    return list_devices(list_form::extended, session, out, size);
}
