#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "daemon/config_notes.h"
#include "daemon/dypd_priv.h"
#include "lib/alloc.h"
#include "lib/cfgctrl.h"
#include "lib/nerrno.h"
#include "lib/text.h"
#include "lib/tqstdio.h"

const char dypd_config_refused[] = "the config file %s is not a regular file of at most %u bytes";

const char *const dypd_config_keys[DYPD_CONFIG_KEY_COUNT] = {"product", "hostname", "netif",
                                                             "portnum", "ds_port"};

namespace {

// Tells the caller's listener, if there is one, about a value the loader
// leaves unused or shortens; the daemon itself passes none.
const dypd_config_listener *listener = nullptr;

void note(const char *key, const char *value, dypd_config_note what) {
    if (listener != nullptr)
        listener->noted(listener->context, key, value, what);
}

enum class conversion { number, not_a_number, failed };

struct converted {
    conversion kind;
    long value; // the number, or the negative errno when the conversion failed
};

// strtol in base 0 (decimal, 0x hexadecimal, leading-0 octal) with the
// outcomes the loader tells apart. The box's long is 32 bits wide, so the
// same limits are applied on every build: a value outside them is a range
// error here too.
converted convert_number(const char *text) {
    char *end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 0);
    if (errno == 0 && (value > INT32_MAX || value < INT32_MIN))
        errno = ERANGE;
    if (errno == EINVAL)
        return {conversion::failed, -EINVAL};
    if (errno != 0)
        return value == 0 ? converted{conversion::number, 0}
                          : converted{conversion::failed, -errno};
    if (end == text || *end != '\0')
        return {conversion::not_a_number, 0};
    return {conversion::number, value};
}

// Where each key's value is kept during a load, in dypd_config_keys order.
enum config_key { KEY_PRODUCT, KEY_HOST_NAME, KEY_NETIF, KEY_PORTNUM, KEY_DS_PORT };

void load_name(const char *key, const char *value, char (&field)[16]) {
    if (value == nullptr)
        return;
    if (value[0] != '\0')
        copy_text(field, value);
    if (strlen(value) >= sizeof field)
        note(key, value, dypd_config_note::cut);
}

// The bind list is taken from the file only while neither the command line
// nor an earlier load has set it; a copy of the value then stays the
// setting until dypd_configfile_release.
int load_bind_interfaces(const char *value, dypd_settings *settings) {
    if (value == nullptr || value[0] == '\0' || settings->bind_interfaces != network_interface_name)
        return 0;
    char *copy = tq_cfg_copy_string(value);
    if (copy == nullptr)
        return -ENOMEM;
    settings->bind_interfaces = copy;
    settings->loaded_bind_interfaces = copy;
    return 0;
}

// Converts every comma-separated piece of `text` into `list`, cutting the
// text in place; empty pieces (",," or a comma at either end) are skipped.
// Returns 1 when all pieces are numbers, 0 when a piece is not a number
// (the load then ends successfully without the new list), or a negative
// errno.
int parse_ports(char *text, int32_t *list, int32_t *count) {
    for (char *piece = text, *next; *piece != '\0'; piece = next) {
        next = piece;
        while (*next != '\0' && *next != ',')
            ++next;
        if (*next == ',')
            *next++ = '\0';
        if (*piece == '\0')
            continue;
        converted port = convert_number(piece);
        if (port.kind == conversion::failed)
            return static_cast<int>(port.value);
        if (port.kind == conversion::not_a_number) {
            note("portnum", piece, dypd_config_note::not_a_number);
            return 0;
        }
        list[(*count)++] = static_cast<int32_t>(port.value);
    }
    return 1;
}

void release_ports(dypd_settings *settings) {
    if (settings->ports != default_ports)
        dyp_free(settings->ports);
}

// Returns 1 to go on with "ds_port", otherwise the load's final result.
// The value is cut into its pieces in place.
int load_ports(char *value, dypd_settings *settings) {
    if (value == nullptr)
        return 1;
    // A value of n bytes holds at most n / 2 + 1 numbers.
    size_t capacity = strlen(value) / 2 + 1;
    auto *list = static_cast<int32_t *>(dyp_malloc(capacity * sizeof(int32_t)));
    if (list == nullptr)
        return -ENOMEM;
    int32_t count = 0;
    int result = parse_ports(value, list, &count);
    if (result <= 0 || count == 0) {
        dyp_free(list);
        return result;
    }
    // The previous list is the built-in table or one an earlier load made;
    // nothing else refers to it (the endpoints keep copies of their ports).
    release_ports(settings);
    settings->ports = list;
    settings->port_count = count;
    return 1;
}

int load_primary_port(const char *value, dypd_settings *settings) {
    if (value == nullptr)
        return 0;
    converted port =
        value[0] == '\0' ? converted{conversion::not_a_number, 0} : convert_number(value);
    if (port.kind == conversion::not_a_number)
        note("ds_port", value, dypd_config_note::not_a_number);
    if (port.kind == conversion::failed)
        return static_cast<int>(port.value);
    if (port.kind == conversion::number)
        settings->primary_port = static_cast<int32_t>(port.value);
    return 0;
}

// Applies the values of the file's `text`. Each value is a key's outside
// any section, ended in place in the text, or null when the key is missing.
// Every value is looked up before any is taken apart, so that the pieces of
// one never pass for a line.
int apply_text(char *text, size_t size, dypd_settings *settings) {
    char *values[DYPD_CONFIG_KEY_COUNT];
    for (int key = 0; key < DYPD_CONFIG_KEY_COUNT; ++key)
        values[key] = tq_cfg_find_in_text(text, size, nullptr, dypd_config_keys[key]);
    load_name("product", values[KEY_PRODUCT], settings->identity.product_name);
    load_name("hostname", values[KEY_HOST_NAME], settings->identity.host_name);
    int result = load_bind_interfaces(values[KEY_NETIF], settings);
    if (result < 0)
        return result;
    result = load_ports(values[KEY_PORTNUM], settings);
    if (result != 1)
        return result;
    return load_primary_port(values[KEY_DS_PORT], settings);
}

} // namespace

int dypd_configfile_load(dypd_settings *settings) {
    const char *path = settings->config_path;
    if (path == nullptr)
        return 0;
    if (access(path, R_OK) < 0)
        return neg_errno();
    char *text = nullptr;
    size_t size = 0;
    int result = tq_read_config(path, &text, &size);
    // A refused file and want of memory end the load (for want of memory a
    // setting is never silently left at its old value); a file that could
    // not be read sets nothing.
    if (result < 0)
        return result == -EFBIG || result == -ENOMEM ? result : 0;
    result = apply_text(text, size, settings);
    dyp_free(text);
    return result;
}

void dypd_configfile_release(dypd_settings *settings) {
    release_ports(settings);
    settings->ports = default_ports;
    settings->port_count = 2;
    if (settings->bind_interfaces == settings->loaded_bind_interfaces)
        settings->bind_interfaces = network_interface_name;
    tq_cfg_release_string(settings->loaded_bind_interfaces);
    settings->loaded_bind_interfaces = nullptr;
}

int dypd_configfile_load_noting(dypd_settings *settings, const dypd_config_listener *noted) {
    listener = noted;
    int result = dypd_configfile_load(settings);
    listener = nullptr;
    return result;
}
