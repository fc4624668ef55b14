#include "fake_box.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

fake_box::fake_box(script answer) : answer_(std::move(answer)) {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    stop_ = eventfd(0, EFD_CLOEXEC);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len), 0);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { serve(); });
}

fake_box::~fake_box() {
    uint64_t one = 1;
    EXPECT_EQ(write(stop_, &one, sizeof one), ssize_t(sizeof one));
    thread_.join();
    close(fd_);
    close(stop_);
}

std::vector<fake_box::packet> fake_box::requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void fake_box::serve() {
    for (;;) {
        pollfd p[2] = {{fd_, POLLIN, 0}, {stop_, POLLIN, 0}};
        if (poll(p, 2, -1) < 0 || (p[1].revents & POLLIN))
            return;
        packet in(65536);
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n =
            recvfrom(fd_, in.data(), in.size(), 0, reinterpret_cast<sockaddr *>(&from), &len);
        if (n < 0)
            continue;
        in.resize(size_t(n));
        int index;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(in);
            index = int(requests_.size()) - 1;
        }
        for (const auto &reply : answer_(in, index))
            (void)sendto(fd_, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&from),
                         len);
    }
}
