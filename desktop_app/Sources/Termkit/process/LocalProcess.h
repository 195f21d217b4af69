#pragma once
// A child program on a pseudo-terminal: its output pumped to a delegate, input written back.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Termkit/process/LocalProcessDelegate.h"
#include "Termkit/process/SerialExecutor.h"

namespace termkit {

/// Starts one child at a time under a pseudo-terminal. A reader thread of its own reads the
/// master and writes what `send` queued; the delegate is called on the executor only.
///
/// On a main-queue executor the reads wait in a bounded backlog: reading stops when
/// `pendingHighWaterBytes` are waiting and resumes once delivery has brought them down to
/// `pendingLowWaterBytes`, and delivery runs in slices of `pendingTimeSlice` so that the
/// host's event loop keeps turning. Memory held is therefore at most the high water mark
/// plus one read. On any other executor each read is delivered before the next is made.
///
/// A `LocalProcess` is made, used and destroyed on its executor's thread; only `send` may
/// be called from anywhere.
class LocalProcess {
public:
    /// Bytes asked for in one read of the master.
    static constexpr size_t kReadSize = 131072;
    /// The delivered front of the backlog is dropped once this many, less one, have gone, so
    /// that a long flood does not pin the array's memory.
    static constexpr size_t kPendingChunkFlushThreshold = 32;
    /// Longest run of deliveries before the executor gets its turn back.
    static constexpr std::chrono::nanoseconds kPendingTimeSlice{4'000'000};
    /// Backlog at which reading stops.
    static constexpr size_t kPendingHighWaterBytes = 4194304;
    /// Backlog at or below which reading resumes.
    static constexpr size_t kPendingLowWaterBytes = 1048576;
    /// After the child has gone, how long reading may find the terminal still open (held by a
    /// program the child left behind) before the exit is reported anyway.
    static constexpr std::chrono::milliseconds kExitQuietPeriod{100};
    /// How often the child is checked for exit where the kernel offers no process descriptor.
    static constexpr std::chrono::milliseconds kExitPollInterval{20};

    /// The fixed sizes and times, replaceable in tests.
    struct Tuning {
        size_t readSize = kReadSize;
        size_t pendingChunkFlushThreshold = kPendingChunkFlushThreshold;
        std::chrono::nanoseconds pendingTimeSlice = kPendingTimeSlice;
        size_t pendingHighWaterBytes = kPendingHighWaterBytes;
        size_t pendingLowWaterBytes = kPendingLowWaterBytes;
        std::chrono::milliseconds exitQuietPeriod = kExitQuietPeriod;
        std::chrono::milliseconds exitPollInterval = kExitPollInterval;
        /// False watches the child by polling, as on kernels without process descriptors.
        bool useProcessDescriptor = true;
        /// A monotonic clock for the time slices; the steady clock when empty.
        std::function<std::chrono::nanoseconds()> clock;
    };

    /// A snapshot of the backlog, for diagnostics, benchmarks and tests.
    struct PendingStatus {
        size_t pendingBytes = 0;
        /// Length of the backlog array, its delivered front included.
        size_t storedChunks = 0;
        /// Index of the next chunk to deliver.
        size_t chunkIndex = 0;
        bool pendingScheduled = false;
        bool readSuspendedForBackpressure = false;
        size_t peakPendingBytes = 0;
        uint64_t suspensions = 0;
        uint64_t resumptions = 0;
        size_t bytesAtLastSuspension = 0;
        size_t bytesAtLastResumption = 0;
        /// Drains that gave the executor back because their time slice ran out.
        uint64_t slicesCut = 0;
        uint64_t totalRead = 0;
    };

    /// `delegate` may be null and must outlive the process or be cleared with `setDelegate`.
    LocalProcess(LocalProcessDelegate* delegate, SerialExecutor& dispatchQueue);
    LocalProcess(LocalProcessDelegate* delegate, SerialExecutor& dispatchQueue, Tuning tuning);
    /// Terminates a child that is still there.
    ~LocalProcess();
    LocalProcess(const LocalProcess&) = delete;
    LocalProcess& operator=(const LocalProcess&) = delete;

    /// Starts `executable` with `args`; argv[0] is `execName` (so "-bash" makes a login shell)
    /// or else the executable. Without `environment` the child gets the terminal's default
    /// one. Failure is silent: the process is simply not running. Ignored while running.
    void startProcess(const std::string& executable, const std::vector<std::string>& args = {},
                      const std::optional<std::vector<std::string>>& environment = std::nullopt,
                      const std::optional<std::string>& execName = std::nullopt,
                      const std::optional<std::string>& currentDirectory = std::nullopt);
    /// Queues bytes for the child without blocking; dropped when not running. Any thread.
    void send(std::span<const uint8_t> data);
    /// Closes the terminal and sends SIGTERM to a child that has not been reported ended.
    /// The delegate is not told. A child that ended earlier is left alone.
    void terminate();
    /// With a directory, every read is also written to a file "log-N" in it; none stops that.
    void setHostLogging(std::optional<std::string> directory);

    void setDelegate(LocalProcessDelegate* delegate) { m_delegate = delegate; }
    /// Logs each read and write through `debugLog`.
    void setDebugIO(bool on) { m_debugIO = on; }
    bool debugIO() const { return m_debugIO; }
    /// Where debug and logging-failure lines go; standard output when empty. Called from the
    /// reader thread and from `send`'s caller, so set it before starting.
    std::function<void(std::string_view)> debugLog;

    bool running() const { return m_running; }
    /// The pseudo-terminal's master, -1 when none.
    int childfd() const { return m_childfd; }
    /// The child's process id, 0 before the first start. It stays after the child has ended.
    pid_t shellPid() const { return m_shellPid; }
    /// The status reported for the child that ended by itself, if one did.
    std::optional<int32_t> exitCode() const { return m_exitCode; }
    bool usesMainQueue() const { return m_usesMainQueue; }
    const Tuning& tuning() const { return m_tuning; }
    PendingStatus pendingStatus() const;
    /// Writes queued by `send` and the bytes written so far.
    uint64_t sendCount() const;
    uint64_t total() const;

private:
    struct Write {
        std::vector<uint8_t> bytes;
        size_t offset = 0;
        uint64_t number = 0;
    };

    std::chrono::nanoseconds now() const;
    void resetForStart();
    void stopReader();
    void closeSource();
    void wake() const;

    // Reader thread.
    struct ReaderState {
        bool readOpen = true; // until end of file or a read error
        bool childExited = false;
        bool exitQueued = false;
        std::chrono::steady_clock::time_point exitDeadline;
    };
    void readerLoop(int masterFd, int pidfd, uint64_t generation);
    int pollTimeout(ReaderState& state, bool suspended, int pidfd) const;
    bool childHasExited(short pidfdEvents, int pidfd) const;
    bool readOnce(int masterFd);
    void logChunk(std::span<const uint8_t> chunk);
    bool enqueueReceivedData(std::vector<uint8_t> chunk);
    void deliverSynchronously(std::vector<uint8_t> chunk);
    void writePending(int masterFd);
    bool readSuspended() const;
    bool hasWrites() const;
    void queueExitReport(uint64_t generation);
    void debugLine(std::string_view line) const;

    // Executor.
    void drainReceivedData();
    void processTerminated();

    LocalProcessDelegate* m_delegate;
    SerialExecutor& m_dispatchQueue;
    Tuning m_tuning;
    bool m_usesMainQueue;
    // Work posted to the executor holds this weakly and does nothing once it is gone.
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);

    std::atomic<int> m_childfd{-1};
    std::atomic<pid_t> m_shellPid{0};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_debugIO{false};
    std::optional<int32_t> m_exitCode;
    int m_pidfd = -1;
    int m_wakeFd = -1;
    // The child was collected here or handed to a background reaper: never signal its id again.
    bool m_childReaped = false;
    // Set by terminate: a queued exit report is dropped.
    bool m_sourceCancelled = false;
    // Counts starts, so that work queued for an earlier child is recognised.
    uint64_t m_generation = 0;
    std::thread m_reader;
    std::atomic<bool> m_stopping{false};
    std::vector<uint8_t> m_readBuffer;

    mutable std::mutex m_pendingLock;
    std::vector<std::vector<uint8_t>> m_pendingChunks;
    size_t m_pendingChunkIndex = 0;
    bool m_pendingScheduled = false;
    size_t m_pendingBytes = 0;
    bool m_readSuspendedForBackpressure = false;
    bool m_exitPending = false;
    PendingStatus m_stats;

    mutable std::mutex m_writeLock;
    std::deque<Write> m_writes;
    uint64_t m_sendCount = 0;
    uint64_t m_total = 0;

    // Delivery on an executor that is not the main queue: one read at a time.
    std::mutex m_syncLock;
    std::condition_variable m_syncDone;
    uint64_t m_syncPosted = 0;
    uint64_t m_syncFinished = 0;

    std::mutex m_loggingLock;
    std::optional<std::string> m_loggingDir;
    uint64_t m_logFileCounter = 0;
    std::atomic<uint64_t> m_totalRead{0};
};

} // namespace termkit
