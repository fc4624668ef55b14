#include "support/sim_testbed.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

std::string link_up(const std::string &address, const std::string &link) {
    return "ip addr add " + address + "/24 brd + dev " + link + " && ip link set " + link + " up";
}

// True while a UDP socket of the calling thread's network namespace is
// bound to `port` (read from the namespace's own socket table).
bool udp_port_bound(uint16_t port) {
    char needle[8];
    snprintf(needle, sizeof needle, ":%04X ", port);
    return read_text_file("/proc/thread-self/net/udp").find(needle) != std::string::npos;
}

} // namespace

std::string read_text_file(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

sim_testbed::sim_testbed()
    : box_link_("dypb" + std::to_string(getpid())), host_link_("dyph" + std::to_string(getpid())) {
    char dir_template[] = "/tmp/dyp-testbed-XXXXXX";
    if (mkdtemp(dir_template) == nullptr)
        return;
    dir_ = dir_template;
    ready_ = run_shell("ip link add " + box_link_ + " netns " + box_.name() +
                       " type veth peer name " + host_link_ + " netns " + host_.name()) == 0 &&
             box_.exec(link_up("192.0.2.1", box_link_)) == 0 &&
             host_.exec(link_up("192.0.2.2", host_link_)) == 0;
}

sim_testbed::~sim_testbed() {
    if (pid_ > 0) {
        (void)kill(pid_, SIGTERM);
        int status;
        (void)waitpid(pid_, &status, 0);
    }
    if (!dir_.empty())
        (void)run_shell("rm -rf " + dir_);
}

std::string sim_testbed::output() const {
    return read_text_file(dir_ + "/program.out");
}

bool sim_testbed::start(const std::string &script, std::initializer_list<uint16_t> ports) {
    std::string output_path = dir_ + "/program.out";
    pid_ = fork();
    if (pid_ < 0)
        return false;
    if (pid_ == 0) {
        FILE *out = freopen(output_path.c_str(), "w", stderr);
        if (out != nullptr)
            (void)dup2(fileno(out), STDOUT_FILENO);
        execlp("ip", "ip", "netns", "exec", box_.name().c_str(), "unshare", "-m", "sh", "-c",
               script.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    return ports_bound(ports);
}

bool sim_testbed::ports_bound(std::initializer_list<uint16_t> ports) {
    netns_scope inside(box_.name());
    if (!inside.ok())
        return false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        bool all = true;
        for (uint16_t port : ports)
            all = all && udp_port_bound(port);
        if (all)
            return true;
        int status;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}
