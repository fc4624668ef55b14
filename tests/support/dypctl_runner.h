// Running the built dypctl as a person would, against daemons of the test
// bed with device files and serial numbers of the test's choosing.
#pragma once

#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <map>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/sim_testbed.h"

struct dypctl_result {
    int status = -1;
    std::string out;
};

// Runs dypctl with `args` (after `prefix`); standard error joins standard
// output unless `args` redirect it.
inline dypctl_result run_dypctl(const std::string &args, const std::string &prefix = "") {
    const char *errors = args.find("2>") == std::string::npos ? " 2>&1" : "";
    std::string out = run_shell_output(prefix + DYPTEST_EMULATOR DYPCTL_BINARY " " + args + errors +
                                       "; printf '\\n%d' $?");
    const size_t end = out.rfind('\n');
    return {end == std::string::npos ? -1 : std::atoi(out.c_str() + end + 1), out.substr(0, end)};
}

// Seconds a target program may need before it takes its first signal:
// under qemu-user (a build for another ISA) the emulator loads and
// translates it first, which takes seconds on a busy machine.
constexpr double START_ALLOWANCE_S = sizeof(DYPTEST_EMULATOR) > 1 ? 3.0 : 0.0;
// dypctl's --timeout where many daemons of the test bed must answer in
// time: under qemu-user ten emulated daemons on a busy machine can take
// longer than half a second for discovery.
const std::string MANY_BOXES_TIMEOUT = sizeof(DYPTEST_EMULATOR) > 1 ? "2" : "0.5";

inline void expect_run(const dypctl_result &r, int status,
                       std::initializer_list<std::string> parts) {
    EXPECT_EQ(r.status, status) << r.out;
    for (const auto &part : parts)
        EXPECT_NE(r.out.find(part), std::string::npos) << "no \"" << part << "\" in:\n" << r.out;
}

// The output as one JSON document; a parse failure fails the test and
// gives null.
inline nlohmann::json parsed_json(const dypctl_result &r) {
    auto doc = nlohmann::json::parse(r.out, nullptr, false);
    EXPECT_FALSE(doc.is_discarded()) << "not JSON:\n" << r.out;
    return doc.is_discarded() ? nlohmann::json() : doc;
}

// The serial numbers of examples/devices.ini by the sysfs directory that
// keeps them.
inline const std::map<std::string, std::string> EXAMPLE_SERIALS = {
    {"1-1.2", "NW410A00017"}, {"1-1.3", "FPS2-88231"}, {"1-1.4", "CO7A01X9"}};

// A test bed of `boxes` box namespaces (root): start_daemons() starts the
// daemons with the simulated driver, dypctl runs in a namespace of choice.
class dypctl_bed_test : public ::testing::Test {
  protected:
    explicit dypctl_bed_test(int boxes) : bed(boxes) {}
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        ASSERT_TRUE(bed.ready());
        start_daemons();
    }
    virtual void start_daemons() = 0;

    // Starts dypd in box `box` with the configuration `conf`, the device
    // file `devices`, a sysfs serial file for each of `serials` and `env`
    // added to its environment.
    void start_daemon(int box, const std::string &conf, const std::string &devices,
                      const std::map<std::string, std::string> &serials = EXAMPLE_SERIALS,
                      const std::string &env = "") {
        const std::string path = bed.dir() + "/dypd" + std::to_string(++daemons);
        std::ofstream(path + ".conf") << conf;
        std::ofstream(path + ".ini") << devices;
        std::string script =
            sim_testbed::daemon_script(path + ".conf", "DYPSIM_DEVICES=" + path + ".ini " + env);
        std::string files;
        for (const auto &[dir, serial] : serials)
            files += " && mkdir -p /sys/bus/usb/devices/" + dir + " && echo " + serial +
                     " > /sys/bus/usb/devices/" + dir + "/serial";
        ASSERT_TRUE(bed.start(script.insert(script.find(" && exec env"), files), {19540}, box))
            << bed.output(box);
    }

    dypctl_result in_ns(const test_netns &ns, const std::string &args) {
        return run_dypctl(args, "ip netns exec " + ns.name() + " ");
    }
    dypctl_result in_host(const std::string &args) { return in_ns(bed.host(), args); }

    sim_testbed bed;
    const std::string examples = read_text_file(DYPTEST_SOURCE_DIR "/examples/devices.ini");
    int daemons = 0;
};
