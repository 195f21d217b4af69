#pragma once

// The real application's window, loaded offscreen around stores that a test controls:
// in-memory preferences, an in-memory secret store, and a relay of the test's choosing.

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/agents/AgentRunStore.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/context/ProjectStore.h"
#include "QuillmereDesktop/queue/AppState.h"
#include "QuillmereDesktop/routing/ProviderConfigurationStore.h"
#include "QuillmereDesktop/shell/DesktopNotifier.h"
#include "QuillmereDesktop/shell/RootController.h"
#include "QuillmereDesktop/terminal/CLIStatusStore.h"
#include "QuillmereDesktop/terminal/TerminalDrawerController.h"
#include "fakes/FakeSecretStore.h"

#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>

#include <chrono>
#include <functional>
#include <memory>

class AppHarness {
public:
    struct Options {
        QUrl relayURL;
        bool demoMode = false;
        // The onboarding sheet after the first sign-in; off unless a test is about it.
        bool onboarding = false;
        // How long after the first sign-in the onboarding check runs.
        std::chrono::milliseconds firstRunCheckDelay{10};
    };

    explicit AppHarness(Options options);
    ~AppHarness();

    // Loads the window and runs sign-in; false if QML failed to load.
    bool load();

    QQuickWindow* window() const { return m_window; }
    AppState& app() { return *m_app; }
    AuthStore& auth() { return *m_auth; }
    CLIStatusStore& cli() { return *m_cli; }
    RootController& root() { return *m_root; }
    TerminalDrawerController& drawer() { return *m_drawer; }
    ProviderConfigurationStore& providers() { return *m_providers; }
    FakeSecretStore& secrets() { return m_secrets; }
    ProjectStore& projects() { return *m_projects; }
    DesktopNotifier& notifier() { return *m_notifier; }

    // Visible text items whose text is exactly this, anywhere in the window.
    QList<QQuickItem*> visibleTexts(const QString& text) const;
    bool showsText(const QString& text) const { return !visibleTexts(text).isEmpty(); }
    // Visible texts in the order they stand on screen, top to bottom.
    QStringList visibleTextsInOrder() const;
    // Clicks the centre of the first visible text with this text; false if there is none.
    bool click(const QString& text);
    // Clicks a text until the condition holds, for screens still settling their layout.
    bool clickUntil(const QString& text, const std::function<bool()>& condition);
    // Writes a picture of the window to the build folder's screenshots/NAME.png.
    QString screenshot(const QString& name) const;
    // The same for another window (the drawer).
    static QString screenshot(QQuickWindow* window, const QString& name);

    // An item by its object name in the visual tree below `item` (a loaded screen's items
    // are not the loader's QObject children), or null.
    static QQuickItem* findItem(QQuickItem* item, const QString& name);
    static QQuickItem* inSheet(QQuickWindow* sheet, const char* name) {
        return findItem(sheet->contentItem(), QString::fromLatin1(name));
    }
    // A sheet (a window of its own) by its object name, or null.
    QQuickWindow* sheet(const QString& objectName) const;
    // The visible texts of any window, top to bottom, and a picture of it.
    static QStringList textsIn(QQuickWindow* window);
    static QString screenshotOf(QQuickWindow* window, const QString& name);

private:
    Options m_options;
    QTemporaryDir m_home;
    MemoryPreferencesStore m_prefs;
    FakeSecretStore m_secrets;
    std::unique_ptr<AppState> m_app;
    std::unique_ptr<AuthStore> m_auth;
    std::unique_ptr<CLIStatusStore> m_cli;
    std::unique_ptr<RootController> m_root;
    std::unique_ptr<ProviderConfigurationStore> m_providers;
    std::unique_ptr<ProjectStore> m_projects;
    std::unique_ptr<AgentRunStore> m_runs;
    std::unique_ptr<DesktopNotifier> m_notifier;
    std::unique_ptr<QQmlApplicationEngine> m_engine;
    // After the engine: the drawer's window is made by it and must go first.
    std::unique_ptr<TerminalDrawerController> m_drawer;
    QQuickWindow* m_window = nullptr;
};
