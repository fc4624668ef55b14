// LD_PRELOAD interposer: stands in for the kernel driver's control file.
// Opens of "/proc/tquptp/driver" get a placeholder descriptor (a memfd);
// ioctls on such a descriptor are answered by the driver model, and every
// other call goes to the system unchanged.
//
// DYPSIM_DEVICES names the device file (read at the first open);
// DYPSIM_LOG, when set, gets one line per request the driver received.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "device_file.h"
#include "modules/driver_abi.h"
#include "sim_driver.h"

#define DYPSIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using open_fn = int (*)(const char *, int, ...);
using openat_fn = int (*)(int, const char *, int, ...);
using open2_fn = int (*)(const char *, int);
using ioctl_fn = int (*)(int, unsigned long, ...);
using close_fn = int (*)(int);

template <typename F> F next_symbol(const char *name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

struct preload_state {
    sim_driver driver;
    bool loaded = false;
    std::set<int> placeholders;
};

// Built on first use, since the interposers can run before static
// constructors, and never destroyed, since close() still runs after static
// destructors at exit.
preload_state &state() {
    static preload_state *instance = new preload_state;
    return *instance;
}

void append_log(const std::string &line) {
    const char *path = getenv("DYPSIM_LOG");
    if (path == nullptr)
        return;
    static open_fn real_open = next_symbol<open_fn>("open");
    int fd = real_open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    std::string text = line + "\n";
    (void)!write(fd, text.data(), text.size());
    static close_fn real_close = next_symbol<close_fn>("close");
    real_close(fd);
}

void load_devices(preload_state &current) {
    if (current.loaded)
        return;
    current.loaded = true;
    const char *path = getenv("DYPSIM_DEVICES");
    if (path == nullptr) {
        append_log("devices none: DYPSIM_DEVICES is not set");
        return;
    }
    std::string error;
    if (sim_load_devices(path, current.driver, error) < 0)
        append_log("devices error: " + error);
}

bool is_control_file(const char *path) {
    return path != nullptr && strcmp(path, USBDS_CONTROL_PATH) == 0;
}

// A placeholder descriptor for the control file, or -1 with errno set.
int open_control_file() {
    preload_state &current = state();
    load_devices(current);
    int result = current.driver.open_result();
    if (result < 0) {
        errno = -result;
        return -1;
    }
    int fd = memfd_create("dypsim-driver", MFD_CLOEXEC);
    if (fd >= 0)
        current.placeholders.insert(fd);
    return fd;
}

mode_t mode_argument(int flags, va_list args) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
}

// Every open entry point answers the control file from the driver model and
// passes any other path to the system's `real` one.
template <typename F, typename... Args>
int open_or_forward(const char *path, F real, Args... args) {
    return is_control_file(path) ? open_control_file() : real(args...);
}

} // namespace

DYPSIM_EXPORT int open(const char *path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    static open_fn real = next_symbol<open_fn>("open");
    return open_or_forward(path, real, path, flags, mode);
}

DYPSIM_EXPORT int open64(const char *path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    static open_fn real = next_symbol<open_fn>("open64");
    return open_or_forward(path, real, path, flags, mode);
}

DYPSIM_EXPORT int openat(int dirfd, const char *path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    static openat_fn real = next_symbol<openat_fn>("openat");
    return open_or_forward(path, real, dirfd, path, flags, mode);
}

// The fortified entry points that an optimised build calls instead of
// open() when the flags are not a compile-time constant.
DYPSIM_EXPORT int __open_2(const char *path, int flags) {
    static open2_fn real = next_symbol<open2_fn>("__open_2");
    return open_or_forward(path, real, path, flags);
}

DYPSIM_EXPORT int __open64_2(const char *path, int flags) {
    static open2_fn real = next_symbol<open2_fn>("__open64_2");
    return open_or_forward(path, real, path, flags);
}

DYPSIM_EXPORT int ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    preload_state &current = state();
    if (current.placeholders.count(fd) == 0) {
        static ioctl_fn real = next_symbol<ioctl_fn>("ioctl");
        return real(fd, request, arg);
    }
    int result = current.driver.handle(request, arg);
    append_log(current.driver.requests().back());
    if (result < 0) {
        errno = -result;
        return -1;
    }
    return result;
}

DYPSIM_EXPORT int close(int fd) {
    (void)state().placeholders.erase(fd);
    static close_fn real = next_symbol<close_fn>("close");
    return real(fd);
}
