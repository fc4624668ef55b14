// A two-namespace test bed for running the daemon end to end: a box
// namespace joined by a veth pair to a host namespace (box 192.0.2.1/24,
// host 192.0.2.2/24), and a program started in the box namespace inside a
// private mount namespace of its own. Namespace and link names carry the
// pid, so that test processes running side by side never meet.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <sys/types.h>

#include "support/netns.h"

class sim_testbed {
  public:
    sim_testbed();
    // Stops the program, then removes the namespaces and the work directory.
    ~sim_testbed();
    sim_testbed(const sim_testbed &) = delete;
    sim_testbed &operator=(const sim_testbed &) = delete;

    // True once the namespaces, the link and the work directory exist.
    bool ready() const { return ready_; }
    // Runs `script` with sh in a private mount namespace of the box, its
    // output going to output(), and waits until every UDP port in `ports`
    // is bound in the box namespace. False if it died or took 10 s.
    bool start(const std::string &script, std::initializer_list<uint16_t> ports);

    const test_netns &box() const { return box_; }
    const test_netns &host() const { return host_; }
    const std::string &box_link() const { return box_link_; }
    const std::string &host_link() const { return host_link_; }
    // A private directory for the test's files.
    const std::string &dir() const { return dir_; }
    std::string output() const;

  private:
    bool ports_bound(std::initializer_list<uint16_t> ports);

    test_netns box_{"sbox"};
    test_netns host_{"shost"};
    std::string box_link_;
    std::string host_link_;
    std::string dir_;
    bool ready_ = false;
    pid_t pid_ = -1;
};

// The whole text of a file; empty if it cannot be read.
std::string read_text_file(const std::string &path);
