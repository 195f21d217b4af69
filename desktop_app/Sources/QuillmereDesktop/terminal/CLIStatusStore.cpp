#include "QuillmereDesktop/terminal/CLIStatusStore.h"

#include <qcoro/qcorotimer.h>

CLIStatusStore::CLIStatusStore(std::chrono::milliseconds pollInterval, QObject* parent) : QObject(parent) {
    m_pollTimer.setInterval(pollInterval);
    connect(&m_pollTimer, &QTimer::timeout, this, [this] { poll(); });
}

bool CLIStatusStore::bothConnected() const {
    return m_status && m_status->claude.isConnected() && m_status->codex.isConnected();
}

QCoro::Task<> CLIStatusStore::refresh(RelayClient* client) {
    QPointer<CLIStatusStore> self(this);
    if (!client) {
        setStatus(std::nullopt);
        co_return;
    }
    const Result<CLIStatusResponse> answer =
        co_await client->get<CLIStatusResponse>(QStringLiteral("v1/cli/status"));
    if (!self)
        co_return;
    setStatus(answer ? std::optional(answer.value()) : std::nullopt);
}

void CLIStatusStore::startPolling(RelayClient* client) {
    // The newest client always takes over: the one of an earlier sign-in may be gone since
    // (the relay's address changed, or the managed relay was restarted), and polling with
    // none would read "not connected" for ever.
    m_pollClient = client;
    if (m_pollStarted)
        return;
    m_pollStarted = true;
    poll();
    m_pollTimer.start();
}

QCoro::Task<> CLIStatusStore::poll() {
    co_await refresh(m_pollClient);
}

void CLIStatusStore::setStatus(std::optional<CLIStatusResponse> status) {
    if (m_status == status)
        return;
    m_status = std::move(status);
    emit statusChanged();
}

void CLIStatusStore::setClaudeUsage(std::optional<ClaudeUsage> usage) {
    // A failed probe never erases the last good figures.
    if (!usage || m_claudeUsage == usage)
        return;
    m_claudeUsage = std::move(usage);
    emit claudeUsageChanged();
}

void CLIStatusStore::startClaudeUsageProbing(const QString& workingDirectory) {
    if (m_usageProbeStarted)
        return;
    m_usageProbeStarted = true;
    probeClaudeUsage(workingDirectory);
}

QCoro::Task<> CLIStatusStore::probeClaudeUsage(QString workingDirectory) {
    QPointer<CLIStatusStore> self(this);
    const std::chrono::milliseconds interval = m_usageProbeInterval;
    const UsageProbe::Timeline timeline = m_usageProbeTimeline;
    while (self) {
        const std::optional<QString> text = co_await UsageProbe::captureUsageTab(workingDirectory, timeline);
        if (!self)
            co_return;
        const std::optional<ClaudeUsage> usage = text ? UsageProbe::parse(*text) : std::nullopt;
        // A probe without figures leaves the last good ones in place.
        setClaudeUsage(usage);
        emit claudeUsageProbed(usage.has_value());
        co_await QCoro::sleepFor(interval);
    }
}
