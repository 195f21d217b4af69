#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/context/IntegrationRecords.h"

#include <QObject>
#include <QPointer>
#include <QVariantList>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <chrono>
#include <map>
#include <optional>

// Connected apps and insights: which outside apps the relay can connect through Composio,
// starting a connection in the person's browser, and the relay's summary of the account.
// The two failure texts are fixed on purpose: the details of a failure are not shown.
class IntegrationsViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY authChanged)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)
    Q_PROPERTY(bool configured READ configured NOTIFY changed)
    Q_PROPERTY(QVariantList toolkitRows READ toolkitRows NOTIFY changed)
    Q_PROPERTY(bool hasInsights READ hasInsights NOTIFY changed)
    Q_PROPERTY(QVariantMap insightsCard READ insightsCard NOTIFY changed)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY changed)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY changed)

public:
    // After opening the connect link, one fixed wait before looking at the connections
    // again: the browser flow usually takes longer, and the next load shows the outcome.
    static constexpr std::chrono::milliseconds defaultConnectRecheckDelay{4000};
    static inline const QString loadFailedMessage = QStringLiteral("Could not load integrations. Try again.");
    static inline const QString connectFailedMessage =
        QStringLiteral("Could not connect this app. Try again.");

    explicit IntegrationsViewModel(QObject* parent = nullptr);

    static QVariantMap labels();
    // The connect button of a toolkit: its label and whether it can be pressed.
    static QVariantMap connectButton(const std::optional<QString>& status, bool connecting);
    // Spend in dollars with four decimals.
    static QString spendText(double usd);
    // Toolkit slug to status; with several connections of one toolkit, the first wins.
    static std::map<QString, QString> statusesOf(const QList<ComposioConnection>& connections);

    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);
    void setConnectRecheckDelay(std::chrono::milliseconds delay) { m_connectRecheckDelay = delay; }

    bool configured() const { return m_configured; }
    const QList<ComposioToolkit>& toolkits() const { return m_toolkits; }
    const std::map<QString, QString>& connections() const { return m_connections; }
    const std::optional<Insights>& insights() const { return m_insights; }
    const std::optional<QString>& connectingToolkit() const { return m_connectingToolkit; }
    QVariantList toolkitRows() const;
    bool hasInsights() const { return m_insights.has_value(); }
    QVariantMap insightsCard() const;
    bool isLoading() const { return m_isLoading; }
    QString errorText() const { return m_errorMessage.value_or(QString()); }

    Q_INVOKABLE void load();
    Q_INVOKABLE void connectToolkit(const QString& slug);
    QCoro::Task<> loadNow();
    QCoro::Task<> connectNow(QString slug);

signals:
    void authChanged();
    void changed();

private:
    RelayClient* client() const { return m_auth ? m_auth->client() : nullptr; }
    void finishLoad(std::optional<QString> error);

    QPointer<AuthStore> m_auth;
    std::chrono::milliseconds m_connectRecheckDelay = defaultConnectRecheckDelay;
    bool m_configured = false;
    QList<ComposioToolkit> m_toolkits;
    std::map<QString, QString> m_connections;
    std::optional<Insights> m_insights;
    bool m_isLoading = false;
    std::optional<QString> m_connectingToolkit;
    std::optional<QString> m_errorMessage;
};
