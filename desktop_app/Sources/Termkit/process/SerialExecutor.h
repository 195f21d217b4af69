#pragma once
// Where the process layer calls its host: one serial context chosen by the host.

#include <functional>

namespace termkit {

/// Runs posted work one item at a time, in the order it was posted. `post` may be called
/// from any thread; the work always runs on the executor's own context.
class SerialExecutor {
public:
    virtual ~SerialExecutor() = default;
    /// Queues `work` behind everything posted before it.
    virtual void post(std::function<void()> work) = 0;
    /// True when this context is the host's main (interface) thread. Output delivered there is
    /// buffered with a bounded backlog and handed over in short time slices, so that a child
    /// that floods its terminal can neither freeze the interface nor fill memory. Elsewhere
    /// each read is delivered before the next one is made.
    virtual bool isMainQueue() const = 0;
};

} // namespace termkit
