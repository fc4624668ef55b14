// A box on 127.0.0.1 (port chosen by the kernel) that answers every datagram
// with what a test's script returns, from a thread of its own.
#pragma once

#include <arpa/inet.h>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

#include "lib/fd.h"

class fake_box {
  public:
    using packet = std::vector<uint8_t>;
    // Returns the replies to the `index`-th request (none for silence); it
    // runs on the box's thread.
    using script = std::function<std::vector<packet>(const packet &request, int index)>;

    explicit fake_box(script answer) : answer_(std::move(answer)) {
        socklen_t size = sizeof self_;
        EXPECT_EQ(bind(fd_.get(), address(self_), size), 0);
        EXPECT_EQ(getsockname(fd_.get(), address(self_), &size), 0);
        thread_ = std::thread([this] { serve(); });
    }
    // An empty datagram to itself wakes the box to see that it must stop.
    ~fake_box() {
        stopping_ = true;
        (void)sendto(fd_.get(), "", 0, 0, address(self_), sizeof self_);
        thread_.join();
    }
    std::string host() const { return "127.0.0.1:" + std::to_string(ntohs(self_.sin_port)); }

  private:
    static sockaddr *address(sockaddr_in &in) { return reinterpret_cast<sockaddr *>(&in); }
    void serve() {
        packet in(65536);
        for (int index = 0; !stopping_;) {
            sockaddr_in from{};
            socklen_t size = sizeof from;
            ssize_t n = recvfrom(fd_.get(), in.data(), in.size(), 0, address(from), &size);
            if (n < 0 || stopping_)
                continue;
            for (const packet &reply : answer_(packet(in.begin(), in.begin() + n), index++))
                (void)sendto(fd_.get(), reply.data(), reply.size(), 0, address(from), size);
        }
    }

    script answer_;
    unique_fd fd_{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_in self_{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};
