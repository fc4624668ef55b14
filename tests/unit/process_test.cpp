#include "lib/process.h"

#include <climits>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

std::string file_content(const std::string &path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A pid file name of this test process only, removed at the end. A lock
// taken through a second open of the file conflicts even within one
// process, so no helper process is needed to play the running instance.
struct pid_file_name {
    std::string name = "dyptest-" + std::to_string(getpid());
    std::string path = "/var/run/" + name + ".pid";
    pid_file_name() { unlink(path.c_str()); }
    ~pid_file_name() { unlink(path.c_str()); }
};

} // namespace

TEST(PidFile, StaleFileIsRewrittenAndALockedOneIsLeftAlone) {
    pid_file_name file;
    std::ofstream(file.path) << "1234567890\nleftover\n"; // longer than the new content
    int fd = tq_create_pid_file(file.name.c_str());
    ASSERT_GE(fd, 0);
    const std::string expected = std::to_string(getpid()) + "\n";
    EXPECT_EQ(file_content(file.path), expected);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    struct stat info {};
    ASSERT_EQ(fstat(fd, &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    EXPECT_EQ(tq_create_pid_file(file.name.c_str()), -1) << "second instance";
    EXPECT_EQ(file_content(file.path), expected);
    close(fd);
    fd = tq_create_pid_file(file.name.c_str());
    EXPECT_GE(fd, 0) << "closing the descriptor releases the lock";
    close(fd);
    EXPECT_EQ(tq_create_pid_file("no-such-dir/dyptest"), -1);
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
            bool is_null = fstat(fd, &info) == 0 && info.st_rdev == null_info.st_rdev;
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
    char text[256] = {};
    for (ssize_t got = 0, n; (n = read(report[0], text + got, sizeof text - 1 - got)) > 0;)
        got += n;
    EXPECT_STREQ(text, "0:null 1:null 2:null cwd=/ umask=0 not-leader hup-ignored");
    close(report[0]);
}
