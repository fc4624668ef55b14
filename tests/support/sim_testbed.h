// A test bed for running the daemon end to end: box namespaces, each joined
// by a veth pair to a bridge in one host namespace (host 192.0.2.2/24,
// boxes 192.0.2.1, 192.0.2.3, ...), and programs started in a box namespace
// inside a private mount namespace. Names carry the pid.
#pragma once

#include <initializer_list>
#include <memory>
#include <vector>

#include "support/netns.h"

class sim_testbed {
  public:
    explicit sim_testbed(int boxes = 1);
    // Stops the programs, then removes the namespaces and the work directory.
    ~sim_testbed();
    sim_testbed(const sim_testbed &) = delete;
    sim_testbed &operator=(const sim_testbed &) = delete;

    // True once the namespaces, the links and the work directory exist.
    bool ready() const { return ready_; }
    // Runs `script` with sh in a private mount namespace of box `box`, its
    // output going to output(box), and waits until every UDP port in
    // `ports` is bound in that box's namespace. False if it died or took 10 s.
    bool start(const std::string &script, std::initializer_list<uint16_t> ports, int box = 0);
    // A script for start(): dypd -d with the simulated driver and the example
    // devices, configuration file `conf`, its own /var/run and a /sys/bus
    // where 1-1.2 (H112) has the serial NW410A00017; `env` ("NAME=value ...")
    // is added to its environment.
    static std::string daemon_script(const std::string &conf, const std::string &env = "");

    const test_netns &box(int i = 0) const { return *boxes_[i].ns; }
    const test_netns &host() const { return host_; }
    // The box's end of its link (the same name in every box namespace).
    const std::string &box_link() const { return box_link_; }
    // The host's bridge, which joins every box.
    const std::string &host_link() const { return host_link_; }
    static std::string box_address(int i) { return "192.0.2." + std::to_string(2 * i + 1); }
    std::string box_mac(int i = 0) const;
    // A private directory for the test's files.
    const std::string &dir() const { return dir_; }
    std::string output(int box = 0) const;

  private:
    struct box_ns {
        std::unique_ptr<test_netns> ns;
        pid_t pid = -1;
    };
    bool join_box(int i);
    bool ports_bound(int box, std::initializer_list<uint16_t> ports);

    test_netns host_{"shost"};
    std::vector<box_ns> boxes_;
    std::string box_link_, host_link_, dir_;
    bool ready_ = false;
};

// The whole text of a file; empty if it cannot be read.
std::string read_text_file(const std::string &path);
