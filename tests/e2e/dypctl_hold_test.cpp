// dypctl hold against the daemon with the simulated driver: it keeps the
// device through a daemon restart (following its serial number to a new
// interface name), waits while another host holds it, and gives it back
// when interrupted.
#include <chrono>
#include <csignal>
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

class DypctlHoldTest : public dypctl_bed_test {
  protected:
    DypctlHoldTest() : dypctl_bed_test(2) {}
    void start_daemons() override { start_daemon(0, "hostname=holdbox\n", examples); }
    void TearDown() override {
        if (hold_pid > 0) {
            (void)kill(hold_pid, SIGKILL);
            (void)waitpid(hold_pid, nullptr, 0);
        }
    }

    // Kills every process of the box namespace (the daemon) and reaps it.
    void kill_daemon() {
        std::istringstream pids(run_shell_output("ip netns pids " + bed.box(0).name()));
        for (pid_t pid; pids >> pid; (void)waitpid(pid, nullptr, 0))
            (void)kill(pid, SIGKILL);
    }

    // Starts `dypctl hold ARGS` in the host namespace, its output going to a file.
    void start_hold(const std::string &args) {
        hold_out = bed.dir() + "/hold.out";
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

    // Waits for the first event named `name`; the hold's own waits are
    // bounded, so 20 s is far beyond any of them.
    json await_event(const std::string &name) {
        for (auto end = steady_clock::now() + std::chrono::seconds(20); steady_clock::now() < end;
             std::this_thread::sleep_for(std::chrono::milliseconds(20)))
            for (const auto &e : events())
                if (e["event"] == name)
                    return e;
        ADD_FAILURE() << "no event " << name << " in:\n" << read_text_file(hold_out);
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

    std::string holder_of(const std::string &device) {
        return parsed_json(in_host("status 192.0.2.1 " + device + " --json"))["holder"];
    }

    const std::string examples = read_text_file(DYPTEST_SOURCE_DIR "/examples/devices.ini");
    std::string hold_out;
    pid_t hold_pid = -1;
};

// Expects `event` to hold each key of `expected` with its value.
void expect_holds(const json &event, const json &expected) {
    json merged = event;
    merged.update(expected);
    EXPECT_EQ(merged, event);
}

TEST_F(DypctlHoldTest, KeepsTheDeviceThroughADaemonRestartAndReleasesItOnInterrupt) {
    start_hold("serial:FPS2-88231");
    expect_holds(await_event("connected"),
                 {{"interface", "scanner2"}, {"serial", "FPS2-88231"}, {"box", "192.0.2.1"}});
    EXPECT_EQ(holder_of("scanner2"), "192.0.2.2");
    // The daemon dies; it comes back with every device free, and the serial
    // number now under another interface name.
    kill_daemon();
    await_event("lost");
    std::string renamed = examples;
    start_daemon(0, "hostname=holdbox\n", renamed.replace(renamed.find("[scanner2]"), 10, "[scanner7]"));
    expect_holds(await_event("reconnected"), {{"interface", "scanner7"}, {"holder", "192.0.2.2"}});
    EXPECT_EQ(holder_of("scanner7"), "192.0.2.2");
    EXPECT_EQ(interrupt_hold(), 0);
    // One line per change of state, no repeats while the box was away.
    std::vector<std::string> names;
    for (const auto &e : events())
        names.push_back(e["event"]);
    EXPECT_EQ(names, (std::vector<std::string>{"connected", "lost", "box-back", "reconnected", "released"}))
        << read_text_file(hold_out);
    EXPECT_EQ(holder_of("scanner7"), "0.0.0.0");
}

TEST_F(DypctlHoldTest, WaitsWhileAnotherHostHoldsTheDeviceThenTakesIt) {
    expect_run(in_ns(bed.box(1), "connect 192.0.2.1 scanner3"), 0, {"OK"});
    start_hold("scanner3");
    EXPECT_EQ(await_event("held-by-another")["holder"], "192.0.2.3");
    EXPECT_EQ(holder_of("scanner3"), "192.0.2.3") << "hold must not take it";
    expect_run(in_ns(bed.box(1), "disconnect 192.0.2.1 scanner3"), 0, {"OK"});
    EXPECT_EQ(await_event("connected")["holder"], "192.0.2.2");
    EXPECT_EQ(interrupt_hold(), 0);
}

} // namespace
