// dypctl hold against the daemon with the simulated driver: it keeps the
// device through a daemon restart (following its serial number to a new
// interface name), waits while another host holds it, and gives it back
// when interrupted.
#include <chrono>
#include <csignal>
#include <iostream>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/dypctl_runner.h"

namespace {

using nlohmann::json;
using std::chrono::steady_clock;

// Fast paces, so that a lost device is noticed and retaken within a
// second or two.
const char PACE[] = " --json --interval 0.2 --check 0.3 --timeout 0.3 --retries 1 --retry-max 1";

class DypctlHoldTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        ASSERT_TRUE(bed.ready());
        conf = bed.dir() + "/dypd.conf";
        write_text_file(conf, "hostname=holdbox\n");
        examples = read_text_file(DYPTEST_SOURCE_DIR "/examples/devices.ini");
        start_daemon(examples);
    }

    void TearDown() override {
        if (hold_pid > 0) {
            (void)kill(hold_pid, SIGKILL);
            (void)waitpid(hold_pid, nullptr, 0);
        }
    }

    void start_daemon(const std::string &devices_text) {
        const std::string devices = bed.dir() + "/devices" + std::to_string(++daemons) + ".ini";
        write_text_file(devices, devices_text);
        ASSERT_TRUE(bed.start(daemon_script_with(conf, devices, example_serials()), {19540}, 0))
            << bed.output(0);
    }

    // Kills every process of the box namespace (the daemon) and reaps it.
    void kill_daemon() {
        std::istringstream pids(run_shell_output("ip netns pids " + bed.box(0).name()));
        for (pid_t pid; pids >> pid;) {
            (void)kill(pid, SIGKILL);
            (void)waitpid(pid, nullptr, 0);
        }
    }

    // Starts `dypctl hold ARGS` in the host namespace, its output going to a file.
    void start_hold(const std::string &args) {
        hold_out = bed.dir() + "/hold" + std::to_string(++holds) + ".out";
        hold_pid = fork();
        ASSERT_GE(hold_pid, 0);
        if (hold_pid == 0) {
            FILE *out = freopen(hold_out.c_str(), "w", stdout);
            if (out != nullptr)
                (void)dup2(fileno(out), STDERR_FILENO);
            // Each exec keeps the process, so the pid is dypctl's own.
            const std::string command = "exec ip netns exec " + bed.host().name() + " " +
                                        DYPTEST_EMULATOR DYPCTL_BINARY + " hold 192.0.2.1 " + args + PACE;
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
    }

    // The events printed so far, one JSON object per line.
    std::vector<json> events() const {
        std::vector<json> all;
        std::istringstream lines(read_text_file(hold_out));
        for (std::string line; std::getline(lines, line);) {
            auto e = json::parse(line, nullptr, false);
            EXPECT_FALSE(e.is_discarded()) << "not JSON: " << line;
            if (!e.is_discarded())
                all.push_back(e);
        }
        return all;
    }

    // Waits until the `n`-th event named `name` (counting from 1) is out;
    // the hold's own waits are bounded, so 20 s is far beyond any of them.
    json await_event(const std::string &name, int n = 1) {
        auto deadline = steady_clock::now() + std::chrono::seconds(20);
        while (steady_clock::now() < deadline) {
            int seen = 0;
            for (const auto &e : events())
                if (e["event"] == name && ++seen == n)
                    return e;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ADD_FAILURE() << "no event " << name << " #" << n << " in:\n" << read_text_file(hold_out);
        return json();
    }

    // Interrupts the hold and returns its exit status.
    int interrupt_hold() {
        (void)kill(hold_pid, SIGINT);
        int status = 0;
        (void)waitpid(hold_pid, &status, 0);
        hold_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    json status_of(const std::string &device) {
        return parsed_json(run_dypctl("status 192.0.2.1 " + device + " --json",
                                      "ip netns exec " + bed.host().name() + " "));
    }

    sim_testbed bed{2};
    std::string conf, examples, hold_out;
    int daemons = 0, holds = 0;
    pid_t hold_pid = -1;
};

TEST_F(DypctlHoldTest, KeepsTheDeviceThroughADaemonRestartAndReleasesItOnInterrupt) {
    start_hold("serial:FPS2-88231");
    json connected = await_event("connected");
    EXPECT_EQ(connected["interface"], "scanner2");
    EXPECT_EQ(connected["serial"], "FPS2-88231");
    EXPECT_EQ(connected["box"], "192.0.2.1");
    EXPECT_EQ(status_of("scanner2")["holder"], "192.0.2.2");

    // The daemon dies; it comes back with every device free, and the serial
    // number now under another interface name.
    kill_daemon();
    await_event("lost");
    std::string renamed = examples;
    renamed.replace(renamed.find("[scanner2]"), 10, "[scanner7]");
    start_daemon(renamed);
    auto back = steady_clock::now();
    json reconnected = await_event("reconnected");
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - back);
    RecordProperty("reconnect_ms", int(took.count()));
    std::cout << "hold reconnected " << took.count() << " ms after the daemon was back\n";
    EXPECT_EQ(reconnected["interface"], "scanner7");
    EXPECT_EQ(reconnected["holder"], "192.0.2.2");
    EXPECT_EQ(status_of("scanner7")["holder"], "192.0.2.2");

    EXPECT_EQ(interrupt_hold(), 0);
    // One line per change of state, no repeats while the box was away.
    std::vector<std::string> names;
    for (const auto &e : events())
        names.push_back(e["event"]);
    EXPECT_EQ(names, (std::vector<std::string>{"connected", "lost", "box-back", "reconnected",
                                               "released"}))
        << read_text_file(hold_out);
    EXPECT_EQ(status_of("scanner7")["holder"], "0.0.0.0");
}

TEST_F(DypctlHoldTest, WaitsWhileAnotherHostHoldsTheDeviceThenTakesIt) {
    const std::string other = "ip netns exec " + bed.box(1).name() + " ";
    expect_run(run_dypctl("connect 192.0.2.1 scanner3", other), 0, {"OK"});
    start_hold("scanner3");
    json busy = await_event("held-by-another");
    EXPECT_EQ(busy["holder"], "192.0.2.3");
    EXPECT_EQ(status_of("scanner3")["holder"], "192.0.2.3") << "hold must not take it";
    expect_run(run_dypctl("disconnect 192.0.2.1 scanner3", other), 0, {"OK"});
    json connected = await_event("connected");
    EXPECT_EQ(connected["holder"], "192.0.2.2");
    EXPECT_EQ(interrupt_hold(), 0);
}

} // namespace
