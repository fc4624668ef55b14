#include "lib/process.h"

#include <climits>
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
} // namespace

TEST(PidFile, StaleFileIsRewrittenAndASecondProcessFailsAtTheLock) {
    const std::string name = "dyptest-" + std::to_string(getpid());
    const std::string path = "/var/run/" + name + ".pid";
    std::ofstream(path) << "1234567890\nleftover\n"; // longer than the new content
    int fd = tq_create_pid_file(name.c_str());
    ASSERT_GE(fd, 0);
    const std::string expected = std::to_string(getpid()) + "\n";
    EXPECT_EQ(file_content(path), expected);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    pid_t second = fork();
    if (second == 0)
        _exit(tq_create_pid_file(name.c_str()) == -1 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(second, &status, 0), second);
    EXPECT_EQ(status, 0) << "the second instance must fail";
    EXPECT_EQ(file_content(path), expected);
    close(fd);
    fd = tq_create_pid_file(name.c_str());
    EXPECT_GE(fd, 0) << "closing the descriptor releases the lock";
    close(fd);
    unlink(path.c_str());
    EXPECT_EQ(tq_create_pid_file("no-such-dir/dyptest"), -1);
}

TEST(Daemonize, DetachedProcessHasNullStreamsRootDirectoryAndNoUmask) {
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(report[0]);
        umask(022);
        if (tq_daemonize(nullptr) != 0)
            _exit(1);
        struct stat null_info {
        }, info{};
        stat("/dev/null", &null_info);
        std::string facts;
        for (int fd = 0; fd <= 2; ++fd) {
            int mode = fcntl(fd, F_GETFL) & O_ACCMODE;
            bool is_null = fstat(fd, &info) == 0 && info.st_rdev == null_info.st_rdev;
            facts += is_null && mode == (fd == 0 ? O_RDONLY : O_WRONLY) ? "null " : "other ";
        }
        char cwd[PATH_MAX] = {};
        facts += std::string("cwd=") + (getcwd(cwd, sizeof cwd) ? cwd : "?");
        facts += " umask=" + std::to_string(umask(0));
        facts += getsid(0) != getpid() ? " not-leader" : " leader";
        (void)!write(report[1], facts.data(), facts.size());
        _exit(0);
    }
    close(report[1]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    // The report ends when the detached process exits and closes the pipe.
    char text[256] = {};
    for (ssize_t got = 0, n; (n = read(report[0], text + got, sizeof text - 1 - got)) > 0;)
        got += n;
    EXPECT_STREQ(text, "null null null cwd=/ umask=0 not-leader");
    close(report[0]);
}
