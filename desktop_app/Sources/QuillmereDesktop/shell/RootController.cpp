#include "QuillmereDesktop/shell/RootController.h"

#include <QGuiApplication>
#include <QQmlComponent>
#include <QQuickWindow>
#include <QTimer>
#include <QWindow>
#include <qcoro/qcorotimer.h>

#include <memory>

RootController::RootController(AppState& app, AuthStore& auth, CLIStatusStore& cli,
                               std::chrono::milliseconds firstRunCheckDelay, QObject* parent)
    : QObject(parent), m_app(&app), m_auth(&auth), m_cli(&cli), m_firstRunCheckDelay(firstRunCheckDelay) {
    connect(m_auth, &AuthStore::stateChanged, this, &RootController::onAuthStateChanged);
    // Polls go on with whichever client the person's session now lives in.
    connect(m_auth, &AuthStore::clientChanged, this, [this] {
        if (m_cli->isPolling())
            m_cli->startPolling(m_auth->client());
    });
    // The last step of the first sign-in: a person without both CLIs is shown the way to them.
    connect(this, &RootController::firstRunChecked, this, [this] {
        if (!m_firstRunOnboarding || m_cli->bothConnected())
            return;
        // The sheet comes by itself, while the person may be typing in a terminal: it shows
        // above, but the keys go on where they went until the person turns to it.
        QPointer<QWindow> typingIn = QGuiApplication::focusWindow();
        setShowOnboarding(true);
        if (typingIn)
            keepFocusIn(typingIn);
    });
}

void RootController::keepFocusIn(QPointer<QWindow> window) {
    auto* watch = new QObject(this);
    auto sheet = std::make_shared<QPointer<QWindow>>();
    // The window manager hands the new sheet the focus a moment after it maps; only that
    // first move is undone, so a later click into the sheet is the person's own.
    connect(qGuiApp, &QGuiApplication::focusWindowChanged, watch, [watch, window, sheet](QWindow* now) {
        if (!now || !window)
            return;
        if (now != window && !*sheet) {
            *sheet = now;
            if (window->isVisible())
                window->requestActivate();
            return;
        }
        // Activating the window raised it over the sheet: the sheet comes back up, unfocused.
        if (now == window && *sheet) {
            (*sheet)->raise();
            watch->deleteLater();
        }
    });
    QTimer::singleShot(focusHandOverTime, watch, [watch] { watch->deleteLater(); });
}

void RootController::setSheet(bool& flag, bool show) {
    if (flag == show)
        return;
    flag = show;
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
        // Later sign-ins only start what may have stopped; the drawer stays as it was.
        startPollingAndProbing(m_auth->client());
    }
}

void RootController::startPollingAndProbing(RelayClient* client) {
    m_cli->startPolling(client);
    emit claudeUsageProbingRequested(m_app->terminalWorkingDirectory());
}

QCoro::Task<> RootController::firstSignIn(RelayClient* client) {
    QPointer<RootController> self(this);
    QPointer<RelayClient> guardedClient(client);
    // The status first, so that the drawer opens knowing which tools need installing.
    co_await m_cli->refresh(guardedClient.data());
    if (!self)
        co_return;
    openTerminal();
    startPollingAndProbing(guardedClient.data());
    co_await QCoro::sleepFor(m_firstRunCheckDelay);
    if (!self)
        co_return;
    co_await m_cli->refresh(guardedClient.data());
    if (self)
        emit self->firstRunChecked();
}

void RootController::openTerminal() {
    if (!m_drawer)
        return;
    m_drawer->setSessionDirectory(m_app->terminalWorkingDirectory());
    if (!m_drawer->isOpen())
        m_drawer->open([this] { return buildDrawerContent(); });
}

void RootController::toggleTerminal() {
    if (!m_drawer)
        return;
    m_drawer->setSessionDirectory(m_app->terminalWorkingDirectory());
    m_drawer->toggle([this] { return buildDrawerContent(); });
}

void RootController::restartTerminals() {
    if (!m_drawer)
        return;
    m_drawer->discardSessions();
    openTerminal();
}

QWindow* RootController::buildDrawerContent() {
    if (!m_engine)
        return nullptr;
    // The client as it is at this moment: the pipelines keep it for their sessions' lives.
    auto* panel = new TerminalPanelViewModel(m_auth->client(), m_cli->status(),
                                             m_app->terminalWorkingDirectory(), m_panelConfig);
    QQmlComponent component(m_engine, QUrl(QStringLiteral("qrc:/qt/qml/Quillmere/TerminalPanelWindow.qml")));
    QObject* made =
        component.createWithInitialProperties({{QStringLiteral("panel"), QVariant::fromValue(panel)}});
    auto* window = qobject_cast<QQuickWindow*>(made);
    if (!window) {
        qWarning("drawer: %s", qPrintable(component.errorString()));
        delete made;
        delete panel;
        return nullptr;
    }
    QQmlEngine::setObjectOwnership(window, QQmlEngine::CppOwnership);
    // The panel goes with its window, after the terminals that record through it.
    panel->setParent(window);
    connect(panel, &TerminalPanelViewModel::closeRequested, m_drawer, &TerminalDrawerController::close);
    return window;
}
