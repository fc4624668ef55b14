// A model of the kernel USB-over-network driver as the daemon sees it
// through the control file: shared USB devices, which host holds which,
// keep-alive bookkeeping and injectable failures. Each request is decoded,
// answered and described in one log line, so tests can check the exact
// record the driver received. Only the latest lines are kept: a long run
// (a soak of millions of requests) must not grow the simulator; whoever
// needs every line streams them to a log as they come (DYPSIM_LOG).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

struct sim_device {
    std::string name; // interface name, at most 15 characters
    std::string manufacturer;
    std::string product;
    uint16_t vendor_id = 0;
    uint16_t product_id = 0;
    std::string location; // class letter, bus character, port path
    uint8_t aux1 = 0;
    uint8_t aux2 = 0;
    uint8_t aux3 = 0;
    uint8_t aux5 = 0;
    uint8_t status_flag = 0;
    std::string serial; // what sysfs reports for the device
    bool held = false;
    std::array<uint8_t, 128> host_addr{}; // socket address of the holder
    std::array<uint8_t, 6> host_mac{};
    // When non-zero, the negative errno value every request naming this
    // device is answered with (-ENODEV, -ENOENT, -EIO, ...).
    int injected_result = 0;
};

class sim_driver {
  public:
    std::vector<sim_device> devices;
    // Number of interfaces the driver claims, whatever it holds; lets tests
    // play a driver that reports more names than it was given slots for.
    std::optional<int> forced_count;
    // The control file does not exist: every open fails with -ENOENT.
    bool control_file_missing = false;

    // 0, or the negative errno value an open of the control file gets.
    int open_result() const;
    // Answers one request: a count or 0, or a negative errno value.
    int handle(unsigned long request, void *arg);
    // How many of the latest request lines are kept.
    static constexpr size_t REQUEST_HISTORY = 64;
    // One line per request handled, oldest first: the latest
    // REQUEST_HISTORY of them.
    const std::deque<std::string> &requests() const { return requests_; }

    sim_device *find(const char *name);

  private:
    int connect(const char *name, const uint8_t *host_addr, const uint8_t *host_mac);
    int disconnect(const char *name, const uint8_t *host_addr);
    int fill_info(void *arg);
    int fill_names(void *arg);
    int keep_alive(const void *arg, std::string &line);
    int interface_count() const;

    std::deque<std::string> requests_;
};

// "a.b.c.d:port" for an IPv4 socket address, else "family=N".
std::string sim_format_host(const uint8_t *host_addr);
