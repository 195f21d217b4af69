#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/Auth/KeychainSecretStore.h"
#include "QuillmereDesktop/Auth/RelayProcessManager.h"
#include "QuillmereDesktop/agents/AgentRunStore.h"
#include "QuillmereDesktop/common/QmlSingleton.h"
#include "QuillmereDesktop/common/SettingsPreferencesStore.h"
#include "QuillmereDesktop/context/ProjectStore.h"
#include "QuillmereDesktop/queue/AppState.h"
#include "QuillmereDesktop/routing/ProviderConfigurationStore.h"
#include "QuillmereDesktop/shell/DesktopNotifier.h"
#include "QuillmereDesktop/shell/QuitOnSignal.h"
#include "QuillmereDesktop/shell/QuitSequence.h"
#include "QuillmereDesktop/shell/RootController.h"
#include "QuillmereDesktop/shell/TrayIcon.h"
#include "QuillmereDesktop/terminal/CLIStatusStore.h"
#include "QuillmereDesktop/terminal/TerminalDrawerController.h"

#include <QApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QtQml/qqmlextensionplugin.h>

#include <cstdio>
#include <memory>

Q_IMPORT_QML_PLUGIN(QuillmerePlugin)

namespace {

// For the start-up measurement: one line on standard error when the first frame of the
// signed-in home screen has been drawn.
void reportFirstHomeFrame(QQuickWindow* window, RootController& root, AppState& app) {
    if (!window)
        return;
    auto reported = std::make_shared<bool>(false);
    QObject::connect(window, &QQuickWindow::frameSwapped, window, [reported, &root, &app] {
        if (*reported || !root.signedIn() || app.screen() != AppState::Screen::home)
            return;
        *reported = true;
        std::fprintf(stderr, "quillmere: home screen drawn\n");
    });
}

} // namespace

int main(int argc, char* argv[]) {
    // Widgets only for the tray icon's menu; every screen is Qt Quick.
    QApplication application(argc, argv);
    QGuiApplication::setOrganizationName(QStringLiteral("Quillmere"));
    // Also the window's class on X11, which the launcher entry's StartupWMClass names.
    QGuiApplication::setApplicationName(QStringLiteral("Quillmere"));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Quillmere"));
    // The launcher entry's name, which Wayland compositors match the window to.
    QGuiApplication::setDesktopFileName(QStringLiteral("quillmere"));

    // The long-lived objects, made once and kept for the life of the process.
    SettingsPreferencesStore preferences;
    KeychainSecretStore secrets;
    RelayProcessManager& relay = RelayProcessManager::shared();
    // The person's own lanes reach the managed relay at each of its launches, the first
    // included, so the hook is in place before sign-in can start it.
    ProviderConfigurationStore providers(ProviderConfigurationStore::systemSupportDirectory(), secrets);
    relay.setInventoryEnvironment([&providers] { return providers.managedInventoryEnvironment(); });
    AppState app(preferences);
    AuthStore auth(preferences, secrets, &relay);
    CLIStatusStore cli(CLIStatusStore::defaultPollInterval);
    AgentRunStore agentRuns{AgentRunStoreConfig{}};
    ProjectStore projects(nullptr);
    RootController root(app, auth, cli);
    // The sign-in sequence asks for Claude's usage figures once it has a working folder.
    QObject::connect(&root, &RootController::claudeUsageProbingRequested, &cli,
                     &CLIStatusStore::startClaudeUsageProbing);

    QmlSingleton<AppState>::set(&app);
    QmlSingleton<AuthStore>::set(&auth);
    QmlSingleton<ProviderConfigurationStore>::set(&providers);
    QmlSingleton<CLIStatusStore>::set(&cli);
    QmlSingleton<AgentRunStore>::set(&agentRuns);
    QmlSingleton<ProjectStore>::set(&projects);
    QmlSingleton<RootController>::set(&root);
    // The window, once QML has made it.
    QPointer<QQuickWindow> mainWindow;
    auto raiseWindow = [&mainWindow] {
        if (!mainWindow)
            return;
        mainWindow->showNormal();
        mainWindow->raise();
        mainWindow->requestActivate();
    };
    DesktopNotifier notifier(app, preferences, DesktopNotifier::Config{{}, raiseWindow, std::nullopt});
    QmlSingleton<DesktopNotifier>::set(&notifier);

    // At quit the agents are asked to stop first; then a relay this process started ends
    // with it, while one that was already running stays. The quit waits for the relay with
    // the event loop turning, for no longer than the relay manager's grace times.
    QuitSequence quitSequence([&agentRuns] { agentRuns.terminateAll(); }, [&relay] { return relay.stop(); });
    // An exit that bypasses the quit request still asks both to stop, without waiting.
    QObject::connect(&application, &QCoreApplication::aboutToQuit, &agentRuns, &AgentRunStore::terminateAll);
    QObject::connect(&application, &QCoreApplication::aboutToQuit, &relay,
                     &RelayProcessManager::terminateOwned);

    QuitOnSignal quitOnSignal;
    QQmlApplicationEngine engine;
    // Made after the engine so that it goes first: the drawer's window and its terminals
    // belong to the engine's objects and must end before the engine does.
    TerminalDrawerController drawer(nullptr);
    QmlSingleton<TerminalDrawerController>::set(&drawer);
    root.setDrawer(&drawer);
    root.setQmlEngine(&engine);
    root.setPanelConfig(TerminalPanelViewModel::configFromPreferences(preferences));
    engine.load(QUrl(QStringLiteral("qrc:/qt/qml/Quillmere/Main.qml")));
    if (engine.rootObjects().isEmpty())
        return 1;
    mainWindow = qobject_cast<QQuickWindow*>(engine.rootObjects().first());
    TrayIcon tray(app, [&mainWindow]() -> QWindow* { return mainWindow; });
    // The icons wait for the first frame: finding the icon theme and asking the desktop for
    // its tray cost start-up time the window should not wait for.
    if (mainWindow) {
        QObject::connect(
            mainWindow, &QQuickWindow::frameSwapped, &tray,
            [&tray, &mainWindow] {
                mainWindow->setIcon(TrayIcon::icon());
                // Without a tray on this desktop the window stays the only way in.
                tray.show();
            },
            Qt::SingleShotConnection);
    }
    if (qEnvironmentVariableIsSet("QUILLMERE_STARTUP_PROBE"))
        reportFirstHomeFrame(qobject_cast<QQuickWindow*>(engine.rootObjects().first()), root, app);
    return QApplication::exec();
}
