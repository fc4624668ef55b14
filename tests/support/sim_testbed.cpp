#include "support/sim_testbed.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <thread>

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
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

sim_testbed::sim_testbed(int boxes)
    : box_link_("dypb" + std::to_string(getpid())), host_link_("dypbr" + std::to_string(getpid())) {
    char dir_template[] = "/tmp/dyp-testbed-XXXXXX";
    if (mkdtemp(dir_template) == nullptr)
        return;
    dir_ = dir_template;
    // Without spanning tree the bridge forwards as soon as a port is up.
    ready_ = host_.exec("ip link add " + host_link_ + " type bridge stp_state 0 && " +
                        link_up("192.0.2.2", host_link_)) == 0;
    for (int i = 0; ready_ && i < boxes; ++i)
        ready_ = join_box(i);
}

bool sim_testbed::join_box(int i) {
    boxes_.push_back({std::make_unique<test_netns>("sbox" + std::to_string(i))});
    const std::string port = "dyph" + std::to_string(i) + "p" + std::to_string(getpid());
    return run_shell("ip link add " + box_link_ + " netns " + box(i).name() +
                     " type veth peer name " + port + " netns " + host_.name()) == 0 &&
           host_.exec("ip link set " + port + " master " + host_link_ + " up") == 0 &&
           box(i).exec(link_up(box_address(i), box_link_)) == 0;
}

sim_testbed::~sim_testbed() {
    for (box_ns &b : boxes_)
        if (b.pid > 0 && kill(b.pid, SIGTERM) == 0)
            (void)waitpid(b.pid, nullptr, 0);
    if (!dir_.empty())
        (void)run_shell("rm -rf " + dir_);
}

std::string sim_testbed::daemon_script(const std::string &conf, const std::string &env) {
    return "mount -t tmpfs dyprun /var/run && mount -t tmpfs dypsys /sys/bus"
           " && mkdir -p /sys/bus/usb/devices/1-1.2"
           " && echo NW410A00017 > /sys/bus/usb/devices/1-1.2/serial"
           " && exec env " DYPTEST_PRELOAD_VARIABLE "=" DYPSIM_PRELOAD
           " ASAN_OPTIONS=verify_asan_link_order=0"
           " DYPSIM_DEVICES=" DYPTEST_SOURCE_DIR "/examples/devices.ini " +
           env + " " DYPTEST_EMULATOR DYPD_BINARY " -d -f " + conf;
}

std::string sim_testbed::box_mac(int i) const {
    return run_shell_output("ip netns exec " + box(i).name() + " cat /sys/class/net/" + box_link_ +
                            "/address")
        .substr(0, 17);
}

std::string sim_testbed::output(int box) const {
    return read_text_file(dir_ + "/program" + std::to_string(box) + ".out");
}

bool sim_testbed::start(const std::string &script, std::initializer_list<uint16_t> ports, int box) {
    const std::string output_path = dir_ + "/program" + std::to_string(box) + ".out";
    pid_t pid = fork();
    if (pid == 0) {
        if (FILE *out = freopen(output_path.c_str(), "w", stderr))
            (void)dup2(fileno(out), STDOUT_FILENO);
        execlp("ip", "ip", "netns", "exec", this->box(box).name().c_str(), "unshare", "-m", "sh",
               "-c", script.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    boxes_[box].pid = pid;
    return pid > 0 && ports_bound(box, ports);
}

bool sim_testbed::ports_bound(int box, std::initializer_list<uint16_t> ports) {
    netns_scope inside(this->box(box).name());
    pid_t &pid = boxes_[box].pid;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (inside.ok() && std::chrono::steady_clock::now() < deadline) {
        if (std::all_of(ports.begin(), ports.end(), udp_port_bound))
            return true;
        if (waitpid(pid, nullptr, WNOHANG) == pid) {
            pid = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}
