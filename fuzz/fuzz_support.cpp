#include "fuzz_support.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "lib/fd.h"
#include "lib/log.h"

void fuzz_require(bool ok, const char *what) {
    if (ok)
        return;
    fprintf(stderr, "fuzz target: expected %s (errno: %s)\n", what, strerror(errno));
    abort();
}

void fuzz_enter_private_network() {
    // Without root a user namespace grants the rights over the new network.
    if (unshare(CLONE_NEWNET) != 0)
        fuzz_require(unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0, "a private network namespace");
    unique_fd probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    fuzz_require(probe.valid(), "a socket in the private network");
    ifreq request{};
    strcpy(request.ifr_name, "lo");
    fuzz_require(ioctl(probe.get(), SIOCGIFFLAGS, &request) == 0, "the flags of lo");
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    fuzz_require(ioctl(probe.get(), SIOCSIFFLAGS, &request) == 0, "lo up");
}

void fuzz_silence_log() {
    dyp_log_set_sink([](int, const char *) {});
}

fuzz_memory_file::fuzz_memory_file() : fd_(memfd_create("dypfuzz", MFD_CLOEXEC)) {
    fuzz_require(fd_ >= 0, "a memory file");
    path_ = "/proc/self/fd/" + std::to_string(fd_);
}

fuzz_memory_file::~fuzz_memory_file() {
    (void)close(fd_);
}

void fuzz_memory_file::assign(std::string_view contents) {
    fuzz_require(ftruncate(fd_, 0) == 0, "emptying the memory file");
    fuzz_require(pwrite(fd_, contents.data(), contents.size(), 0) ==
                     static_cast<ssize_t>(contents.size()),
                 "filling the memory file");
}

fuzz_scratch_dir::fuzz_scratch_dir() {
    std::string pattern = std::filesystem::is_directory("/dev/shm") ? "/dev/shm/dypfuzz.XXXXXX"
                                                                    : "/tmp/dypfuzz.XXXXXX";
    fuzz_require(mkdtemp(pattern.data()) != nullptr, "a scratch directory");
    path_ = pattern;
}

fuzz_scratch_dir::~fuzz_scratch_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string_view> fuzz_split(std::string_view input, std::string_view separator) {
    std::vector<std::string_view> pieces;
    for (;;) {
        size_t at = input.find(separator);
        if (at == std::string_view::npos) {
            pieces.push_back(input);
            return pieces;
        }
        pieces.push_back(input.substr(0, at));
        input.remove_prefix(at + separator.size());
    }
}
