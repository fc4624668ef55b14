#include "support/netns.h"

#include <cstdio>
#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>

int run_shell(const std::string &command) {
    int status = std::system(command.c_str());
    if (status == -1 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

std::string run_shell_output(const std::string &command) {
    std::string out;
    if (FILE *pipe = popen(command.c_str(), "r")) {
        char chunk[512];
        for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
            out.append(chunk, n);
        pclose(pipe);
    }
    return out;
}

test_netns::test_netns(const std::string &tag) : name_("dyp" + tag + std::to_string(getpid())) {
    run_shell("ip netns del " + name_ + " 2>/dev/null");
    run_shell("ip netns add " + name_);
    exec("ip link set lo up");
}

test_netns::~test_netns() {
    run_shell("ip netns del " + name_ + " 2>/dev/null");
}

int test_netns::exec(const std::string &command) const {
    return run_shell("ip netns exec " + name_ + " sh -c '" + command + "'");
}

netns_scope::netns_scope(const std::string &name) {
    saved_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    int target = open(("/var/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (saved_ >= 0 && target >= 0)
        ok_ = setns(target, CLONE_NEWNET) == 0;
    if (target >= 0)
        close(target);
}

netns_scope::~netns_scope() {
    if (saved_ >= 0) {
        (void)setns(saved_, CLONE_NEWNET);
        close(saved_);
    }
}

entered_netns::entered_netns(const std::string &tag, const std::string &setup) : ns_(tag) {
    if (ns_.exec(setup) == 0)
        scope_.emplace(ns_.name());
}
