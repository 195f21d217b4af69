#include "Unprivileged.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

namespace improve::testing {
namespace {

constexpr uid_t kNobody = 65534;

std::string readAll(int fd) {
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        out.append(buffer, size_t(n));
    return out;
}

} // namespace

bool runsAsAnotherUser() {
    return ::geteuid() == 0;
}

std::string asUnprivilegedUser(const std::function<std::string()>& work) {
    if (!runsAsAnotherUser())
        return work();
    int fds[2];
    if (::pipe(fds) != 0)
        return "pipe failed";
    const pid_t child = ::fork();
    if (child < 0)
        return "fork failed";
    if (child == 0) {
        ::close(fds[0]);
        std::string result = "could not drop privileges";
        if (::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0)
            result = work();
        [[maybe_unused]] const ssize_t written = ::write(fds[1], result.data(), result.size());
        ::_exit(0); // skip the test framework's exit handlers, which belong to the parent
    }
    ::close(fds[1]);
    std::string result = readAll(fds[0]);
    ::close(fds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    return result;
}

} // namespace improve::testing
