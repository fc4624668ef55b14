// Running the built dypctl as a person would, and daemons of the test bed
// with device files and serial numbers of the test's choosing.
#pragma once

#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <map>
#include <string>
#include <sys/wait.h>

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
    dypctl_result r;
    const char *errors = args.find("2>") == std::string::npos ? " 2>&1" : "";
    FILE *pipe =
        popen((prefix + DYPTEST_EMULATOR DYPCTL_BINARY + " " + args + errors).c_str(), "r");
    if (pipe == nullptr)
        return r;
    char chunk[512];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        r.out.append(chunk, n);
    int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
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

// A daemon script like sim_testbed::daemon_script, with the devices of
// `devices` and a sysfs serial file for each entry of `serials` (sysfs
// device directory, such as 1-1.3, to serial number).
inline std::string daemon_script_with(const std::string &conf, const std::string &devices,
                                      const std::map<std::string, std::string> &serials,
                                      const std::string &env = "") {
    std::string script = sim_testbed::daemon_script(conf, "DYPSIM_DEVICES=" + devices + " " + env);
    std::string files;
    for (const auto &[dir, serial] : serials)
        files += " && mkdir -p /sys/bus/usb/devices/" + dir + " && echo " + serial +
                 " > /sys/bus/usb/devices/" + dir + "/serial";
    return script.insert(script.find(" && exec env"), files);
}

// The serial numbers of examples/devices.ini, where sysfs keeps them.
inline const std::map<std::string, std::string> &example_serials() {
    static const std::map<std::string, std::string> serials = {
        {"1-1.2", "NW410A00017"}, {"1-1.3", "FPS2-88231"}, {"1-1.4", "CO7A01X9"}};
    return serials;
}

inline void write_text_file(const std::string &path, const std::string &text) {
    std::ofstream(path) << text;
}
