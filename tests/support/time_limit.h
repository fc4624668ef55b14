// Runs something that might never return in a child process with a time
// limit, so that a test of it fails instead of holding the whole run.
#pragma once

#include <functional>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

// The result of `attempt` (0 or a negative errno value down to -255), or
// nothing when the child did not finish within `seconds` or died.
inline std::optional<int> run_with_time_limit(const std::function<int()> &attempt,
                                              unsigned seconds = 10) {
    pid_t child = fork();
    if (child == 0) {
        alarm(seconds); // its default action ends the child
        _exit(-attempt() & 0xff);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return std::nullopt;
    return -WEXITSTATUS(status);
}
