#pragma once
// How a `LocalProcess` talks to its host.

#include <sys/ioctl.h>

#include <cstdint>
#include <optional>
#include <span>

namespace termkit {

class LocalProcess;

/// The host of a `LocalProcess`. Every call comes on the process's executor.
class LocalProcessDelegate {
public:
    virtual ~LocalProcessDelegate() = default;
    /// The child ended by itself, after all of its output was delivered. `exitCode` is its
    /// exit status (128 plus the signal for a child a signal killed), or nothing when the
    /// status could not be collected. Not called after `terminate`.
    virtual void processTerminated(LocalProcess& source, std::optional<int32_t> exitCode) = 0;
    /// The next piece of the child's output.
    virtual void dataReceived(std::span<const uint8_t> slice) = 0;
    /// Bytes the host has for the child.
    virtual void send(std::span<const uint8_t> data) = 0;
    /// The size the pseudo-terminal starts with; nothing gives it zero rows and columns.
    virtual std::optional<winsize> getWindowSize() = 0;
};

} // namespace termkit
