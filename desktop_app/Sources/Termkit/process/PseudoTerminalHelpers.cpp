#include "Termkit/process/PseudoTerminalHelpers.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>

namespace termkit {

namespace {

// An argv- or envp-style array. The strings are copied here, in the parent, because after
// a fork in a threaded program the child may only call async-signal-safe functions.
class CStringArray {
public:
    explicit CStringArray(const std::vector<std::string>& strings) : m_strings(strings) {
        m_pointers.reserve(m_strings.size() + 1);
        for (std::string& s : m_strings)
            m_pointers.push_back(s.data());
        m_pointers.push_back(nullptr);
    }
    char* const* data() const { return m_pointers.data(); }

private:
    std::vector<std::string> m_strings;
    std::vector<char*> m_pointers;
};

// The kernel's own record for rt_sigaction, used where the C library will not reach.
struct KernelSignalAction {
    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    unsigned long mask;
};

// Runs in the child between fork and exec: async-signal-safe calls only.
[[noreturn]] void execChild(const char* path, char* const* argv, char* const* envp, const char* directory) {
    // A program must not inherit what this process blocked or ignored: a shell that ignores
    // SIGPIPE would let `yes | head` run for ever.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigaction(signal, &fallback, nullptr) == 0)
            continue;
        // The C library keeps two real-time signals for itself and refuses to touch them, yet a
        // parent (GNU make is one) can leave them ignored: the kernel resets them all the same.
        const KernelSignalAction reset = {SIG_DFL, 0, nullptr, 0};
        syscall(SYS_rt_sigaction, signal, &reset, nullptr, sizeof reset.mask);
    }
    // Descriptors the host opened without close-on-exec would otherwise keep its sockets and
    // pipes alive in the child.
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    // A directory that cannot be entered leaves the child where this process is.
    if (directory != nullptr && chdir(directory) != 0)
        directory = nullptr;
    execve(path, argv, envp);
    _exit(PseudoTerminalHelpers::kExecFailedStatus);
}

} // namespace

std::optional<PseudoTerminalChild> PseudoTerminalHelpers::fork(
    const std::string& executable, const std::vector<std::string>& args, const std::vector<std::string>& env,
    const std::optional<std::string>& currentDirectory, const winsize& desiredWindowSize) {
    const std::string path = executable;
    const std::optional<std::string> directory = currentDirectory;
    const CStringArray argv(args);
    const CStringArray envp(env);
    winsize size = desiredWindowSize;
    int master = -1;
    const pid_t pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid < 0)
        return std::nullopt;
    if (pid == 0)
        execChild(path.c_str(), argv.data(), envp.data(), directory ? directory->c_str() : nullptr);
    // A master inherited by a later child would hold the terminal open after ours has gone.
    fcntl(master, F_SETFD, FD_CLOEXEC);
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    return PseudoTerminalChild{pid, master};
}

std::optional<int> PseudoTerminalHelpers::availableBytes(int fd) {
    int count = 0;
    if (ioctl(fd, FIONREAD, &count) != 0)
        return std::nullopt;
    return count;
}

bool PseudoTerminalHelpers::setWinSize(int masterPtyDescriptor, const winsize& windowSize) {
    return ioctl(masterPtyDescriptor, TIOCSWINSZ, &windowSize) == 0;
}

std::optional<winsize> PseudoTerminalHelpers::getWinSize(int masterPtyDescriptor) {
    winsize size = {};
    if (ioctl(masterPtyDescriptor, TIOCGWINSZ, &size) != 0)
        return std::nullopt;
    return size;
}

} // namespace termkit
