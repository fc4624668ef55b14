// Linked into the tests, and preloaded into every target program, when they
// run on a big-endian target under qemu-user. qemu 7.2 converts the
// IFA_BROADCAST attribute of the kernel's address messages as if it were a
// 32-bit number, so getifaddrs hands a big-endian guest the broadcast
// address byte-swapped (192.0.2.255 arrives as 255.2.0.192) while the
// address itself arrives right; dypctl would broadcast into nowhere. This
// wrapper turns such a broadcast address back; dypctl's code stays as it
// runs on a real big-endian box.
//
// A broadcast address outside its interface's subnet whose swapped value is
// inside it is taken as mis-converted; a qemu that converts correctly
// passes through untouched.
#include <byteswap.h>
#include <cstdint>
#include <dlfcn.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using getifaddrs_fn = int (*)(ifaddrs **);

uint32_t ipv4_of(const sockaddr *address) {
    return reinterpret_cast<const sockaddr_in *>(address)->sin_addr.s_addr;
}

void fix_broadcast(ifaddrs *entry) {
    if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET || !entry->ifa_netmask ||
        !entry->ifa_broadaddr)
        return;
    uint32_t mask = ipv4_of(entry->ifa_netmask);
    uint32_t network = ipv4_of(entry->ifa_addr) & mask;
    uint32_t broadcast = ipv4_of(entry->ifa_broadaddr);
    if ((broadcast & mask) != network && (bswap_32(broadcast) & mask) == network)
        reinterpret_cast<sockaddr_in *>(entry->ifa_broadaddr)->sin_addr.s_addr =
            bswap_32(broadcast);
}

} // namespace

extern "C" __attribute__((visibility("default"))) int getifaddrs(ifaddrs **list) {
    static getifaddrs_fn real = reinterpret_cast<getifaddrs_fn>(dlsym(RTLD_NEXT, "getifaddrs"));
    int status = real(list);
    if (status == 0)
        for (ifaddrs *entry = *list; entry; entry = entry->ifa_next)
            fix_broadcast(entry);
    return status;
}
