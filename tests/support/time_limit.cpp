#include "support/time_limit.h"

#include <sys/wait.h>
#include <unistd.h>

std::optional<int> run_with_time_limit(const std::function<int()> &attempt, unsigned seconds) {
    pid_t child = fork();
    if (child < 0)
        return std::nullopt;
    if (child == 0) {
        alarm(seconds); // its default action ends the child
        _exit(-attempt() & 0xff);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return std::nullopt;
    return -WEXITSTATUS(status);
}
