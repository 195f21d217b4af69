#include "QuillmereDesktop/shell/RootController.h"

#include <qcoro/qcorotimer.h>

RootController::RootController(AppState& app, AuthStore& auth, CLIStatusStore& cli,
                               std::chrono::milliseconds firstRunCheckDelay, QObject* parent)
    : QObject(parent), m_app(&app), m_auth(&auth), m_cli(&cli), m_firstRunCheckDelay(firstRunCheckDelay) {
    connect(m_auth, &AuthStore::stateChanged, this, &RootController::onAuthStateChanged);
}

void RootController::setShowRouting(bool show) {
    if (m_showRouting == show)
        return;
    m_showRouting = show;
    emit sheetsChanged();
}

void RootController::onAuthStateChanged() {
    const bool isSignedIn = signedIn();
    if (isSignedIn != m_wasSignedIn) {
        m_wasSignedIn = isSignedIn;
        emit signedInChanged();
    }
    if (!isSignedIn) {
        // Polling goes on; it simply fails while no one is signed in.
        m_app->disconnectQueue();
        return;
    }
    m_app->connectToRelay(m_auth->client());
    if (!m_hasAutoOpenedTerminal) {
        m_hasAutoOpenedTerminal = true;
        firstSignIn(m_auth->client());
    } else {
        m_cli->startPolling(m_auth->client());
    }
}

QCoro::Task<> RootController::firstSignIn(RelayClient* client) {
    QPointer<RootController> self(this);
    QPointer<RelayClient> guardedClient(client);
    co_await m_cli->refresh(guardedClient.data());
    if (!self)
        co_return;
    m_cli->startPolling(guardedClient.data());
    co_await QCoro::sleepFor(m_firstRunCheckDelay);
    if (!self)
        co_return;
    co_await m_cli->refresh(guardedClient.data());
    if (self)
        emit self->firstRunChecked();
}
