#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/terminal/CLIStatusStore.h"

#include <QObject>
#include <QPointer>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <optional>

// The first-run sheet: which of the two CLIs is missing or signed out, a way to the
// terminal drawer where they are installed and signed in, and a manual refresh. It
// installs nothing itself and does not close by itself once both are connected.
class OnboardingViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(CLIStatusStore* cli READ cli WRITE setCli NOTIFY sourcesChanged)
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY sourcesChanged)
    Q_PROPERTY(QString claudeStatus READ claudeStatus NOTIFY statusChanged)
    Q_PROPERTY(bool claudeConnected READ claudeConnected NOTIFY statusChanged)
    Q_PROPERTY(QString codexStatus READ codexStatus NOTIFY statusChanged)
    Q_PROPERTY(bool codexConnected READ codexConnected NOTIFY statusChanged)
    Q_PROPERTY(bool isRefreshing READ isRefreshing NOTIFY refreshingChanged)
    Q_PROPERTY(QString refreshLabel READ refreshLabel NOTIFY refreshingChanged)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    static inline const QString unknown = QStringLiteral("…");
    static inline const QString notInstalled = QStringLiteral("NOT INSTALLED");
    static inline const QString notConnected = QStringLiteral("NOT CONNECTED");
    static inline const QString connected = QStringLiteral("CONNECTED");

    explicit OnboardingViewModel(QObject* parent = nullptr) : QObject(parent) {}

    CLIStatusStore* cli() const { return m_cli; }
    void setCli(CLIStatusStore* cli);
    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);

    // A row's label: unknown without a status, then installed, then signed in.
    static QString statusLabel(const std::optional<CLIStatusResponse>& status,
                               CLIInfo CLIStatusResponse::*tool);
    QString claudeStatus() const { return statusLabel(status(), &CLIStatusResponse::claude); }
    QString codexStatus() const { return statusLabel(status(), &CLIStatusResponse::codex); }
    // A filled mark: the tool is installed and signed in.
    bool claudeConnected() const { return status() && status()->claude.isConnected(); }
    bool codexConnected() const { return status() && status()->codex.isConnected(); }
    bool isRefreshing() const { return m_isRefreshing; }
    QString refreshLabel() const;
    static QVariantMap labels();

    // The sheet appeared: one status read, without the refreshing state.
    Q_INVOKABLE void appear() { appearNow(); }
    QCoro::Task<> appearNow();
    // The refresh button: a status read shown as under way until it ends.
    Q_INVOKABLE void refresh() { refreshNow(); }
    QCoro::Task<> refreshNow();

signals:
    void sourcesChanged();
    void statusChanged();
    void refreshingChanged();

private:
    std::optional<CLIStatusResponse> status() const {
        return m_cli ? m_cli->status() : std::optional<CLIStatusResponse>();
    }
    RelayClient* relayClient() const { return m_auth ? m_auth->client() : nullptr; }

    QPointer<CLIStatusStore> m_cli;
    QPointer<AuthStore> m_auth;
    bool m_isRefreshing = false;
};
