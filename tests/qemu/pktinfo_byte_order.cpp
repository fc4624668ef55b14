// Linked into the tests, and preloaded into every target program, when they run on a
// big-endian target under qemu-user. qemu 7.2 copies IP_PKTINFO ancillary
// data to the guest without converting it, so the interface index arrives
// in the host's (little-endian) byte order and the daemon would look up
// interface 0x02000000 instead of 2. This wrapper around recvmsg turns such
// an index back; the daemon's code stays as it runs on the box.
//
// Interface indices in the test namespaces are small, so an index above
// 0xFFFF whose swapped value is not is taken as mis-converted; a qemu that
// converts correctly passes through untouched.
#include <byteswap.h>
#include <cstring>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using recvmsg_fn = ssize_t (*)(int, msghdr *, int);

void fix_pktinfo(msghdr *message) {
    for (cmsghdr *control = CMSG_FIRSTHDR(message); control != nullptr;
         control = CMSG_NXTHDR(message, control)) {
        if (control->cmsg_level != IPPROTO_IP || control->cmsg_type != IP_PKTINFO ||
            control->cmsg_len < CMSG_LEN(sizeof(in_pktinfo)))
            continue;
        in_pktinfo info;
        memcpy(&info, CMSG_DATA(control), sizeof info);
        uint32_t index = static_cast<uint32_t>(info.ipi_ifindex);
        if (index > 0xFFFF && bswap_32(index) <= 0xFFFF) {
            info.ipi_ifindex = static_cast<int>(bswap_32(index));
            memcpy(CMSG_DATA(control), &info, sizeof info);
        }
    }
}

} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t recvmsg(int fd, msghdr *message,
                                                                  int flags) {
    static recvmsg_fn real = reinterpret_cast<recvmsg_fn>(dlsym(RTLD_NEXT, "recvmsg"));
    ssize_t received = real(fd, message, flags);
    if (received >= 0)
        fix_pktinfo(message);
    return received;
}
