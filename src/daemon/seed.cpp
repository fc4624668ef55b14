#include "daemon/seed.h"

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "lib/clock.h"
#include "lib/fd.h"

namespace {

// Four bytes from the kernel's generator, 0 when it cannot be read (a
// chroot without /dev). It never blocks, and even before its pool is fully
// initialised at boot the kernel has mixed in what tells this box from its
// neighbours (their MAC addresses among it).
uint32_t kernel_random() {
    uint32_t value = 0;
    unique_fd device(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (!device.valid() || read(device.get(), &value, sizeof value) != sizeof value)
        return 0;
    return value;
}

} // namespace

void dypd_seed_random() {
    // The millisecond clock rather than time(): the same clock the handler
    // reads, finer, and one libc import less.
    auto seed = dypd_get_systime() ^ static_cast<unsigned>(getpid()) ^ kernel_random();
    // The delays are drawn with random(), so its own generator is seeded:
    // srand is the same call in glibc, but some C libraries keep rand()'s
    // state apart, and nothing here draws from rand().
    srandom(seed);
}
