#include "Termkit/process/LocalProcess.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <utility>

#include "Termkit/engine/Terminal.h"
#include "Termkit/process/PseudoTerminalHelpers.h"

namespace termkit {

namespace {

// The exit status as a shell reports it.
std::optional<int32_t> decodeStatus(int status) {
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return std::nullopt;
}

// Process descriptors through the system call itself: the C library's wrappers are missing
// or unusable from C++ on some of the systems we build on.
int openProcessDescriptor(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool signalProcessDescriptor(int pidfd, int signal) {
    return syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0) == 0;
}

// A terminated child is collected on a thread of its own, so that neither the host nor a
// later start waits for a program that takes its time to die.
void reapInBackground(pid_t pid) {
    std::thread([pid] {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }).detach();
}

} // namespace

LocalProcess::LocalProcess(LocalProcessDelegate* delegate, SerialExecutor& dispatchQueue)
    : LocalProcess(delegate, dispatchQueue, Tuning{}) {}

LocalProcess::LocalProcess(LocalProcessDelegate* delegate, SerialExecutor& dispatchQueue, Tuning tuning)
    : m_delegate(delegate), m_dispatchQueue(dispatchQueue), m_tuning(std::move(tuning)),
      m_usesMainQueue(dispatchQueue.isMainQueue()) {
    m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

LocalProcess::~LocalProcess() {
    m_alive.reset();
    if (m_running || m_childfd >= 0 || m_reader.joinable())
        terminate();
    closeSource();
    if (m_wakeFd >= 0)
        close(m_wakeFd);
}

std::chrono::nanoseconds LocalProcess::now() const {
    if (m_tuning.clock)
        return m_tuning.clock();
    return std::chrono::steady_clock::now().time_since_epoch();
}

// --- Start --------------------------------------------------------------------------------------

void LocalProcess::startProcess(const std::string& executable, const std::vector<std::string>& args,
                                const std::optional<std::vector<std::string>>& environment,
                                const std::optional<std::string>& execName,
                                const std::optional<std::string>& currentDirectory) {
    if (m_running || m_wakeFd < 0)
        return;
    resetForStart();
    std::optional<winsize> size = m_delegate ? m_delegate->getWindowSize() : std::nullopt;
    std::vector<std::string> argv;
    argv.reserve(args.size() + 1);
    argv.push_back(execName.value_or(executable));
    argv.insert(argv.end(), args.begin(), args.end());
    const std::vector<std::string> env =
        environment ? *environment : Terminal::getEnvironmentVariables("xterm-256color", true);
    const auto child =
        PseudoTerminalHelpers::fork(executable, argv, env, currentDirectory, size.value_or(winsize{}));
    if (!child)
        return;
    m_childfd = child->masterFd;
    m_shellPid = child->pid;
    m_running = true;
    // A process descriptor lets the reader wait for the exit and makes signals safe from a
    // reused id; older kernels fall back to polling.
    if (m_tuning.useProcessDescriptor)
        m_pidfd = openProcessDescriptor(child->pid);
    m_readBuffer.resize(m_tuning.readSize);
    ++m_generation;
    m_reader = std::thread([this, master = child->masterFd, pidfd = m_pidfd, generation = m_generation] {
        readerLoop(master, pidfd, generation);
    });
}

void LocalProcess::resetForStart() {
    stopReader();
    closeSource();
    // A child that ended by itself leaves its master open until the next start.
    if (const int fd = m_childfd.exchange(-1); fd >= 0)
        close(fd);
    m_exitCode.reset();
    m_childReaped = false;
    m_sourceCancelled = false;
    m_stopping = false;
    {
        std::lock_guard lock(m_pendingLock);
        m_pendingChunks.clear();
        m_pendingChunkIndex = 0;
        m_pendingBytes = 0;
        m_readSuspendedForBackpressure = false;
        m_exitPending = false;
        m_stats = {};
    }
    std::lock_guard lock(m_writeLock);
    m_writes.clear();
}

// --- Stop ---------------------------------------------------------------------------------------

void LocalProcess::terminate() {
    stopReader();
    if (const int fd = m_childfd.exchange(-1); fd >= 0)
        close(fd);
    {
        std::lock_guard lock(m_pendingLock);
        m_exitPending = false;
    }
    {
        std::lock_guard lock(m_writeLock);
        m_writes.clear();
    }
    const pid_t pid = m_shellPid;
    if (pid != 0 && !m_childReaped) {
        if (m_pidfd < 0 || !signalProcessDescriptor(m_pidfd, SIGTERM))
            kill(pid, SIGTERM);
        reapInBackground(pid);
        m_childReaped = true;
    }
    m_running = false;
    m_sourceCancelled = true;
    closeSource();
}

void LocalProcess::stopReader() {
    if (!m_reader.joinable())
        return;
    m_stopping = true;
    {
        // Under the lock so that a reader about to wait for a delivery cannot miss the news.
        std::lock_guard lock(m_syncLock);
    }
    m_syncDone.notify_all();
    wake();
    m_reader.join();
}

void LocalProcess::closeSource() {
    if (m_pidfd >= 0)
        close(m_pidfd);
    m_pidfd = -1;
}

void LocalProcess::wake() const {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(m_wakeFd, &one, sizeof one);
}

// --- Reader thread ------------------------------------------------------------------------------

void LocalProcess::readerLoop(int masterFd, int pidfd, uint64_t generation) {
    ReaderState state;
    while (!m_stopping) {
        const bool suspended = readSuspended();
        const bool wantWrite = hasWrites();
        const short masterEvents =
            static_cast<short>((state.readOpen && !suspended ? POLLIN : 0) | (wantWrite ? POLLOUT : 0));
        // A descriptor with nothing asked of it is left out: a hung-up master would otherwise
        // wake the loop for ever while reading is suspended.
        pollfd fds[3] = {{m_wakeFd, POLLIN, 0},
                         {masterEvents != 0 ? masterFd : -1, masterEvents, 0},
                         {!state.childExited && pidfd >= 0 ? pidfd : -1, POLLIN, 0}};
        if (poll(fds, 3, pollTimeout(state, suspended, pidfd)) < 0 && errno != EINTR)
            break;
        if (fds[0].revents & POLLIN) {
            uint64_t count = 0;
            [[maybe_unused]] const ssize_t got = read(m_wakeFd, &count, sizeof count);
        }
        if (m_stopping)
            break;
        if ((fds[1].revents & POLLOUT) || (wantWrite && (fds[1].revents & (POLLHUP | POLLERR))))
            writePending(masterFd);
        if ((masterEvents & POLLIN) && (fds[1].revents & (POLLIN | POLLHUP | POLLERR)))
            state.readOpen = readOnce(masterFd);
        if (!state.childExited && childHasExited(fds[2].revents, pidfd)) {
            state.childExited = true;
            state.exitDeadline = std::chrono::steady_clock::now() + m_tuning.exitQuietPeriod;
        }
        // The exit goes behind the child's last output: at end of file, or once the terminal
        // has stayed open, held by something the child left behind, past the quiet period.
        if (state.childExited && !state.exitQueued &&
            (!state.readOpen ||
             (std::chrono::steady_clock::now() >= state.exitDeadline && !readSuspended()))) {
            queueExitReport(generation);
            state.exitQueued = true;
        }
        if (state.exitQueued && !state.readOpen)
            break;
    }
}

int LocalProcess::pollTimeout(ReaderState& state, bool suspended, int pidfd) const {
    using std::chrono::milliseconds;
    const auto now = std::chrono::steady_clock::now();
    if (state.childExited && !state.exitQueued) {
        // Time spent suspended does not count: the backlog is ours, not the child's.
        if (suspended)
            state.exitDeadline = std::max(state.exitDeadline, now + m_tuning.exitQuietPeriod);
        const auto left = std::chrono::duration_cast<milliseconds>(state.exitDeadline - now).count();
        return static_cast<int>(std::max<long long>(0, left));
    }
    if (!state.childExited && pidfd < 0)
        return static_cast<int>(m_tuning.exitPollInterval.count());
    return -1;
}

bool LocalProcess::childHasExited(short pidfdEvents, int pidfd) const {
    if (pidfd >= 0)
        return (pidfdEvents & POLLIN) != 0;
    // Without a process descriptor: look, leaving the child to be collected by the report.
    siginfo_t info = {};
    const auto pid = static_cast<id_t>(m_shellPid.load());
    return waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

bool LocalProcess::readOnce(int masterFd) {
    const ssize_t count = read(masterFd, m_readBuffer.data(), m_readBuffer.size());
    if (count < 0) {
        // EIO is how a pseudo-terminal says that its other side has closed: end of file.
        return errno == EAGAIN || errno == EINTR;
    }
    if (count == 0)
        return false;
    // Copied out at its own size: a backlog counted in bytes must not hold whole read buffers.
    std::vector<uint8_t> chunk(m_readBuffer.begin(), m_readBuffer.begin() + count);
    const uint64_t total = m_totalRead += static_cast<uint64_t>(count);
    if (m_debugIO) {
        debugLine("[READ] count=" + std::to_string(count) +
                  " received from host total=" + std::to_string(total));
    }
    logChunk(chunk);
    if (m_usesMainQueue) {
        enqueueReceivedData(std::move(chunk));
    } else {
        deliverSynchronously(std::move(chunk));
    }
    return true;
}

void LocalProcess::logChunk(std::span<const uint8_t> chunk) {
    std::string path;
    {
        std::lock_guard lock(m_loggingLock);
        if (!m_loggingDir)
            return;
        path = *m_loggingDir + "/log-" + std::to_string(m_logFileCounter++);
    }
    FILE* file = std::fopen(path.c_str(), "wb");
    const bool written = file != nullptr && std::fwrite(chunk.data(), 1, chunk.size(), file) == chunk.size();
    const bool closed = file != nullptr && std::fclose(file) == 0;
    if (!written || !closed)
        debugLine("Got error while logging data dump to " + path);
}

bool LocalProcess::enqueueReceivedData(std::vector<uint8_t> chunk) {
    bool schedule = false;
    bool goOn = false;
    {
        std::lock_guard lock(m_pendingLock);
        m_pendingBytes += chunk.size();
        m_pendingChunks.push_back(std::move(chunk));
        m_stats.peakPendingBytes = std::max(m_stats.peakPendingBytes, m_pendingBytes);
        if (m_pendingBytes >= m_tuning.pendingHighWaterBytes && !m_readSuspendedForBackpressure) {
            m_readSuspendedForBackpressure = true;
            ++m_stats.suspensions;
            m_stats.bytesAtLastSuspension = m_pendingBytes;
        }
        if (!m_pendingScheduled)
            m_pendingScheduled = schedule = true;
        goOn = m_pendingBytes < m_tuning.pendingHighWaterBytes;
    }
    if (schedule) {
        m_dispatchQueue.post([this, alive = std::weak_ptr<int>(m_alive)] {
            if (!alive.expired())
                drainReceivedData();
        });
    }
    return goOn;
}

void LocalProcess::deliverSynchronously(std::vector<uint8_t> chunk) {
    uint64_t number = 0;
    {
        std::lock_guard lock(m_syncLock);
        number = ++m_syncPosted;
    }
    m_dispatchQueue.post([this, alive = std::weak_ptr<int>(m_alive), number, chunk = std::move(chunk)] {
        if (alive.expired())
            return;
        if (m_delegate)
            m_delegate->dataReceived(chunk);
        if (alive.expired())
            return;
        {
            std::lock_guard lock(m_syncLock);
            m_syncFinished = std::max(m_syncFinished, number);
        }
        m_syncDone.notify_all();
    });
    std::unique_lock lock(m_syncLock);
    m_syncDone.wait(lock, [&] { return m_syncFinished >= number || m_stopping; });
}

void LocalProcess::writePending(int masterFd) {
    std::lock_guard lock(m_writeLock);
    while (!m_writes.empty()) {
        Write& next = m_writes.front();
        const ssize_t count =
            write(masterFd, next.bytes.data() + next.offset, next.bytes.size() - next.offset);
        if (count < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN)
                return;
            debugLine("Error writing data to the child, errno=" + std::to_string(errno));
            m_writes.pop_front();
            continue;
        }
        next.offset += static_cast<size_t>(count);
        m_total += static_cast<uint64_t>(count);
        if (next.offset < next.bytes.size())
            continue;
        if (m_debugIO) {
            debugLine("[SEND-" + std::to_string(next.number) +
                      "] completed bytes=" + std::to_string(m_total));
        }
        m_writes.pop_front();
    }
}

bool LocalProcess::readSuspended() const {
    std::lock_guard lock(m_pendingLock);
    return m_readSuspendedForBackpressure;
}

bool LocalProcess::hasWrites() const {
    std::lock_guard lock(m_writeLock);
    return !m_writes.empty();
}

void LocalProcess::queueExitReport(uint64_t generation) {
    if (!m_usesMainQueue) {
        // Every read before this one has been delivered already: the executor is serial. A
        // report that arrives after a restart belongs to the previous child and is dropped.
        m_dispatchQueue.post([this, alive = std::weak_ptr<int>(m_alive), generation] {
            if (!alive.expired() && generation == m_generation)
                processTerminated();
        });
        return;
    }
    bool schedule = false;
    {
        std::lock_guard lock(m_pendingLock);
        m_exitPending = true;
        if (!m_pendingScheduled)
            m_pendingScheduled = schedule = true;
    }
    if (schedule) {
        m_dispatchQueue.post([this, alive = std::weak_ptr<int>(m_alive)] {
            if (!alive.expired())
                drainReceivedData();
        });
    }
}

void LocalProcess::debugLine(std::string_view line) const {
    if (debugLog) {
        debugLog(line);
        return;
    }
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
}

// --- Executor -----------------------------------------------------------------------------------

void LocalProcess::drainReceivedData() {
    const auto start = now();
    const std::weak_ptr<int> alive = m_alive;
    while (true) {
        std::vector<uint8_t> chunk;
        bool resume = false;
        {
            std::unique_lock lock(m_pendingLock);
            if (m_pendingChunkIndex >= m_pendingChunks.size()) {
                m_pendingChunks.clear();
                m_pendingChunkIndex = 0;
                m_pendingScheduled = false;
                const bool reportExit = std::exchange(m_exitPending, false);
                lock.unlock();
                if (reportExit)
                    processTerminated();
                return;
            }
            chunk = std::move(m_pendingChunks[m_pendingChunkIndex++]);
            if (m_pendingChunkIndex + 1 >= m_tuning.pendingChunkFlushThreshold) {
                m_pendingChunks.erase(m_pendingChunks.begin(),
                                      m_pendingChunks.begin() +
                                          static_cast<std::ptrdiff_t>(m_pendingChunkIndex));
                m_pendingChunkIndex = 0;
            }
            m_pendingBytes -= chunk.size();
            if (m_readSuspendedForBackpressure && m_pendingBytes <= m_tuning.pendingLowWaterBytes) {
                m_readSuspendedForBackpressure = false;
                ++m_stats.resumptions;
                m_stats.bytesAtLastResumption = m_pendingBytes;
                resume = m_running;
            }
        }
        if (resume)
            wake();
        if (m_delegate)
            m_delegate->dataReceived(chunk);
        // The delegate may have destroyed this process.
        if (alive.expired())
            return;
        if (now() - start >= m_tuning.pendingTimeSlice) {
            {
                std::lock_guard lock(m_pendingLock);
                ++m_stats.slicesCut;
            }
            m_dispatchQueue.post([this, alive] {
                if (!alive.expired())
                    drainReceivedData();
            });
            return;
        }
    }
}

void LocalProcess::processTerminated() {
    if (m_sourceCancelled || m_childReaped)
        return;
    const pid_t pid = m_shellPid;
    int status = 0;
    const pid_t collected = waitpid(pid, &status, WNOHANG);
    std::optional<int32_t> code;
    if (collected == pid) {
        code = decodeStatus(status);
    } else if (collected == 0) {
        reapInBackground(pid); // not collectable yet; never expected once the exit was seen
    }
    m_childReaped = true;
    m_exitCode = code;
    m_running = false;
    closeSource();
    // Nothing may touch this object afterwards: the delegate is free to destroy it.
    if (m_delegate)
        m_delegate->processTerminated(*this, code);
}

// --- Input and settings ---------------------------------------------------------------------------

void LocalProcess::send(std::span<const uint8_t> data) {
    if (!m_running)
        return;
    uint64_t number = 0;
    {
        std::lock_guard lock(m_writeLock);
        number = ++m_sendCount;
        m_writes.push_back({std::vector<uint8_t>(data.begin(), data.end()), 0, number});
    }
    if (m_debugIO) {
        debugLine("[SEND-" + std::to_string(number) + "] Queuing data to client: " +
                  std::string(reinterpret_cast<const char*>(data.data()), data.size()));
    }
    wake();
}

void LocalProcess::setHostLogging(std::optional<std::string> directory) {
    std::lock_guard lock(m_loggingLock);
    m_loggingDir = std::move(directory);
}

LocalProcess::PendingStatus LocalProcess::pendingStatus() const {
    std::lock_guard lock(m_pendingLock);
    PendingStatus status = m_stats;
    status.pendingBytes = m_pendingBytes;
    status.storedChunks = m_pendingChunks.size();
    status.chunkIndex = m_pendingChunkIndex;
    status.pendingScheduled = m_pendingScheduled;
    status.readSuspendedForBackpressure = m_readSuspendedForBackpressure;
    status.totalRead = m_totalRead;
    return status;
}

uint64_t LocalProcess::sendCount() const {
    std::lock_guard lock(m_writeLock);
    return m_sendCount;
}

uint64_t LocalProcess::total() const {
    std::lock_guard lock(m_writeLock);
    return m_total;
}

} // namespace termkit
