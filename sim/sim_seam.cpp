#include "sim_seam.h"

#include <cstring>
#include <set>

#include "modules/driver_abi.h"
#include "modules/driver_io.h"

namespace {

struct seam_state {
    sim_driver *driver = nullptr;
    int opens = 0;
    int closes = 0;
    int last_flags = 0;
    int next_fd = 1000; // never a real descriptor of the test process
    std::set<int> open_fds;
};
seam_state state;

int sim_open(const char *path, int flags) {
    state.last_flags = flags;
    if (strcmp(path, USBDS_CONTROL_PATH) != 0)
        return -ENOENT;
    int result = state.driver->open_result();
    if (result < 0)
        return result;
    ++state.opens;
    state.open_fds.insert(state.next_fd);
    return state.next_fd++;
}

int sim_ioctl(int fd, unsigned long request, void *arg) {
    if (state.open_fds.count(fd) == 0)
        return -EBADF;
    return state.driver->handle(request, arg);
}

void sim_close(int fd) {
    if (state.open_fds.erase(fd) != 0)
        ++state.closes;
}

const usbds_driver_io sim_io = {.open = sim_open, .ioctl = sim_ioctl, .close = sim_close};

} // namespace

sim_driver_scope::sim_driver_scope(sim_driver &driver) {
    state = seam_state{};
    state.driver = &driver;
    usbds_driver_io_install(&sim_io);
}

sim_driver_scope::~sim_driver_scope() {
    usbds_driver_io_install(nullptr);
    state.driver = nullptr;
}

int sim_driver_scope::opens() const {
    return state.opens;
}
int sim_driver_scope::closes() const {
    return state.closes;
}
int sim_driver_scope::last_open_flags() const {
    return state.last_flags;
}
