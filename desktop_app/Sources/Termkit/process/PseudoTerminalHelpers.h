#pragma once
// The low-level half of the process layer: a child on a new pseudo-terminal.

#include <sys/ioctl.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace termkit {

/// A child started by `PseudoTerminalHelpers::fork`.
struct PseudoTerminalChild {
    pid_t pid = 0;
    /// The master side of the pseudo-terminal, close-on-exec and non-blocking.
    int masterFd = -1;
};

/// Static helpers around `forkpty` and the master descriptor.
class PseudoTerminalHelpers {
public:
    /// Status of a child whose `execve` failed, the one shells use for "command not found".
    static constexpr int kExecFailedStatus = 127;

    PseudoTerminalHelpers() = delete;

    /// Starts `executable` with `args` (the first is the child's argv[0]) and exactly the
    /// environment `env` on a new pseudo-terminal of `desiredWindowSize`, in
    /// `currentDirectory` when given. Every C string is made before the fork, so the child
    /// allocates nothing; a child whose `execve` fails ends with `kExecFailedStatus`.
    /// Nothing when the pseudo-terminal or the process could not be made.
    static std::optional<PseudoTerminalChild> fork(const std::string& executable,
                                                   const std::vector<std::string>& args,
                                                   const std::vector<std::string>& env,
                                                   const std::optional<std::string>& currentDirectory,
                                                   const winsize& desiredWindowSize);
    /// Bytes ready to be read on `fd`, or nothing when the descriptor cannot tell.
    static std::optional<int> availableBytes(int fd);
    /// Gives the pseudo-terminal a new size; the kernel tells the foreground job with SIGWINCH.
    static bool setWinSize(int masterPtyDescriptor, const winsize& windowSize);
    /// The size the pseudo-terminal has now.
    static std::optional<winsize> getWinSize(int masterPtyDescriptor);
};

} // namespace termkit
