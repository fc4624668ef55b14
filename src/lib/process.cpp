#include "lib/process.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lib/fd.h"

namespace {
// Forks; the parent leaves at once, the child returns 0.
int fork_and_leave_parent() {
    pid_t child = fork();
    if (child < 0)
        return -1;
    if (child > 0)
        _exit(0);
    return 0;
}

// Ignores SIGHUP so that losing the controlling terminal cannot end the
// process; the daemon installs its own handler later.
int ignore_hangup() {
    struct sigaction action {}; // zeroed: an empty mask on Linux C libraries
    action.sa_handler = SIG_IGN;
    action.sa_flags = SA_RESTART;
    return sigaction(SIGHUP, &action, nullptr) == 0 ? 0 : -1;
}

// Opens "/dev/null" and keeps it only when it lands on `wanted`, which
// must be the lowest free descriptor. The standard streams are inherited
// on purpose, so they are opened without close-on-exec.
void open_null_as(int wanted, int flags) {
    // A mode, unused here, keeps the fortified open from a run-time check.
    unique_fd null_fd(open("/dev/null", flags, 0));
    if (null_fd.get() == wanted)
        (void)null_fd.release();
}

void redirect_standard_streams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        int slot = fd;
        close_fd_slot(slot);
    }
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        open_null_as(fd, fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);
}

// Truncates the locked file and writes the process id as "%d\n".
int write_pid(int fd) {
    if (ftruncate(fd, 0) != 0)
        return -1;
    char text[16];
    int length = snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
    if (length <= 0 || static_cast<size_t>(length) >= sizeof text)
        return -1;
    return write(fd, text, static_cast<size_t>(length)) == length ? 0 : -1;
}
} // namespace

int tq_daemonize(const char *) {
    if (fork_and_leave_parent() != 0)
        return -1;
    if (setsid() < 0)
        return -1;
    if (ignore_hangup() != 0)
        return -1;
    // A second fork leaves a process that is no session leader and so can
    // never acquire a controlling terminal again.
    if (fork_and_leave_parent() != 0)
        return -1;
    if (chdir("/") != 0)
        return -1;
    (void)umask(0);
    redirect_standard_streams();
    return 0;
}

int tq_create_pid_file(const char *name) {
    if (name == nullptr)
        return -1;
    char path[256];
    // Longer names are cut, as with any fixed path buffer of the daemon.
    (void)snprintf(path, sizeof path, "/var/run/%s.pid", name);
    // Not truncated on open: a running instance's content must survive the
    // failed lock of a second one. Close-on-exec from the start.
    unique_fd pid_fd(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!pid_fd.valid())
        return -1;
    if (flock(pid_fd.get(), LOCK_EX | LOCK_NB) != 0)
        return -1;
    if (write_pid(pid_fd.get()) != 0)
        return -1;
    return pid_fd.release();
}
