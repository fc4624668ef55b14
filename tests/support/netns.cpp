#include "support/netns.h"

#include <cstdio>
#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>

int run_shell(const std::string &command) {
    int status = std::system(command.c_str());
    return status == -1 || !WIFEXITED(status) ? -1 : WEXITSTATUS(status);
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

finished_run run_to_end(const std::string &command) {
    const std::string errors = "/tmp/dyptest-stderr-" + std::to_string(getpid());
    std::string out = run_shell_output(command + " 2>" + errors + "; echo \"#$?\"");
    size_t mark = out.rfind('#');
    finished_run run{std::atoi(out.c_str() + mark + 1), out.substr(0, mark),
                     run_shell_output("cat " + errors)};
    (void)unlink(errors.c_str());
    return run;
}

test_netns::test_netns(const std::string &tag) : name_("dyp" + tag + std::to_string(getpid())) {
    run_shell("ip netns del " + name_ + " 2>/dev/null");
    run_shell("ip netns add " + name_);
    exec("ip link set lo up");
}

netns_scope::netns_scope(const std::string &name)
    : saved_(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)) {
    unique_fd target(open(("/var/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC));
    ok_ = saved_.valid() && target.valid() && setns(target.get(), CLONE_NEWNET) == 0;
}

netns_scope::~netns_scope() {
    if (saved_.valid())
        (void)setns(saved_.get(), CLONE_NEWNET);
}
