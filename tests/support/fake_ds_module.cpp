#include "support/fake_ds_module.h"

#include <cerrno>
#include <cstring>
#include <map>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "daemon/dypd_priv.h"
#include "ds/serial.h"
#include "ds/ska.h"
#include "lib/be.h"
#include "protocol/packet.h"

namespace {

std::map<const dypd_ds_module *, fake_module *> &registry() {
    static std::map<const dypd_ds_module *, fake_module *> fakes;
    return fakes;
}

fake_module *fake_of(const dypd_ds_module *module) {
    return registry().at(module);
}

int fake_num(dypd_ds_module *module) {
    fake_module *fake = fake_of(module);
    return fake->num_overridden ? fake->num_result : static_cast<int>(fake->interfaces.size());
}

int fake_names(dypd_ds_module *module, dypd_ds_name_list *list) {
    fake_module *fake = fake_of(module);
    fake->names_asked.push_back(list->count);
    size_t n = std::min<size_t>(list->count, fake->interfaces.size());
    for (size_t i = 0; i < n; ++i) {
        std::memset(list->names[i], 0, DYPD_DS_NAME_SLOT);
        std::strncpy(list->names[i], fake->interfaces[i].name.c_str(), DYPD_DS_NAME_SLOT);
    }
    return fake->names_overridden ? fake->names_result : static_cast<int>(n);
}

int fake_info(dypd_ds_module *module, dypd_ds_interface_info *info) {
    fake_module *fake = fake_of(module);
    ++fake->info_calls;
    for (const fake_interface &iface : fake->interfaces) {
        if (std::strncmp(iface.name.c_str(), info->name, sizeof info->name) != 0)
            continue;
        if (iface.info_result < 0)
            return iface.info_result;
        std::memset(info->description, 0, sizeof info->description);
        if (iface.raw_description)
            std::memset(info->description, 'D', sizeof info->description);
        else
            std::strncpy(info->description, iface.description.c_str(),
                         sizeof info->description - 1);
        std::memset(info->host_addr, 0, sizeof info->host_addr);
        std::memcpy(info->host_addr + 4, iface.ipv4, 4);
        std::memcpy(info->host_mac, iface.host_mac, 6);
        info->vendor_id = iface.vendor_id;
        info->product_id = iface.product_id;
        std::memset(info->location, 0, sizeof info->location);
        std::memcpy(info->location, iface.location.data(),
                    std::min(iface.location.size(), sizeof info->location));
        info->aux1 = iface.aux1;
        info->aux2 = iface.aux2;
        info->status_flag = iface.status_flag;
        return iface.info_result;
    }
    return fake->unknown_info_result;
}

int fake_connect_ex(dypd_ds_module *module, const dypd_ds_connect_param_ex *param) {
    fake_module *fake = fake_of(module);
    fake->connect_ex_calls.push_back(*param);
    return fake->connect_result;
}

int fake_connect(dypd_ds_module *module, const dypd_ds_connect_param *param) {
    fake_module *fake = fake_of(module);
    fake->connect_calls.push_back(*param);
    return fake->connect_result;
}

int fake_disconnect(dypd_ds_module *module, const dypd_ds_connect_param *param) {
    fake_module *fake = fake_of(module);
    fake->disconnect_calls.push_back(*param);
    return fake->disconnect_result;
}

void fake_keep_alive(dypd_ds_module *module, const dypd_ds_name_list *list) {
    std::vector<std::string> names;
    for (uint16_t i = 0; i < list->count; ++i)
        names.emplace_back(list->names[i], strnlen(list->names[i], DYPD_DS_NAME_SLOT));
    fake_of(module)->keep_alive_calls.push_back(names);
}

} // namespace

fake_module::fake_module(const char *name)
    : module_{name,     0,         fake_connect, fake_connect_ex, fake_disconnect,
              fake_num, fake_info, fake_names,   fake_keep_alive} {
    registry()[&module_] = this;
}

fake_module::~fake_module() {
    registry().erase(&module_);
}

module_list_scope::module_list_scope(std::vector<fake_module *> modules) {
    dypd_ds_modlist = tqlist_create<dypd_ds_module>();
    for (fake_module *fake : modules)
        (void)dypd_ds_register_module(fake->get());
}

module_list_scope::~module_list_scope() {
    tqlist_dispose(dypd_ds_modlist);
    dypd_ds_modlist = nullptr;
}

identity_scope::identity_scope(uint16_t status, const char *product, const char *host)
    : saved_(dyp_daemon.header.settings) {
    std::strncpy(identity.product_name, product, sizeof identity.product_name - 1);
    std::strncpy(identity.host_name, host, sizeof identity.host_name - 1);
    identity.status = status;
    dyp_daemon.header.settings = &identity;
}

identity_scope::~identity_scope() {
    dyp_daemon.header.settings = saved_;
}

std::vector<uint8_t> make_request(const std::vector<uint8_t> &name,
                                  const std::vector<uint8_t> &data) {
    std::vector<uint8_t> packet(DYP_REQUEST_MAX, 0);
    put_be16(packet.data() + DYP_REQ_TYPE, DYP_TYPE_START);
    std::memcpy(packet.data() + DYP_REQ_NAME, name.data(),
                std::min<size_t>(name.size(), DYP_REQUEST_MAX - DYP_REQ_NAME));
    packet[DYP_REQ_NAME + DYP_NAME_SIZE - 1] = 0;
    if (!data.empty())
        std::memcpy(packet.data() + DYP_REQ_DATA, data.data(),
                    std::min<size_t>(data.size(), DYP_REQUEST_MAX - DYP_REQ_DATA));
    return packet;
}

std::vector<uint8_t> text_bytes(const std::string &text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

sysfs_scope::sysfs_scope() {
    char pattern[] = "/tmp/dypsysfsXXXXXX";
    EXPECT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    dypd_ds_set_sysfs_root(root_.c_str());
}

sysfs_scope::~sysfs_scope() {
    dypd_ds_set_sysfs_root(nullptr);
    (void)run_shell("rm -rf '" + root_ + "'");
}

void sysfs_scope::put_serial(const std::string &device, const std::string &content) {
    std::string dir = root_ + "/" + device;
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    FILE *file = fopen((dir + "/serial").c_str(), "w");
    ASSERT_NE(file, nullptr);
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
}

void ska_namespace_test::SetUp() {
    DYP_REQUIRE_ROOT();
    ns_ = std::make_unique<test_netns>("ska");
    inside_ = std::make_unique<netns_scope>(ns_->name());
    ASSERT_TRUE(inside_->ok());
}

void ska_namespace_test::TearDown() {
    inside_.reset();
    ns_.reset();
}

int ska_namespace_test::hold_ska_port() {
    int holder = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(SKA_PORT);
    EXPECT_EQ(bind(holder, reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
    return holder;
}

void ska_namespace_test::send_to_ska(int client, const std::vector<uint8_t> &packet) {
    sockaddr_in ska{};
    ska.sin_family = AF_INET;
    ska.sin_port = htons(SKA_PORT);
    ska.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(sendto(client, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&ska),
                     sizeof ska),
              static_cast<ssize_t>(packet.size()));
}
