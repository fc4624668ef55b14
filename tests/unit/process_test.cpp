#include "lib/process.h"

#include <climits>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

std::string read_all(int fd) {
    std::string text;
    char chunk[256];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0)
        text.append(chunk, static_cast<size_t>(n));
    return text;
}

std::string file_content(const std::string &path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return "<missing>";
    std::string text = read_all(fd);
    close(fd);
    return text;
}

// A pid file name of this test run only, removed at the end.
class pid_file_name {
  public:
    pid_file_name() : name_("dyptest-" + std::to_string(getpid())) { unlink(path().c_str()); }
    ~pid_file_name() { unlink(path().c_str()); }
    const char *name() const { return name_.c_str(); }
    std::string path() const { return "/var/run/" + name_ + ".pid"; }

  private:
    std::string name_;
};

// A child process that creates the pid file, reports the result and holds
// the lock until released.
class pid_file_holder {
  public:
    explicit pid_file_holder(const char *name) {
        int report[2], release[2];
        if (pipe(report) != 0 || pipe(release) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            close(report[0]);
            close(release[1]);
            char result = tq_create_pid_file(name) >= 0 ? 'y' : 'n';
            (void)!write(report[1], &result, 1);
            char ignored;
            (void)!read(release[0], &ignored, 1);
            _exit(0);
        }
        close(report[1]);
        close(release[0]);
        release_ = release[1];
        char result = 0;
        locked_ = read(report[0], &result, 1) == 1 && result == 'y';
        close(report[0]);
    }
    ~pid_file_holder() { end(); }

    bool locked() const { return locked_; }
    pid_t pid() const { return pid_; }
    // Lets the child exit and waits for it.
    void end() {
        if (release_ >= 0)
            close(release_);
        release_ = -1;
        if (pid_ > 0)
            (void)waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

  private:
    pid_t pid_ = -1;
    int release_ = -1;
    bool locked_ = false;
};

} // namespace

TEST(PidFile, SecondInstanceFailsAtTheLockAndKeepsTheFirstOnesContent) {
    pid_file_name file;
    pid_file_holder first(file.name());
    ASSERT_TRUE(first.locked());
    std::string expected = std::to_string(first.pid()) + "\n";
    EXPECT_EQ(file_content(file.path()), expected);
    EXPECT_EQ(tq_create_pid_file(file.name()), -1);
    EXPECT_EQ(file_content(file.path()), expected);
}

TEST(PidFile, StaleFileIsLockedTruncatedAndRewritten) {
    pid_file_name file;
    {
        pid_file_holder crashed(file.name());
        ASSERT_TRUE(crashed.locked());
    }
    // A longer leftover must not survive behind the new content.
    FILE *stale = fopen(file.path().c_str(), "w");
    fputs("1234567890\nleftover\n", stale);
    fclose(stale);
    int fd = tq_create_pid_file(file.name());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(file_content(file.path()), std::to_string(getpid()) + "\n");
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    struct stat info {};
    ASSERT_EQ(fstat(fd, &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    // The lock is held while the descriptor stays open ...
    pid_file_holder second(file.name());
    EXPECT_FALSE(second.locked());
    second.end();
    close(fd);
    // ... and released by closing it.
    pid_file_holder third(file.name());
    EXPECT_TRUE(third.locked());
}

TEST(PidFile, FailsWhenTheFileCannotBeOpened) {
    EXPECT_EQ(tq_create_pid_file("no-such-dir/dyptest"), -1);
    EXPECT_EQ(tq_create_pid_file(nullptr), -1);
}

TEST(Daemonize, DetachedProcessHasNullStreamsRootDirectoryAndNoUmask) {
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    mode_t saved_mask = umask(022);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(report[0]);
        if (tq_daemonize(nullptr) != 0)
            _exit(1);
        struct stat null_info {};
        stat("/dev/null", &null_info);
        std::string facts;
        for (int fd = 0; fd <= 2; ++fd) {
            struct stat info {};
            bool is_null =
                fstat(fd, &info) == 0 && info.st_rdev == null_info.st_rdev && S_ISCHR(info.st_mode);
            int mode = fcntl(fd, F_GETFL) & O_ACCMODE;
            facts += std::to_string(fd) + (is_null ? ":null" : ":other") +
                     (mode == (fd == 0 ? O_RDONLY : O_WRONLY) ? " " : "(mode) ");
        }
        char cwd[PATH_MAX] = {};
        facts += std::string("cwd=") + (getcwd(cwd, sizeof cwd) ? cwd : "?");
        facts += " umask=" + std::to_string(umask(0));
        facts += getsid(0) != getpid() ? " not-leader" : " leader";
        struct sigaction hup {};
        sigaction(SIGHUP, nullptr, &hup);
        facts += hup.sa_handler == SIG_IGN ? " hup-ignored" : " hup-default";
        (void)!write(report[1], facts.data(), facts.size());
        _exit(0);
    }
    umask(saved_mask);
    close(report[1]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    // The report ends when the detached process exits and closes the pipe.
    EXPECT_EQ(read_all(report[0]), "0:null 1:null 2:null cwd=/ umask=0 not-leader hup-ignored");
    close(report[0]);
}
