#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/common/QmlSingleton.h"
#include "QuillmereDesktop/queue/AppState.h"
#include "QuillmereDesktop/terminal/CLIStatusStore.h"
#include "QuillmereDesktop/terminal/TerminalDrawerController.h"
#include "QuillmereDesktop/terminal/TerminalPanelViewModel.h"

#include <QObject>
#include <QPointer>
#include <QQmlEngine>
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
    Q_PROPERTY(bool showSettings READ showSettings WRITE setShowSettings NOTIFY sheetsChanged)
    // Opened from the settings sheet.
    Q_PROPERTY(bool showProviderSetup READ showProviderSetup WRITE setShowProviderSetup NOTIFY sheetsChanged)
    Q_PROPERTY(bool showGatewayAccess READ showGatewayAccess WRITE setShowGatewayAccess NOTIFY sheetsChanged)
    Q_PROPERTY(bool showContext READ showContext WRITE setShowContext NOTIFY sheetsChanged)
    Q_PROPERTY(bool showPresets READ showPresets WRITE setShowPresets NOTIFY sheetsChanged)
    Q_PROPERTY(bool showOrchestrator READ showOrchestrator WRITE setShowOrchestrator NOTIFY sheetsChanged)
    Q_PROPERTY(bool showImprove READ showImprove WRITE setShowImprove NOTIFY sheetsChanged)
    Q_PROPERTY(bool showIntegrations READ showIntegrations WRITE setShowIntegrations NOTIFY sheetsChanged)
    // Opened from the settings sheet.
    Q_PROPERTY(bool showClassifiers READ showClassifiers WRITE setShowClassifiers NOTIFY sheetsChanged)
    // The first-run sheet, shown after the first sign-in when a CLI is missing, and from settings.
    Q_PROPERTY(bool showOnboarding READ showOnboarding WRITE setShowOnboarding NOTIFY sheetsChanged)

public:
    // After the first sign-in, how long to wait before the second status check.
    static constexpr std::chrono::milliseconds defaultFirstRunCheckDelay{5000};
    // How long after a sheet opens by itself a focus move to it counts as the window
    // manager's doing rather than the person's.
    static constexpr std::chrono::milliseconds focusHandOverTime{1500};

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
    void setShowRouting(bool show) { setSheet(m_showRouting, show); }
    bool showSettings() const { return m_showSettings; }
    void setShowSettings(bool show) { setSheet(m_showSettings, show); }
    bool showProviderSetup() const { return m_showProviderSetup; }
    void setShowProviderSetup(bool show) { setSheet(m_showProviderSetup, show); }
    bool showGatewayAccess() const { return m_showGatewayAccess; }
    void setShowGatewayAccess(bool show) { setSheet(m_showGatewayAccess, show); }
    bool showContext() const { return m_showContext; }
    void setShowContext(bool show) { setSheet(m_showContext, show); }
    bool showPresets() const { return m_showPresets; }
    void setShowPresets(bool show) { setSheet(m_showPresets, show); }
    bool showOrchestrator() const { return m_showOrchestrator; }
    void setShowOrchestrator(bool show) { setSheet(m_showOrchestrator, show); }
    bool showImprove() const { return m_showImprove; }
    void setShowImprove(bool show) { setSheet(m_showImprove, show); }
    bool showIntegrations() const { return m_showIntegrations; }
    void setShowIntegrations(bool show) { setSheet(m_showIntegrations, show); }
    bool showClassifiers() const { return m_showClassifiers; }
    void setShowClassifiers(bool show) { setSheet(m_showClassifiers, show); }
    bool showOnboarding() const { return m_showOnboarding; }
    void setShowOnboarding(bool show) { setSheet(m_showOnboarding, show); }

    // Connects or drops the queue for a new sign-in state.
    void onAuthStateChanged();

    // The drawer and the engine its window is made with; set by the entry once both exist.
    void setDrawer(TerminalDrawerController* drawer) { m_drawer = drawer; }
    void setQmlEngine(QQmlEngine* engine) { m_engine = engine; }
    // Whether the first sign-in ends by showing onboarding when a CLI is missing (on by
    // default; off for tests of other screens, which the sheet would take the focus from).
    void setFirstRunOnboarding(bool enabled) { m_firstRunOnboarding = enabled; }
    // The drawer's panel settings, replaceable in tests (shorter delays).
    void setPanelConfig(TerminalPanelViewModel::Config config) { m_panelConfig = std::move(config); }

    // Opens the drawer in the present working folder (it is not toggled closed).
    Q_INVOKABLE void openTerminal();
    // Opens or closes the drawer.
    Q_INVOKABLE void toggleTerminal();
    // New terminals in the present working folder: the old ones and their sessions end.
    Q_INVOKABLE void restartTerminals();

signals:
    void signedInChanged();
    void sheetsChanged();
    // Step four of the first sign-in: the usage probe hooks in here when it exists.
    void claudeUsageProbingRequested(const QString& workingDirectory);
    // The first sign-in's second status check is done. Its last step, showing onboarding when
    // either tool is not connected, hooks in here once the onboarding screen exists.
    void firstRunChecked();

private:
    void setSheet(bool& flag, bool show);
    // Hands the focus back to `window` when a sheet that opened by itself takes it.
    void keepFocusIn(QPointer<QWindow> window);
    QCoro::Task<> firstSignIn(RelayClient* client);
    void startPollingAndProbing(RelayClient* client);
    // Makes the drawer's window with its panel, from what is known now.
    QWindow* buildDrawerContent();

    AppState* m_app;
    AuthStore* m_auth;
    CLIStatusStore* m_cli;
    std::chrono::milliseconds m_firstRunCheckDelay;
    QPointer<TerminalDrawerController> m_drawer;
    QPointer<QQmlEngine> m_engine;
    TerminalPanelViewModel::Config m_panelConfig;
    bool m_hasAutoOpenedTerminal = false;
    bool m_wasSignedIn = false;
    // Sign-out leaves a sheet's flag as it was.
    bool m_showRouting = false;
    bool m_showSettings = false;
    bool m_showProviderSetup = false;
    bool m_showGatewayAccess = false;
    bool m_showContext = false;
    bool m_showPresets = false;
    bool m_showOrchestrator = false;
    bool m_showImprove = false;
    bool m_showIntegrations = false;
    bool m_showClassifiers = false;
    bool m_showOnboarding = false;
    bool m_firstRunOnboarding = true;
};
