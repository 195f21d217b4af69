#pragma once

#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/common/QmlSingleton.h"
#include "QuillmereDesktop/terminal/CLIStatus.h"
#include "QuillmereDesktop/terminal/UsageProbe.h"

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QtQml/qqmlregistration.h>

#include <chrono>
#include <optional>

// The application's view of the two local agents: installed, signed in, and today's use.
// The relay inspects the machine; this store only asks it, every 20 seconds once started.
class CLIStatusStore : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON

public:
    // QML sees the one instance the application made.
    static CLIStatusStore* create(QQmlEngine* qml, QJSEngine* js) {
        return QmlSingleton<CLIStatusStore>::create(qml, js);
    }

    static constexpr std::chrono::milliseconds defaultPollInterval{20000};
    static constexpr std::chrono::milliseconds defaultUsageProbeInterval{300000};

    // No default interval: a default-constructible store would let QML build its own.
    explicit CLIStatusStore(std::chrono::milliseconds pollInterval, QObject* parent = nullptr);

    const std::optional<CLIStatusResponse>& status() const { return m_status; }
    const std::optional<ClaudeUsage>& claudeUsage() const { return m_claudeUsage; }
    bool isPolling() const { return m_pollTimer.isActive(); }

    // Both tools are known to be installed and signed in.
    bool bothConnected() const;

    // Asks once. Any failure leaves the status absent: there is no error text and no retry.
    QCoro::Task<> refresh(RelayClient* client);
    // Starts the repeating poll with this client; a second call does nothing.
    void startPolling(RelayClient* client);

    void setClaudeUsage(std::optional<ClaudeUsage> usage);

    // Keeps Claude's figures current: a probe at once and then one every interval, in the
    // folder given at the first call (a later change of folder does not reach it). A second
    // call does nothing; the probing lasts as long as the store.
    void startClaudeUsageProbing(const QString& workingDirectory);
    bool isProbingClaudeUsage() const { return m_usageProbeStarted; }
    // The probe's rhythm and timeline, replaceable in tests before the probing starts.
    void setUsageProbing(std::chrono::milliseconds interval, UsageProbe::Timeline timeline) {
        m_usageProbeInterval = interval;
        m_usageProbeTimeline = timeline;
    }

signals:
    void statusChanged();
    void claudeUsageChanged();
    // A probe ended, with or without figures.
    void claudeUsageProbed(bool gotFigures);

private:
    void setStatus(std::optional<CLIStatusResponse> status);
    QCoro::Task<> poll();
    QCoro::Task<> probeClaudeUsage(QString workingDirectory);

    std::optional<CLIStatusResponse> m_status;
    std::optional<ClaudeUsage> m_claudeUsage;
    QPointer<RelayClient> m_pollClient;
    QTimer m_pollTimer;
    bool m_pollStarted = false;
    bool m_usageProbeStarted = false;
    std::chrono::milliseconds m_usageProbeInterval = defaultUsageProbeInterval;
    UsageProbe::Timeline m_usageProbeTimeline;
};
