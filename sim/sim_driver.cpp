#include "sim_driver.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>

#include "modules/driver_abi.h"

namespace {

std::string field_text(const char *field, size_t size) {
    return std::string(field, strnlen(field, size));
}

std::string format_mac(const uint8_t *mac) {
    char text[18];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return text;
}

// Two socket addresses name the same host when family and IPv4 address
// agree; the port a request came from does not matter.
bool same_host(const uint8_t *a, const uint8_t *b) {
    sockaddr_in first{};
    sockaddr_in second{};
    memcpy(&first, a, sizeof first);
    memcpy(&second, b, sizeof second);
    return first.sin_family == second.sin_family && first.sin_addr.s_addr == second.sin_addr.s_addr;
}

// 0 when the host at `host_addr` may take or release `device`; else -ENODEV
// for no device, the device's injected failure, or `refusal` when another
// host holds it.
int holder_check(const sim_device *device, const uint8_t *host_addr, int refusal) {
    if (device == nullptr)
        return -ENODEV;
    if (device->injected_result != 0)
        return device->injected_result;
    if (device->held && !same_host(device->host_addr.data(), host_addr))
        return refusal;
    return 0;
}

void copy_field(char *dst, size_t size, const std::string &text) {
    memset(dst, 0, size);
    memcpy(dst, text.data(), std::min(text.size(), size - 1));
}

} // namespace

std::string sim_format_host(const uint8_t *host_addr) {
    sockaddr_in address{};
    memcpy(&address, host_addr, sizeof address);
    if (address.sin_family != AF_INET)
        return "family=" + std::to_string(address.sin_family);
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

int sim_driver::open_result() const {
    return control_file_missing ? -ENOENT : 0;
}

sim_device *sim_driver::find(const char *name) {
    std::string wanted = field_text(name, USBDS_NAME_SIZE);
    for (auto &device : devices)
        if (device.name == wanted)
            return &device;
    return nullptr;
}

int sim_driver::interface_count() const {
    return forced_count ? *forced_count : static_cast<int>(devices.size());
}

int sim_driver::connect(const char *name, const uint8_t *host_addr, const uint8_t *host_mac) {
    sim_device *device = find(name);
    int refused = holder_check(device, host_addr, -EBUSY);
    if (refused != 0)
        return refused;
    device->held = true;
    memcpy(device->host_addr.data(), host_addr, device->host_addr.size());
    memcpy(device->host_mac.data(), host_mac, device->host_mac.size());
    return 0;
}

// Releasing a device nobody holds succeeds; one held by another host is
// refused.
int sim_driver::disconnect(const char *name, const uint8_t *host_addr) {
    sim_device *device = find(name);
    int refused = holder_check(device, host_addr, -EPERM);
    if (refused != 0)
        return refused;
    device->held = false;
    device->host_addr.fill(0);
    device->host_mac.fill(0);
    return 0;
}

int sim_driver::fill_info(void *arg) {
    auto *record = static_cast<usbds_info_record *>(arg);
    sim_device *device = find(record->name);
    if (device == nullptr)
        return -ENODEV;
    if (device->injected_result != 0)
        return device->injected_result;
    copy_field(record->name, sizeof record->name, device->name);
    copy_field(record->manufacturer, sizeof record->manufacturer, device->manufacturer);
    copy_field(record->product, sizeof record->product, device->product);
    memcpy(record->host_addr, device->host_addr.data(), sizeof record->host_addr);
    memcpy(record->host_mac, device->host_mac.data(), sizeof record->host_mac);
    record->vendor_id = device->vendor_id;
    record->product_id = device->product_id;
    copy_field(record->location, sizeof record->location, device->location);
    record->aux1 = device->aux1;
    record->aux2 = device->aux2;
    record->aux3 = device->aux3;
    record->status_flag = device->status_flag;
    record->aux5 = device->aux5;
    return 0;
}

// Writes as many names as fit, but answers the forced count when one is
// set, as a misbehaving driver would.
int sim_driver::fill_names(void *arg) {
    auto *record = static_cast<usbds_name_list_record *>(arg);
    size_t fitting = std::min<size_t>(record->count, devices.size());
    for (size_t i = 0; i < fitting; ++i)
        copy_field(record->slots[i], USBDS_NAME_SIZE, devices[i].name);
    return forced_count ? *forced_count : static_cast<int>(fitting);
}

// Fails with the injected result of the first named device that has one.
int sim_driver::keep_alive(const void *arg, std::string &line) {
    const auto *record = static_cast<const usbds_name_list_record *>(arg);
    line += " count=" + std::to_string(record->count) +
            " reserved=" + std::to_string(record->reserved) + " names=";
    int result = 0;
    for (size_t i = 0; i < record->count; ++i) {
        line += (i == 0 ? "" : ",") + field_text(record->slots[i], USBDS_NAME_SIZE);
        const sim_device *device = find(record->slots[i]);
        if (device != nullptr && result == 0)
            result = device->injected_result;
    }
    return result;
}

int sim_driver::handle(unsigned long request, void *arg) {
    std::string line;
    int result;
    if (request == USBDS_IOC_CONNECT) {
        const auto *record = static_cast<const usbds_connect_record *>(arg);
        line = "connect name=" + field_text(record->name, sizeof record->name) +
               " host=" + sim_format_host(record->host_addr) +
               " mac=" + format_mac(record->host_mac) +
               " opt_b1=" + std::to_string(record->opt_b1) +
               " opt_b0=" + std::to_string(record->opt_b0);
        result = connect(record->name, record->host_addr, record->host_mac);
    } else if (request == USBDS_IOC_CONNECT_EX) {
        const auto *record = static_cast<const usbds_connect_ex_record *>(arg);
        line =
            "connect_ex name=" + field_text(record->name, sizeof record->name) +
            " host=" + sim_format_host(record->host_addr) + " mac=" + format_mac(record->host_mac) +
            " opt_b1=" + std::to_string(record->opt_b1) +
            " opt_b0=" + std::to_string(record->opt_b0) + " size=" + std::to_string(record->size) +
            " ifname=" + field_text(record->ifname, sizeof record->ifname);
        result = connect(record->name, record->host_addr, record->host_mac);
    } else if (request == USBDS_IOC_DISCONNECT) {
        const auto *record = static_cast<const usbds_disconnect_record *>(arg);
        line = "disconnect name=" + field_text(record->name, sizeof record->name) +
               " host=" + sim_format_host(record->host_addr);
        result = disconnect(record->name, record->host_addr);
    } else if (request == USBDS_IOC_GET_NUM_INTERFACES) {
        line = "get_num_interfaces";
        result = interface_count();
    } else if (request == USBDS_IOC_GET_INTERFACE_INFO) {
        line = "get_interface_info name=" +
               field_text(static_cast<const char *>(arg), USBDS_NAME_SIZE);
        result = fill_info(arg);
    } else if (request == USBDS_IOC_GET_INTERFACE_NAMES) {
        line = "get_interface_names count=" +
               std::to_string(static_cast<const usbds_name_list_record *>(arg)->count);
        result = fill_names(arg);
    } else if (request == USBDS_IOC_KEEP_ALIVE) {
        line = "keep_alive";
        result = keep_alive(arg, line);
    } else {
        char text[48];
        snprintf(text, sizeof text, "unknown request=0x%lx", request);
        line = text;
        result = -ENOTTY;
    }
    if (requests_.size() == REQUEST_HISTORY)
        requests_.pop_front();
    requests_.push_back(line + " result=" + std::to_string(result));
    return result;
}
