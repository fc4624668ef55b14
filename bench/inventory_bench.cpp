// dypctl inventory over a LAN of many boxes: namespaces joined by one
// bridge, each running dypd with the simulated driver and the three example
// devices, and dypctl in the host namespace. Prints the wall time of each
// run and checks it lists every device. Needs root.
//
//   inventory_bench [boxes, default 100] [runs, default 5]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/sim_testbed.h"

namespace {

// Runs a command and returns its standard output.
std::string output_of(const std::string &command) {
    std::string out;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return out;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        out.append(chunk, n);
    (void)pclose(pipe);
    return out;
}

} // namespace

int main(int argc, char **argv) {
    if (geteuid() != 0) {
        fprintf(stderr, "inventory_bench: needs root (network namespaces)\n");
        return 2;
    }
    const int boxes = argc > 1 ? atoi(argv[1]) : 100;
    const int runs = argc > 2 ? atoi(argv[2]) : 5;
    auto setup_start = std::chrono::steady_clock::now();
    sim_testbed bed(boxes);
    if (!bed.ready()) {
        fprintf(stderr, "inventory_bench: the test bed could not be made\n");
        return 1;
    }
    for (int i = 0; i < boxes; ++i) {
        const std::string conf = bed.dir() + "/dypd" + std::to_string(i) + ".conf";
        output_of("echo hostname=box" + std::to_string(i) + " > " + conf);
        if (!bed.start(sim_testbed::daemon_script(conf), {19540}, i)) {
            fprintf(stderr, "inventory_bench: box %d did not start:\n%s\n", i,
                    bed.output(i).c_str());
            return 1;
        }
    }
    printf("%d boxes up in %.1f s\n", boxes,
           std::chrono::duration<double>(std::chrono::steady_clock::now() - setup_start).count());

    const double discovery_s = 0.5; // dypctl's default discovery wait
    std::vector<double> times;
    int failures = 0;
    for (int run = 0; run < runs; ++run) {
        auto start = std::chrono::steady_clock::now();
        std::string out =
            output_of("ip netns exec " + bed.host().name() + " " DYPCTL_BINARY " inventory --json");
        double took =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        auto doc = nlohmann::json::parse(out, nullptr, false);
        size_t listed_boxes = 0, devices = 0;
        if (!doc.is_discarded())
            for (const auto &b : doc["boxes"])
                if (b.contains("devices")) {
                    ++listed_boxes;
                    devices += b["devices"].size();
                }
        bool complete = listed_boxes == size_t(boxes) && devices == size_t(3 * boxes);
        failures += !complete;
        times.push_back(took);
        printf("run %d: %.3f s, %zu boxes listed, %zu devices%s\n", run + 1, took, listed_boxes,
               devices, complete ? "" : "  INCOMPLETE");
    }
    std::sort(times.begin(), times.end());
    printf("inventory of %d boxes: min %.3f s, median %.3f s, max %.3f s; budget %.1f s "
           "(discovery %.1f s + 2 s)\n",
           boxes, times.front(), times[times.size() / 2], times.back(), discovery_s + 2,
           discovery_s);
    return failures == 0 && times.back() <= discovery_s + 2 ? 0 : 1;
}
