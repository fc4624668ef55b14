#include "lib/process.h"

#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>

#include "lib/fd.h"
#include "support/netns.h"

TEST(PidFile, StaleFileIsRewrittenAndASecondInstanceFailsAtTheLock) {
    const std::string name = "dyptest-" + std::to_string(getpid());
    const std::string path = "/var/run/" + name + ".pid";
    std::ofstream(path) << "1234567890\nleftover\n"; // longer than the new content
    unique_fd fd(tq_create_pid_file(name.c_str()));
    ASSERT_TRUE(fd.valid());
    // A second open of the file conflicts at the lock like a second process.
    EXPECT_EQ(tq_create_pid_file(name.c_str()), -1);
    EXPECT_EQ(run_shell_output("cat " + path), std::to_string(getpid()) + "\n");
    unlink(path.c_str());
}

TEST(Daemonize, DetachedProcessHasNullStreamsRootDirectoryAndNoUmask) {
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    pid_t child = fork();
    if (child == 0) {
        umask(022);
        if (tq_daemonize(nullptr) != 0)
            _exit(1);
        struct stat null_device {
        }, stream{};
        stat("/dev/null", &null_device);
        bool null = true;
        for (int fd = 0; fd < 3; ++fd)
            null = null && fstat(fd, &stream) == 0 && stream.st_rdev == null_device.st_rdev;
        char cwd[64] = {};
        dprintf(report[1], "%s cwd=%s umask=%o", null ? "null streams" : "other streams",
                getcwd(cwd, sizeof cwd), umask(0));
        _exit(0);
    }
    close(report[1]);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    // The report ends when the detached process exits and closes the pipe.
    char text[256] = {};
    for (ssize_t got = 0, n; (n = read(report[0], text + got, sizeof text - 1 - got)) > 0;)
        got += n;
    EXPECT_STREQ(text, "null streams cwd=/ umask=0");
    close(report[0]);
}
