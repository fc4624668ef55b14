#include <cerrno>
#include <cstring>
#include <net/if.h>

#include "ds/commands.h"
#include "ds/walk.h"
#include "lib/alloc.h"
#include "lib/be.h"
#include "lib/buffer.h"
#include "lib/log.h"
#include "lib/net.h"
#include "protocol/identity.h"
#include "protocol/packet.h"

namespace {

constexpr uint32_t DESCRIPTION_MAX = 63;
constexpr uint32_t SA_ADDR = 4; // IPv4 address inside the host's socket address
constexpr uint32_t MAC_SIZE = 6;
constexpr uint16_t STATUS_ALWAYS = 0x8082;
constexpr uint16_t STATUS_PRESENT = 0x0001;
constexpr uint16_t STATUS_FLAGGED = 0x0400;
constexpr char NOT_CONNECTED[] = "Not Connected";

// USB_PORT_NAME request, in the data area.
constexpr uint32_t PORT_REQ_VENDOR = 0;
constexpr uint32_t PORT_REQ_PRODUCT = 2;
constexpr uint32_t PORT_REQ_LOCATION = 4;
constexpr uint32_t LOCATION_SIZE = 16;

// Writes a text of at most `limit` characters and its NUL; the source
// need not be terminated within `limit`.
int write_text(tqbuffer *out, const char *text, uint32_t limit) {
    int written = tqbuffer_write(out, text, static_cast<uint32_t>(strnlen(text, limit)));
    if (written < 0)
        return written;
    static constexpr char nul = '\0';
    return tqbuffer_write(out, &nul, 1);
}

bool find_interface(dypd_ds_interface_info *info) {
    bool found = false;
    dypd_ds_walk(DYPD_DS_OP_INTERFACE_INFO, [&](dypd_ds_module *module) {
        int result = module->get_interface_info(module, info);
        if (result >= 0) {
            found = true;
            return false;
        }
        // A failing module may have written over the name without a NUL.
        info->name[sizeof info->name - 1] = '\0';
        dypd_ds_log_failure(result, dypd_ds_quiet::nodev_noent,
                            "cannot get information of the interface %s module %s (err: %d)",
                            info->name, module->name, result);
        return true;
    });
    return found;
}

void read_box_mac(const dypd_session *session, uint8_t *mac) {
    memset(mac, 0, MAC_SIZE);
    char ifname[IF_NAMESIZE];
    if (!dypcmd_session_ifname(session, ifname))
        return;
    if (tq_net_get_hwaddr(ifname, mac, MAC_SIZE) < 0) {
        memset(mac, 0, MAC_SIZE);
        dyp_log(LOG_WARNING, "no interface %s\n", ifname);
    }
}

} // namespace

int32_t dypcmd_get_scanner_status(dypd_session *session, const uint8_t *request, uint8_t *out,
                                  uint32_t size) {
    // On the stack: a failed allocation could not be answered anyway, and
    // this reply must always be complete.
    dypd_ds_interface_info info = {};
    bool found = false;
    uint32_t colon = dypcmd_param_offset(request);
    if (colon != 0) {
        // The 16 bytes after the ':' lie inside the packet: the name field
        // ends at byte 83 and the packet runs on to DYP_REQUEST_MAX.
        memcpy(info.name, request + colon + 1, sizeof info.name);
        info.name[sizeof info.name - 1] = '\0';
        found = find_interface(&info);
    }

    tqbuffer buffer = {out, size, 0};
    uint8_t status[2];
    put_be16(status, static_cast<uint16_t>(dypd_get_status() | STATUS_ALWAYS |
                                           (found ? STATUS_PRESENT : 0) |
                                           (info.status_flag != 0 ? STATUS_FLAGGED : 0)));
    int written = tqbuffer_write(&buffer, status, sizeof status);
    if (written < 0)
        dyp_log(LOG_INFO, "buffer error(%d)\n", written);

    static constexpr uint8_t zeros[MAC_SIZE] = {};
    (void)tqbuffer_write(&buffer, found ? info.host_addr + SA_ADDR : zeros, 4);
    (void)tqbuffer_write(&buffer, found ? info.host_mac : zeros, MAC_SIZE);
    uint8_t box_mac[MAC_SIZE];
    read_box_mac(session, box_mac);
    (void)tqbuffer_write(&buffer, box_mac, sizeof box_mac);
    (void)write_text(&buffer, found ? info.description : NOT_CONNECTED, DESCRIPTION_MAX);
    return static_cast<int32_t>(buffer.length);
}

int32_t dypcmd_get_scanner_port_name(dypd_session *, const uint8_t *, uint8_t *out, uint32_t size) {
    tqbuffer buffer = {out, size, 0};
    static constexpr uint8_t no_count = 0;
    (void)tqbuffer_write(&buffer, &no_count, 1);
    uint32_t total = 0;
    dypd_ds_walk(DYPD_DS_OP_NUM_INTERFACES | DYPD_DS_OP_INTERFACE_NAMES,
                 [&](dypd_ds_module *module) {
                     uint32_t mark = buffer.length;
                     dypd_ds_name_list names = {};
                     int fetched = dypd_ds_fetch_names(module, DYPD_DS_NAMES_MAX, &names);
                     bool complete = true;
                     for (int i = 0; i < fetched && complete; ++i)
                         complete = write_text(&buffer, names.names[i], DYPD_DS_NAME_SLOT - 1) >= 0;
                     if (fetched > 0)
                         dyp_free(names.names);
                     if (complete)
                         total += static_cast<uint32_t>(fetched > 0 ? fetched : 0);
                     else
                         buffer.length = mark;
                     return true;
                 });
    // The count byte keeps the low 8 bits: this list has no 255 limit.
    if (size > 0)
        out[0] = static_cast<uint8_t>(total);
    return static_cast<int32_t>(buffer.length);
}

namespace {

struct port_query {
    uint16_t vendor_id;
    uint16_t product_id;
    char location[LOCATION_SIZE];
};

// Looks the module's interfaces up by location. Returns true when one
// matched: then `matched` says whether its ids agree too.
bool match_in_module(dypd_ds_module *module, const port_query &query, dypd_ds_interface_info *info,
                     bool *matched) {
    dypd_ds_name_list names = {};
    int fetched = dypd_ds_fetch_names(module, DYPD_DS_NAMES_MAX, &names);
    bool decided = false;
    for (int i = 0; i < fetched && !decided; ++i) {
        int result = dypd_ds_slot_info(module, names.names[i], info);
        if (result == -ENODEV)
            continue;
        if (result < 0)
            break;
        if (strncmp(info->location, query.location, LOCATION_SIZE) == 0) {
            decided = true;
            *matched = info->vendor_id == query.vendor_id && info->product_id == query.product_id;
        }
    }
    if (fetched > 0)
        dyp_free(names.names);
    return decided;
}

} // namespace

int32_t dypcmd_get_usb_port_name(dypd_session *, const uint8_t *request, uint8_t *out,
                                 uint32_t size) {
    const uint8_t *data = request + DYP_REQ_DATA;
    port_query query;
    query.vendor_id = get_be16(data + PORT_REQ_VENDOR);
    query.product_id = get_be16(data + PORT_REQ_PRODUCT);
    memcpy(query.location, data + PORT_REQ_LOCATION, LOCATION_SIZE);

    tqbuffer buffer = {out, size, 0};
    static constexpr uint8_t no_match = 0;
    static constexpr uint8_t match = 1;
    auto *info =
        static_cast<dypd_ds_interface_info *>(dyp_calloc(1, sizeof(dypd_ds_interface_info)));
    if (info == nullptr)
        return tqbuffer_write(&buffer, &no_match, 1);

    bool matched = false;
    constexpr unsigned needed =
        DYPD_DS_OP_NUM_INTERFACES | DYPD_DS_OP_INTERFACE_NAMES | DYPD_DS_OP_INTERFACE_INFO;
    dypd_ds_walk(needed, [&](dypd_ds_module *module) {
        return !match_in_module(module, query, info, &matched);
    });
    if (matched) {
        (void)tqbuffer_write(&buffer, &match, 1);
        (void)write_text(&buffer, info->name, DYPD_DS_NAME_SLOT - 1);
    } else {
        (void)tqbuffer_write(&buffer, &no_match, 1);
    }
    dyp_free(info);
    return static_cast<int32_t>(buffer.length);
}
