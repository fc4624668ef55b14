#include "device_file.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <netinet/in.h>

#include "lib/cfgctrl.h"

namespace {

// Owns a section map read by the project's INI reader.
struct section_map {
    tqmap<tq_cfg_pair> *map = nullptr;
    ~section_map() { tq_cfg_release_section(map); }
};

struct section_names {
    tqlist<char> *list = nullptr;
    ~section_names() { tq_cfg_release_section_list(list); }
};

bool parse_number(const std::string &text, unsigned long limit, unsigned long &value) {
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    value = strtoul(text.c_str(), &end, 0);
    return errno == 0 && *end == '\0' && value <= limit;
}

bool parse_errno(const std::string &text, int &value) {
    static const std::pair<const char *, int> names[] = {
        {"ENODEV", ENODEV}, {"ENOENT", ENOENT}, {"EIO", EIO}, {"EBUSY", EBUSY}, {"EPERM", EPERM}};
    for (const auto &[name, number] : names) {
        if (text == name) {
            value = -number;
            return true;
        }
    }
    return false;
}

// "a.b.c.d" or "a.b.c.d:port" as an IPv4 socket address.
bool parse_host(const std::string &text, std::array<uint8_t, 128> &storage) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::string host = text;
    size_t colon = text.find(':');
    if (colon != std::string::npos) {
        unsigned long port;
        if (!parse_number(text.substr(colon + 1), 0xFFFF, port))
            return false;
        address.sin_port = htons(static_cast<uint16_t>(port));
        host = text.substr(0, colon);
    }
    if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1)
        return false;
    storage.fill(0);
    memcpy(storage.data(), &address, sizeof address);
    return true;
}

bool parse_mac(const std::string &text, std::array<uint8_t, 6> &mac) {
    unsigned bytes[6];
    char tail;
    if (sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x%c", &bytes[0], &bytes[1], &bytes[2], &bytes[3],
               &bytes[4], &bytes[5], &tail) != 6)
        return false;
    for (size_t i = 0; i < mac.size(); ++i) {
        if (bytes[i] > 0xFF)
            return false;
        mac[i] = static_cast<uint8_t>(bytes[i]);
    }
    return true;
}

// Sets an unsigned field from a number that must fit its width.
template <typename T> bool set_number(const std::string &value, T &field) {
    unsigned long number;
    if (!parse_number(value, std::numeric_limits<T>::max(), number))
        return false;
    field = static_cast<T>(number);
    return true;
}

bool apply_device_key(sim_device &device, const std::string &key, const std::string &value) {
    if (key == "manufacturer")
        device.manufacturer = value;
    else if (key == "product")
        device.product = value;
    else if (key == "location")
        device.location = value;
    else if (key == "serial")
        device.serial = value;
    else if (key == "vendor_id")
        return set_number(value, device.vendor_id);
    else if (key == "product_id")
        return set_number(value, device.product_id);
    else if (key == "aux1")
        return set_number(value, device.aux1);
    else if (key == "aux2")
        return set_number(value, device.aux2);
    else if (key == "aux3")
        return set_number(value, device.aux3);
    else if (key == "aux5")
        return set_number(value, device.aux5);
    else if (key == "status_flag")
        return set_number(value, device.status_flag);
    else if (key == "held_by")
        return device.held = parse_host(value, device.host_addr);
    else if (key == "held_mac")
        return parse_mac(value, device.host_mac);
    else if (key == "result")
        return parse_errno(value, device.injected_result);
    else
        return false;
    return true;
}

bool apply_driver_key(sim_driver &driver, const std::string &key, const std::string &value) {
    if (key == "control_file") {
        if (value != "missing" && value != "present")
            return false;
        driver.control_file_missing = value == "missing";
        return true;
    }
    if (key == "forced_count") {
        unsigned long count;
        if (!parse_number(value, 0xFFFF, count))
            return false;
        driver.forced_count = static_cast<int>(count);
        return true;
    }
    return false;
}

// Reads one section and hands each pair to `apply`; -EINVAL names the
// first pair that `apply` refuses.
template <typename Apply>
int read_section(const char *path, const char *section, std::string &error, Apply &&apply) {
    section_map pairs;
    int result = tq_cfg_get_section(path, section, &pairs.map);
    if (result < 0) {
        error = std::string("cannot read section [") + (section ? section : "") + "]";
        return result;
    }
    result = 0;
    tqlist_for_each(pairs.map->list, [&](tq_cfg_pair *pair) {
        if (apply(std::string(pair->key), std::string(pair->value)))
            return true;
        error = std::string("bad value for ") + pair->key + " in [" + (section ? section : "") +
                "]: " + pair->value;
        result = -EINVAL;
        return false;
    });
    return result;
}

} // namespace

int sim_load_devices(const char *path, sim_driver &driver, std::string &error) {
    section_names sections;
    int result = tq_cfg_get_section_list(path, &sections.list);
    if (result < 0) {
        error = std::string("cannot read ") + path;
        return result;
    }
    result =
        read_section(path, nullptr, error, [&](const std::string &key, const std::string &value) {
            return apply_driver_key(driver, key, value);
        });
    if (result < 0)
        return result;
    tqlist_for_each(sections.list, [&](char *section) {
        sim_device device;
        device.name = section;
        result = read_section(path, section, error,
                              [&](const std::string &key, const std::string &value) {
                                  return apply_device_key(device, key, value);
                              });
        if (result < 0)
            return false;
        if (device.name.empty() || device.name.size() >= 16) {
            error = "device name must have 1 to 15 characters: " + device.name;
            result = -EINVAL;
            return false;
        }
        driver.devices.push_back(device);
        return true;
    });
    return result;
}
