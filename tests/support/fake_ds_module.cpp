#include "support/fake_ds_module.h"

#include <map>

#include <arpa/inet.h>
#include <sys/socket.h>

#include "ds/ska.h"
#include "lib/be.h"
#include "protocol/packet.h"

namespace {

std::map<const dypd_ds_module *, fake_module *> fakes;

int fake_num(dypd_ds_module *module) {
    fake_module *fake = fakes.at(module);
    return fake->num_result.value_or(static_cast<int>(fake->interfaces.size()));
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
    std::memset(info->host_addr, 0, sizeof info->host_addr);
    std::memcpy(info->host_addr + 4, iface.ipv4, 4);
    std::memcpy(info->host_mac, iface.host_mac, 6);
    info->vendor_id = iface.vendor_id;
    info->product_id = iface.product_id;
    std::strncpy(info->location, iface.location.c_str(), sizeof info->location);
    info->aux1 = iface.aux1;
    info->aux2 = iface.aux2;
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

sockaddr_in ipv4(uint32_t address, uint16_t port) {
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    sin.sin_addr.s_addr = htonl(address);
    return sin;
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

std::vector<uint8_t> make_request(const std::string &name, const std::string &data) {
    std::vector<uint8_t> packet(DYP_REQUEST_MAX, 0);
    put_be16(packet.data() + DYP_REQ_TYPE, DYP_TYPE_START);
    std::memcpy(packet.data() + DYP_REQ_NAME, name.data(),
                std::min<size_t>(name.size(), DYP_NAME_SIZE));
    packet[DYP_REQ_NAME + DYP_NAME_SIZE - 1] = 0;
    std::memcpy(packet.data() + DYP_REQ_DATA, data.data(), data.size());
    return packet;
}

int ska_namespace_test::udp_socket(uint16_t port, bool any) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in local = ipv4(any ? INADDR_ANY : INADDR_LOOPBACK, port);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local), 0);
    return fd;
}

void ska_namespace_test::send_to_ska(int client, const std::vector<uint8_t> &packet) {
    sockaddr_in ska = ipv4(INADDR_LOOPBACK, SKA_PORT);
    ASSERT_EQ(sendto(client, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&ska),
                     sizeof ska),
              static_cast<ssize_t>(packet.size()));
}
