#include "Termkit/process/PseudoTerminalHelpers.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

namespace termkit {
namespace {

// Reads the master until the child's side closes.
std::string readAll(int fd) {
    std::string out;
    char buffer[4096];
    while (true) {
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 10000) <= 0)
            break;
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        out.append(buffer, static_cast<size_t>(n));
    }
    return out;
}

int waitStatus(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

TEST(PseudoTerminalHelpersTest, ForkRunsTheProgramWithExactlyItsArgumentsAndEnvironment) {
    const auto child =
        PseudoTerminalHelpers::fork("/bin/sh", {"custom-argv0", "-c", "echo \"$0|$GREETING|$PATH\""},
                                    {"GREETING=hi"}, std::nullopt, winsize{10, 20, 0, 0});
    ASSERT_TRUE(child);
    EXPECT_GT(child->pid, 0);
    EXPECT_GE(child->masterFd, 0);
    EXPECT_EQ(readAll(child->masterFd),
              "custom-argv0|hi|/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\r\n");
    const int status = waitStatus(child->pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    close(child->masterFd);
}

TEST(PseudoTerminalHelpersTest, TheMasterIsCloseOnExecAndNonBlocking) {
    const auto child =
        PseudoTerminalHelpers::fork("/bin/sleep", {"sleep", "30"}, {}, std::nullopt, winsize{});
    ASSERT_TRUE(child);
    EXPECT_TRUE(fcntl(child->masterFd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(child->masterFd, F_GETFL) & O_NONBLOCK);
    kill(child->pid, SIGKILL);
    waitStatus(child->pid);
    close(child->masterFd);
}

TEST(PseudoTerminalHelpersTest, AFailedExecEndsWith127) {
    const auto child =
        PseudoTerminalHelpers::fork("/nonexistent/program", {"program"}, {}, std::nullopt, winsize{});
    ASSERT_TRUE(child);
    const int status = waitStatus(child->pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), PseudoTerminalHelpers::kExecFailedStatus);
    close(child->masterFd);
}

TEST(PseudoTerminalHelpersTest, TheChildStartsWithDefaultSignalsAndInTheDirectory) {
    // Ignored and blocked signals of this process are not passed on to the program.
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction previous = {};
    sigaction(SIGINT, &ignore, &previous);
    const auto child =
        PseudoTerminalHelpers::fork("/bin/sh", {"sh", "-c", "pwd; grep -E '^Sig(Blk|Ign)' /proc/self/status"},
                                    {}, std::string("/tmp"), winsize{});
    sigaction(SIGINT, &previous, nullptr);
    ASSERT_TRUE(child);
    EXPECT_EQ(readAll(child->masterFd), "/tmp\r\nSigBlk:\t0000000000000000\r\nSigIgn:\t0000000000000000\r\n");
    waitStatus(child->pid);
    close(child->masterFd);
}

TEST(PseudoTerminalHelpersTest, SizeAndAvailableBytes) {
    const auto child = PseudoTerminalHelpers::fork("/bin/sh", {"sh", "-c", "printf 12345; sleep 30"}, {},
                                                   std::nullopt, winsize{24, 80, 16, 16});
    ASSERT_TRUE(child);
    const auto initial = PseudoTerminalHelpers::getWinSize(child->masterFd);
    ASSERT_TRUE(initial);
    EXPECT_EQ(initial->ws_row, 24);
    EXPECT_EQ(initial->ws_col, 80);
    EXPECT_EQ(initial->ws_xpixel, 16);
    EXPECT_TRUE(PseudoTerminalHelpers::setWinSize(child->masterFd, winsize{50, 200, 16, 16}));
    const auto changed = PseudoTerminalHelpers::getWinSize(child->masterFd);
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->ws_row, 50);
    EXPECT_EQ(changed->ws_col, 200);
    pollfd p = {child->masterFd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 10000), 1);
    std::optional<int> available;
    for (int i = 0; i < 1000; ++i) { // the kernel may hand the bytes over in two steps
        available = PseudoTerminalHelpers::availableBytes(child->masterFd);
        if (available == 5)
            break;
        usleep(1000);
    }
    EXPECT_EQ(available, 5);
    EXPECT_FALSE(PseudoTerminalHelpers::availableBytes(-1));
    EXPECT_FALSE(PseudoTerminalHelpers::setWinSize(-1, winsize{}));
    kill(child->pid, SIGKILL);
    waitStatus(child->pid);
    close(child->masterFd);
}

} // namespace
} // namespace termkit
