// A box on 127.0.0.1 (port chosen by the kernel) that answers every datagram
// with what a test's script returns, from a thread of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class fake_box {
  public:
    using packet = std::vector<uint8_t>;
    // Returns the replies to the `index`-th request (none for silence).
    using script = std::function<std::vector<packet>(const packet &request, int index)>;

    explicit fake_box(script answer);
    ~fake_box();
    fake_box(const fake_box &) = delete;
    fake_box &operator=(const fake_box &) = delete;

    uint16_t port() const { return port_; }
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
    std::vector<packet> requests();

  private:
    void serve();

    script answer_;
    int fd_ = -1;
    int stop_ = -1;
    uint16_t port_ = 0;
    std::mutex mutex_;
    std::vector<packet> requests_;
    std::thread thread_;
};
