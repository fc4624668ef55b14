#include "daemon/seed.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <net/if.h>
#include <unistd.h>

#include "lib/net.h"

namespace {

constexpr uint32_t FNV_OFFSET = 2166136261u;
constexpr uint32_t FNV_PRIME = 16777619u;

uint32_t mix(uint32_t hash, const void *data, size_t size) {
    const auto *byte = static_cast<const uint8_t *>(data);
    for (size_t i = 0; i < size; ++i)
        hash = (hash ^ byte[i]) * FNV_PRIME;
    return hash;
}

// The hardware address of the first interface that has one (the loopback's
// is all zero); all zero when none has.
void first_mac(uint8_t mac[6]) {
    static constexpr uint8_t none[6] = {};
    struct if_nameindex *list = if_nameindex();
    for (struct if_nameindex *i = list; i != nullptr && i->if_index != 0; ++i) {
        if (tq_net_get_hwaddr(i->if_name, mac, 6) == 0 && memcmp(mac, none, 6) != 0)
            break;
        memset(mac, 0, 6);
    }
    if (list != nullptr)
        if_freenameindex(list);
}

} // namespace

void dypd_seed_random() {
    uint8_t mac[6] = {};
    first_mac(mac);
    char host_name[64] = {};
    (void)gethostname(host_name, sizeof host_name - 1);
    pid_t pid = getpid();
    uint32_t hash = mix(FNV_OFFSET, mac, sizeof mac);
    hash = mix(hash, host_name, strlen(host_name));
    hash = mix(hash, &pid, sizeof pid);
    auto seed = static_cast<unsigned>(time(nullptr)) ^ hash;
    srand(seed);
    // Some C libraries keep random()'s state apart from rand()'s; the
    // delays are drawn with random(), so it is seeded too.
    srandom(seed);
}
