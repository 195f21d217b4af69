#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/common/QmlSingleton.h"
#include "QuillmereDesktop/queue/AppState.h"
#include "QuillmereDesktop/terminal/CLIStatusStore.h"

#include <QObject>
#include <QPointer>
#include <QtQml/qqmlregistration.h>

#include <chrono>

// What the root view decides: sign-in or the application, the queue's connection as the
// sign-in state changes, and the first-sign-in sequence of status checks.
class RootController : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(bool signedIn READ signedIn NOTIFY signedInChanged)
    Q_PROPERTY(QString wordmark READ wordmark CONSTANT)
    // The sheets: each is a window of its own, open while its flag is set.
    Q_PROPERTY(bool showRouting READ showRouting WRITE setShowRouting NOTIFY sheetsChanged)

public:
    // After the first sign-in, how long to wait before the second status check.
    static constexpr std::chrono::milliseconds defaultFirstRunCheckDelay{5000};

    static QString wordmark() { return QStringLiteral("quillmere"); }

    RootController(AppState& app, AuthStore& auth, CLIStatusStore& cli,
                   std::chrono::milliseconds firstRunCheckDelay = defaultFirstRunCheckDelay,
                   QObject* parent = nullptr);

    static RootController* create(QQmlEngine* qml, QJSEngine* js) {
        return QmlSingleton<RootController>::create(qml, js);
    }

    bool signedIn() const { return m_auth->state() == AuthStore::State::signedIn; }
    bool hasAutoOpenedTerminal() const { return m_hasAutoOpenedTerminal; }

    bool showRouting() const { return m_showRouting; }
    void setShowRouting(bool show);

    // Connects or drops the queue for a new sign-in state.
    void onAuthStateChanged();

signals:
    void signedInChanged();
    void sheetsChanged();
    // The first sign-in's second status check is done (the first-run screen hooks in here).
    void firstRunChecked();

private:
    QCoro::Task<> firstSignIn(RelayClient* client);

    AppState* m_app;
    AuthStore* m_auth;
    CLIStatusStore* m_cli;
    std::chrono::milliseconds m_firstRunCheckDelay;
    bool m_hasAutoOpenedTerminal = false;
    bool m_wasSignedIn = false;
    // Sign-out leaves a sheet's flag as it was.
    bool m_showRouting = false;
};
