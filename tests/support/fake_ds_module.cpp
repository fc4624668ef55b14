#include "support/fake_ds_module.h"

#include <map>

#include "lib/be.h"
#include "protocol/packet.h"

namespace {

std::map<const dypd_ds_module *, fake_module *> fakes;

int fake_num(dypd_ds_module *module) {
    return static_cast<int>(fakes.at(module)->interfaces.size());
}

int fake_names(dypd_ds_module *module, dypd_ds_name_list *list) {
    fake_module *fake = fakes.at(module);
    fake->names_asked.push_back(list->count);
    size_t n = std::min<size_t>(list->count, fake->interfaces.size());
    for (size_t i = 0; i < n; ++i)
        std::strncpy(list->names[i], fake->interfaces[i].name.c_str(), DYPD_DS_NAME_SLOT);
    return fake->names_result.value_or(static_cast<int>(n));
}

void fill_info(const fake_interface &iface, dypd_ds_interface_info *info) {
    std::memset(info->description, iface.raw_description ? 'D' : 0, sizeof info->description);
    if (!iface.raw_description)
        std::strncpy(info->description, iface.description.c_str(), sizeof info->description - 1);
    std::memcpy(info->host_addr, "\0\0\0\0\xC0\x00\x02\x07", 8);
    std::memcpy(info->host_mac, "\x02\x00\x00\x00\x00\x07", 6);
    info->vendor_id = iface.vendor_id;
    info->product_id = 0x0142;
    std::strncpy(info->location, iface.location.c_str(), sizeof info->location);
    info->aux1 = 0x5a;
    info->aux2 = 0xa5;
    info->status_flag = iface.status_flag;
}

int fake_info(dypd_ds_module *module, dypd_ds_interface_info *info) {
    fake_module *fake = fakes.at(module);
    ++fake->info_calls;
    for (const fake_interface &iface : fake->interfaces) {
        if (std::strncmp(iface.name.c_str(), info->name, sizeof info->name) != 0)
            continue;
        if (iface.info_result >= 0)
            fill_info(iface, info);
        return iface.info_result;
    }
    return -ENODEV;
}

int fake_connect_ex(dypd_ds_module *module, const dypd_ds_connect_param_ex *param) {
    fakes.at(module)->connect_ex_calls.push_back(*param);
    return fakes.at(module)->connect_result;
}

int fake_connect(dypd_ds_module *module, const dypd_ds_connect_param *param) {
    fakes.at(module)->connect_calls.push_back(*param);
    return fakes.at(module)->connect_result;
}

int fake_disconnect(dypd_ds_module *module, const dypd_ds_connect_param *param) {
    fakes.at(module)->disconnect_calls.push_back(*param);
    return fakes.at(module)->disconnect_result;
}

void fake_keep_alive(dypd_ds_module *module, const dypd_ds_name_list *list) {
    std::vector<std::string> names;
    for (uint16_t i = 0; i < list->count; ++i)
        names.emplace_back(list->names[i], strnlen(list->names[i], DYPD_DS_NAME_SLOT));
    fakes.at(module)->keep_alive_calls.push_back(names);
}

} // namespace

fake_module::fake_module(const char *name)
    : module_{name,     0,         fake_connect, fake_connect_ex, fake_disconnect,
              fake_num, fake_info, fake_names,   fake_keep_alive} {
    fakes[&module_] = this;
}

fake_module::~fake_module() {
    fakes.erase(&module_);
}

std::string run_command(dypcmd_handler handler, dypd_session *session, const std::string &name,
                        const std::string &data, uint32_t capacity) {
    std::vector<uint8_t> request(DYP_REQUEST_MAX, 0), out(capacity);
    put_be16(request.data() + DYP_REQ_TYPE, DYP_TYPE_START);
    std::memcpy(request.data() + DYP_REQ_NAME, name.data(),
                std::min<size_t>(name.size(), DYP_NAME_SIZE));
    request[DYP_REQ_NAME + DYP_NAME_SIZE - 1] = 0;
    std::memcpy(request.data() + DYP_REQ_DATA, data.data(), data.size());
    int32_t n = handler(session, request.data(), out.data(), capacity);
    return std::string(out.begin(), out.begin() + std::max(n, 0));
}
