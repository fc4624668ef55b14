#include "modules/driver_io.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include "lib/fd.h"
#include "lib/nerrno.h"
#include "modules/driver_abi.h"

namespace {

// The mode, unused without O_CREAT, lets the fortified open resolve at
// compile time: flags that are not a constant would otherwise route it
// through a run-time check of its own.
int system_open(const char *path, int flags) {
    return nerrno(::open(path, flags, 0));
}

// A failed ioctl that leaves errno at 0 still counts as a failure: it is
// reported as -EIO rather than passed on as a success.
int system_ioctl(int fd, unsigned long request, void *arg) {
    return nerrno(::ioctl(fd, request, arg));
}

void system_close(int fd) {
    close_fd_slot(fd);
}

const usbds_driver_io *installed_io = &usbds_system_driver_io;

} // namespace

const usbds_driver_io usbds_system_driver_io = {
    .open = system_open,
    .ioctl = system_ioctl,
    .close = system_close,
};

const usbds_driver_io &usbds_driver_io_current() {
    return *installed_io;
}

void usbds_driver_io_install(const usbds_driver_io *io) {
    installed_io = io != nullptr ? io : &usbds_system_driver_io;
}

int usbds_driver_fd::ioctl(unsigned long request, void *arg) const {
    return io_->ioctl(fd_, request, arg);
}
