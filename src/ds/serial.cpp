#include "ds/serial.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "lib/fd.h"
#include "lib/log.h"
#include "lib/nerrno.h"

namespace {

constexpr const char *DEFAULT_SYSFS_ROOT = "/sys/bus/usb/devices";
const char *sysfs_root = DEFAULT_SYSFS_ROOT;

constexpr uint32_t DEVICE_NAME_MAX = 32;
constexpr uint32_t PATH_MAX_BYTES = 256;
constexpr uint32_t SERIAL_READ_MAX = 128;
// The port path may run on past `location` into the two bytes after it.
constexpr uint32_t PORT_CHARS_MAX = 16;
constexpr uint32_t LOCATION_PORT_START = 2;

// Check points that identify where a lookup gave up.
constexpr int CHECK_NO_SESSION = 479;
constexpr int CHECK_NO_LOCATION = 484;
constexpr int CHECK_BUS = 505;
constexpr int CHECK_DASH = 511;
constexpr int CHECK_PORT = 525;
constexpr int CHECK_SEPARATOR = 531;

int fail_at(int check_point) {
    dyp_log(LOG_ERR, "(%s)-(%d)\n", "dypd_ds_get_serial", check_point);
    return -EINVAL;
}

// Byte `index` of the location text as the driver lays it out: the 16
// bytes of `location`, then aux1 and aux2.
char location_char(const dypd_ds_interface_info *info, uint32_t index) {
    if (index < sizeof info->location)
        return info->location[index];
    return static_cast<char>(index == sizeof info->location ? info->aux1 : info->aux2);
}

struct device_name {
    char text[DEVICE_NAME_MAX + 1] = {};
    uint32_t length = 0;

    bool put(char c) {
        if (length >= DEVICE_NAME_MAX)
            return false;
        text[length++] = c;
        return true;
    }
};

// Location H123 names the sysfs device 1-2.3: the bus, a dash, then the
// port path with dots, up to an 'M' or the end.
int build_device_name(const dypd_ds_interface_info *info, device_name *name) {
    if (!name->put(location_char(info, 1)))
        return fail_at(CHECK_BUS);
    if (!name->put('-'))
        return fail_at(CHECK_DASH);
    for (uint32_t i = 0; i < PORT_CHARS_MAX; ++i) {
        char c = location_char(info, LOCATION_PORT_START + i);
        if (c == 'M' || c == '\0')
            break;
        if (!name->put(c))
            return fail_at(CHECK_PORT);
        if (!name->put('.'))
            return fail_at(CHECK_SEPARATOR);
    }
    // The last separator written (the dash when there is no port path)
    // ends the name.
    name->text[--name->length] = '\0';
    return 0;
}

int serial_error(int err) {
    dyp_log(LOG_ERR, "cannot open serial error %d", err);
    return err;
}

// Reads the first line of the serial file into `text` (129 bytes).
int read_serial_file(const char *path, char *text) {
    text[0] = '\0';
    unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file.valid())
        return errno == ENOENT ? 0 : serial_error(neg_errno());
    ssize_t count = read(file.get(), text, SERIAL_READ_MAX);
    if (count < 0)
        return errno == ENOENT ? 0 : serial_error(neg_errno());
    // A serial is short; a file that fills the whole read is not one.
    if (static_cast<uint32_t>(count) == SERIAL_READ_MAX)
        return serial_error(-ENOBUFS);
    for (ssize_t i = 0; i < count; ++i) {
        if (text[i] == '\r' || text[i] == '\n')
            text[i] = '\0';
    }
    text[count] = '\0';
    return 0;
}

} // namespace

void dypd_ds_set_sysfs_root(const char *root) {
    sysfs_root = root != nullptr ? root : DEFAULT_SYSFS_ROOT;
}

int dypd_ds_get_serial(const dypd_session *session, const dypd_ds_interface_info *info,
                       uint8_t *serial) {
    memset(serial, 0, DYPD_DS_SERIAL_SIZE);
    if (session == nullptr)
        return fail_at(CHECK_NO_SESSION);
    char kind = info->location[0];
    if (kind == '\0')
        return fail_at(CHECK_NO_LOCATION);
    if (kind != 'F' && kind != 'H' && kind != 'L' && kind != 'S') {
        // The driver's location need not be terminated: the format bounds it.
        dyp_log(LOG_INFO, " unknown location (%.*s)\n", static_cast<int>(sizeof info->location),
                info->location);
        return -EINVAL;
    }
    device_name name;
    int err = build_device_name(info, &name);
    if (err < 0)
        return err;

    char path[PATH_MAX_BYTES];
    int needed = snprintf(path, sizeof path, "%s/%s/%s", sysfs_root, name.text, "serial");
    if (needed < 0)
        return serial_error(-EIO);
    if (static_cast<uint32_t>(needed) >= sizeof path)
        return serial_error(-ENOBUFS);

    char text[SERIAL_READ_MAX + 1];
    err = read_serial_file(path, text);
    if (err < 0)
        return err;
    memcpy(serial, text, strnlen(text, DYPD_DS_SERIAL_SIZE));
    return 0;
}
