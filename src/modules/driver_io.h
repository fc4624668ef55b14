// The one seam between the usbds module and the kernel: every open, ioctl
// and close of the driver's control file goes through the table installed
// here. The real table calls the system; tests install a simulated one.
#pragma once

#include <fcntl.h>

#include "modules/driver_abi.h"

// Results follow the daemon's convention: a descriptor or count, or a
// negative errno value.
struct usbds_driver_io {
    // Opens `path` with `flags`; a descriptor or a negative errno value.
    int (*open)(const char *path, int flags);
    // Issues `request` with `arg`; the driver's result or a negative errno.
    int (*ioctl)(int fd, unsigned long request, void *arg);
    // Closes a descriptor that `open` returned.
    void (*close)(int fd);
};

extern const usbds_driver_io usbds_system_driver_io;

// The table in use (the system's unless a test installed another).
const usbds_driver_io &usbds_driver_io_current();
// Installs `io`; null restores the system's table.
void usbds_driver_io_install(const usbds_driver_io *io);

// Owns one open descriptor of the control file and closes it through the
// table that opened it, on every path out of the scope.
class usbds_driver_fd {
  public:
    // Opens the driver's control file read-write. Both ends are inlined:
    // called out of line they would take the owner's address, and that
    // alone makes the stack protector guard every function holding one.
    [[gnu::always_inline]] usbds_driver_fd()
        : io_(&usbds_driver_io_current()), fd_(io_->open(USBDS_CONTROL_PATH, O_RDWR | O_CLOEXEC)) {}
    [[gnu::always_inline]] ~usbds_driver_fd() {
        if (fd_ >= 0)
            io_->close(fd_);
    }
    usbds_driver_fd(const usbds_driver_fd &) = delete;
    usbds_driver_fd &operator=(const usbds_driver_fd &) = delete;

    // 0 when the file is open, else the open's negative errno value.
    int error() const { return fd_ < 0 ? fd_ : 0; }
    // The driver's result for `request`, or a negative errno value.
    int ioctl(unsigned long request, void *arg) const;

  private:
    const usbds_driver_io *io_;
    int fd_;
};
