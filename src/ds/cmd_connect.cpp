#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <sys/socket.h>

#include "ds/commands.h"
#include "ds/walk.h"
#include "lib/alloc.h"
#include "lib/buffer.h"
#include "lib/log.h"
#include "lib/text.h"
#include "protocol/packet.h"
#include "protocol/session.h"

namespace {

// Parameter block offsets, counted from the ':'.
constexpr uint32_t PARAM_FORMAT = 1;
constexpr uint32_t PARAM_ADDR_LEN = 2;
constexpr uint32_t PARAM_MAC = 3;
constexpr uint32_t PARAM_IPV4 = 9;
constexpr uint32_t PARAM_IFNAME = 13;
constexpr uint8_t PARAM_FORMAT_V1 = 1;
constexpr uint8_t PARAM_MAC_LEN = 6;
constexpr uint8_t DEFAULT_HOST_PORT[2] = {0x4C, 0x54}; // 19540, network order
constexpr uint8_t OPT_B1 = 0x02;
constexpr uint8_t OPT_B0 = 0x01;

// Socket-address storage offsets of an IPv4 host.
constexpr uint32_t SA_FAMILY = 0;
constexpr uint32_t SA_PORT = 2;
constexpr uint32_t SA_ADDR = 4;

// The parsed parameter block. Every offset was checked to lie inside the
// request packet: the block may run past the name field (its binary part
// can hold NUL bytes), but never past the packet's DYP_REQUEST_MAX bytes.
struct scanner_param {
    const uint8_t *mac;
    const uint8_t *ipv4;
    const char *ifname;  // NUL-terminated inside the packet
    const uint8_t *port; // null when it would lie outside the packet
    uint8_t options;
};

bool parse_scanner_param(const uint8_t *request, scanner_param *param) {
    uint32_t colon = dypcmd_param_offset(request);
    if (colon == 0 || colon + PARAM_IFNAME >= DYP_REQUEST_MAX)
        return false;
    const uint8_t *block = request + colon;
    if (block[PARAM_FORMAT] != PARAM_FORMAT_V1 || block[PARAM_ADDR_LEN] != PARAM_MAC_LEN)
        return false;
    uint32_t name_at = colon + PARAM_IFNAME;
    const void *nul = memchr(request + name_at, '\0', DYP_REQUEST_MAX - name_at);
    if (nul == nullptr)
        return false;
    uint32_t after_name = static_cast<uint32_t>(static_cast<const uint8_t *>(nul) - request) + 1;
    param->mac = block + PARAM_MAC;
    param->ipv4 = block + PARAM_IPV4;
    param->ifname = reinterpret_cast<const char *>(request + name_at);
    // Port and options only matter to connect; when the packet ends before
    // them they count as absent (port 0, no options).
    param->port = after_name + 2 <= DYP_REQUEST_MAX ? request + after_name : nullptr;
    param->options = after_name + 3 <= DYP_REQUEST_MAX ? request[after_name + 2] : 0;
    return true;
}

void fill_host_addr(uint8_t *storage, const uint8_t *port, const uint8_t *ipv4) {
    const uint16_t family = AF_INET;
    memcpy(storage + SA_FAMILY, &family, sizeof family);
    bool unset = port == nullptr || (port[0] == 0 && port[1] == 0);
    memcpy(storage + SA_PORT, unset ? DEFAULT_HOST_PORT : port, 2);
    memcpy(storage + SA_ADDR, ipv4, 4);
}

int32_t answer(uint8_t *out, uint32_t size, bool ok) {
    tqbuffer buffer = {out, size, 0};
    return tqbuffer_write(&buffer, ok ? "OK" : "NG", 3);
}

// Offers the interface to one module: asks whether it serves it, then
// connects through the richer operation the module has. Returns the
// walk's verdict: true to go on with the next module.
bool offer_interface(dypd_ds_module *module, dypd_ds_interface_info *info,
                     const dypd_ds_connect_param_ex *param, int *result) {
    int found = dypd_ds_slot_info(module, param->name, info);
    if (found == -ENODEV)
        return true;
    if (found < 0)
        return false;
    if (module->connect_ex != nullptr) {
        *result = module->connect_ex(module, param);
    } else if (module->connect != nullptr) {
        dypd_ds_connect_param plain = {};
        memcpy(plain.name, param->name, sizeof plain.name);
        memcpy(plain.host_addr, param->host_addr, sizeof plain.host_addr);
        memcpy(plain.host_mac, param->host_mac, sizeof plain.host_mac);
        plain.opt_b1 = (param->opts & OPT_B1) != 0 ? 1 : 0;
        plain.opt_b0 = (param->opts & OPT_B0) != 0 ? 1 : 0;
        *result = module->connect(module, &plain);
    } else {
        return true;
    }
    if (*result == -ENOENT || *result == -ENODEV)
        return true;
    if (*result != 0)
        dyp_log(LOG_ERR, "cannot connect an interface %s module %s (err: %d)", param->name,
                module->name, *result);
    return false;
}

} // namespace

uint32_t dypcmd_param_offset(const uint8_t *request) {
    const void *colon =
        memchr(request + DYP_REQ_NAME, ':',
               strnlen(reinterpret_cast<const char *>(request + DYP_REQ_NAME), DYP_NAME_SIZE));
    return colon == nullptr ? 0
                            : static_cast<uint32_t>(static_cast<const uint8_t *>(colon) - request);
}

bool dypcmd_session_ifname(const dypd_session *session, char *ifname) {
    ifname[0] = '\0';
    int32_t index = session != nullptr ? session->ifindex : 0;
    if (index <= 0 || if_indextoname(static_cast<unsigned>(index), ifname) == nullptr) {
        ifname[0] = '\0';
        dyp_log(LOG_WARNING, "no interface #%d\n", index);
        return false;
    }
    return true;
}

int32_t dypcmd_exec_scanner_connect(dypd_session *session, const uint8_t *request, uint8_t *out,
                                    uint32_t size) {
    scanner_param param;
    if (!parse_scanner_param(request, &param))
        return answer(out, size, false);

    dypd_ds_connect_param_ex connect = {};
    connect.size = DYPD_DS_CONNECT_EX_SIZE;
    copy_text(connect.name, param.ifname);
    fill_host_addr(connect.host_addr, param.port, param.ipv4);
    memcpy(connect.host_mac, param.mac, sizeof connect.host_mac);
    connect.opt_b1 = (param.options & OPT_B1) != 0 ? 1 : 0;
    connect.opts = param.options;
    static_assert(sizeof connect.ifname >= IF_NAMESIZE);
    (void)dypcmd_session_ifname(session, connect.ifname);

    auto *info =
        static_cast<dypd_ds_interface_info *>(dyp_calloc(1, sizeof(dypd_ds_interface_info)));
    if (info == nullptr)
        return answer(out, size, false);
    int result = -ENODEV;
    // Every module that takes part in connecting answers get_interface_info;
    // one without it cannot say it serves the interface and is passed over.
    dypd_ds_walk(DYPD_DS_OP_INTERFACE_INFO, [&](dypd_ds_module *module) {
        return offer_interface(module, info, &connect, &result);
    });
    dyp_free(info);
    return answer(out, size, result >= 0);
}

int32_t dypcmd_exec_scanner_disconnect(dypd_session *, const uint8_t *request, uint8_t *out,
                                       uint32_t size) {
    scanner_param param;
    if (!parse_scanner_param(request, &param))
        return answer(out, size, false);

    dypd_ds_connect_param release = {};
    copy_text(release.name, param.ifname);
    fill_host_addr(release.host_addr, nullptr, param.ipv4);
    // Without modules the walk visits none and the answer is NG.
    int result = -ENODEV;
    // Unlike connect, a failing module does not end the walk: the others
    // may still hold the interface for this host.
    dypd_ds_walk(DYPD_DS_OP_DISCONNECT, [&](dypd_ds_module *module) {
        result = module->disconnect(module, &release);
        if (result == 0)
            return false;
        dypd_ds_log_failure(result, dypd_ds_quiet::nodev_noent,
                            "cannot disconnect an interface %s module %s (err: %d)", release.name,
                            module->name, result);
        return true;
    });
    return answer(out, size, result >= 0);
}
