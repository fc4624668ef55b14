// Network namespaces made, entered and removed by the tests; nothing routes outside.
#pragma once

#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "lib/fd.h"

#define DYP_REQUIRE_ROOT()                                                                         \
    do {                                                                                           \
        if (geteuid() != 0)                                                                        \
            GTEST_SKIP() << "needs root: the test makes its own network namespaces";               \
    } while (0)

// Runs a shell command; returns its exit status, or -1 when it could not run.
int run_shell(const std::string &command);
// Runs a shell command and returns its standard output.
std::string run_shell_output(const std::string &command);
// Runs a shell command to its end: its exit status, standard output and error.
struct finished_run {
    int status;
    std::string out, err;
};
finished_run run_to_end(const std::string &command);

// The namespace "dyp<tag><pid>", deleted with everything in it by the destructor.
class test_netns {
  public:
    explicit test_netns(const std::string &tag);
    ~test_netns() { run_shell("ip netns del " + name_ + " 2>/dev/null"); }
    test_netns(const test_netns &) = delete;
    test_netns &operator=(const test_netns &) = delete;
    const std::string &name() const { return name_; }
    // Runs `command` with sh inside the namespace; returns its exit status.
    int exec(const std::string &command) const {
        return run_shell("ip netns exec " + name_ + " sh -c '" + command + "'");
    }

  private:
    std::string name_;
};

// Moves the calling thread into a namespace for the scope's life.
class netns_scope {
  public:
    explicit netns_scope(const std::string &name);
    ~netns_scope();
    bool ok() const { return ok_; }

  private:
    unique_fd saved_;
    bool ok_ = false;
};

// A namespace set up by `setup` and entered until destruction; ok() is false on failure.
class entered_netns {
  public:
    entered_netns(const std::string &tag, const std::string &setup) : ns_(tag) {
        if (ns_.exec(setup) == 0)
            scope_.emplace(ns_.name());
    }
    bool ok() const { return scope_.has_value() && scope_->ok(); }
    int exec(const std::string &command) const { return ns_.exec(command); }

  private:
    test_netns ns_;
    std::optional<netns_scope> scope_;
};
