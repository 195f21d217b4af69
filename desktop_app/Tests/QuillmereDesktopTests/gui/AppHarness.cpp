#include "gui/AppHarness.h"

#include "QuillmereDesktop/common/QmlSingleton.h"

#include <QDir>
#include <QQuickItem>
#include <QTest>
#include <QtQml/qqmlextensionplugin.h>

#include <algorithm>

Q_IMPORT_QML_PLUGIN(QuillmerePlugin)

AppHarness::AppHarness(Options options) : m_options(std::move(options)) {
    // The drawer's shells run a test shell whose PATH has stand-ins for the agents and their
    // installers: signing in opens the drawer, and its auto-run lines must not reach the network.
    qputenv("SHELL", QUILLMERE_TEST_SHELL);
    m_prefs.setBool(AppState::standaloneResetKey, true);
    m_prefs.setBool(AppState::useMockKey, m_options.demoMode);
    m_prefs.setString(AuthStore::relayURLKey, m_options.relayURL.toString());
    AppStateConfig appConfig;
    appConfig.homeDirectory = m_home.path();
    appConfig.toastDuration = std::chrono::milliseconds(800);
    m_app = std::make_unique<AppState>(m_prefs, appConfig);
    AuthStoreConfig authConfig;
    authConfig.bootstrapOnStart = false;
    m_auth = std::make_unique<AuthStore>(m_prefs, m_secrets, nullptr, authConfig);
    m_cli = std::make_unique<CLIStatusStore>(CLIStatusStore::defaultPollInterval);
    m_root = std::make_unique<RootController>(*m_app, *m_auth, *m_cli, m_options.firstRunCheckDelay);
    m_root->setFirstRunOnboarding(m_options.onboarding);
    QmlSingleton<AppState>::set(m_app.get());
    QmlSingleton<AuthStore>::set(m_auth.get());
    QmlSingleton<CLIStatusStore>::set(m_cli.get());
    QmlSingleton<RootController>::set(m_root.get());
    // The inventory file in the test's own home, its keys in the in-memory secret store.
    m_providers = std::make_unique<ProviderConfigurationStore>(
        QDir(m_home.path()).filePath(QStringLiteral("data/Quillmere")), m_secrets);
    QmlSingleton<ProviderConfigurationStore>::set(m_providers.get());
    m_projects = std::make_unique<ProjectStore>(nullptr);
    QmlSingleton<ProjectStore>::set(m_projects.get());
    m_runs = std::make_unique<AgentRunStore>(AgentRunStoreConfig{});
    QmlSingleton<AgentRunStore>::set(m_runs.get());
    // The window counts as looked at: the notifications have their own test, on a bus of its own.
    m_notifier = std::make_unique<DesktopNotifier>(
        *m_app, m_prefs, DesktopNotifier::Config{[] { return true; }, {}, std::nullopt});
    QmlSingleton<DesktopNotifier>::set(m_notifier.get());
}

AppHarness::~AppHarness() {
    m_drawer.reset();
    m_engine.reset();
}

bool AppHarness::load() {
    m_engine = std::make_unique<QQmlApplicationEngine>();
    m_drawer = std::make_unique<TerminalDrawerController>(nullptr);
    QmlSingleton<TerminalDrawerController>::set(m_drawer.get());
    m_root->setDrawer(m_drawer.get());
    m_root->setQmlEngine(m_engine.get());
    m_engine->load(QUrl(QStringLiteral("qrc:/qt/qml/Quillmere/Main.qml")));
    if (m_engine->rootObjects().isEmpty())
        return false;
    m_window = qobject_cast<QQuickWindow*>(m_engine->rootObjects().first());
    if (!m_window)
        return false;
    m_auth->start();
    return QTest::qWaitForWindowExposed(m_window);
}

namespace {

bool isShown(QQuickItem* item) {
    for (QQuickItem* i = item; i; i = i->parentItem())
        if (!i->isVisible() || i->opacity() == 0.0)
            return false;
    return true;
}

void collectTexts(QQuickItem* item, QList<QQuickItem*>& out) {
    if (!item)
        return;
    // Labels, and read-only text that a person can select and copy.
    if (item->inherits("QQuickText") || item->inherits("QQuickTextEdit"))
        out << item;
    const auto children = item->childItems();
    for (QQuickItem* child : children)
        collectTexts(child, out);
}

} // namespace

QList<QQuickItem*> AppHarness::visibleTexts(const QString& text) const {
    QList<QQuickItem*> all;
    collectTexts(m_window ? m_window->contentItem() : nullptr, all);
    QList<QQuickItem*> matching;
    for (QQuickItem* item : all)
        if (item->property("text").toString() == text && isShown(item))
            matching << item;
    return matching;
}

QStringList AppHarness::visibleTextsInOrder() const {
    QList<QQuickItem*> all;
    collectTexts(m_window ? m_window->contentItem() : nullptr, all);
    all.erase(std::remove_if(all.begin(), all.end(), [](QQuickItem* i) { return !isShown(i); }), all.end());
    std::stable_sort(all.begin(), all.end(), [](QQuickItem* a, QQuickItem* b) {
        return a->mapToScene(QPointF(0, 0)).y() < b->mapToScene(QPointF(0, 0)).y();
    });
    QStringList texts;
    for (QQuickItem* item : all)
        texts << item->property("text").toString();
    return texts;
}

namespace {

// Scrolls the nearest enclosing flickable until the item is inside the window.
void scrollIntoView(QQuickItem* item, QQuickWindow* window) {
    for (QQuickItem* ancestor = item->parentItem(); ancestor; ancestor = ancestor->parentItem()) {
        if (!ancestor->inherits("QQuickFlickable"))
            continue;
        const qreal itemTop = item->mapToItem(ancestor, QPointF(0, 0)).y();
        const qreal contentY = ancestor->property("contentY").toReal();
        const qreal visibleHeight = std::min<qreal>(ancestor->height(), window->height());
        if (itemTop < 0 || itemTop + item->height() > visibleHeight)
            ancestor->setProperty("contentY", contentY + itemTop - visibleHeight / 2);
        return;
    }
}

} // namespace

bool AppHarness::click(const QString& text) {
    const auto items = visibleTexts(text);
    if (items.isEmpty())
        return false;
    QQuickItem* item = items.first();
    scrollIntoView(item, m_window);
    const QPointF centre = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
    QTest::mouseClick(m_window, Qt::LeftButton, Qt::NoModifier, centre.toPoint());
    return true;
}

bool AppHarness::clickUntil(const QString& text, const std::function<bool()>& condition) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (click(text) && QTest::qWaitFor(condition, 1000))
            return true;
        QTest::qWait(50);
    }
    return false;
}

QString AppHarness::screenshot(const QString& name) const {
    return screenshot(m_window, name);
}

QString AppHarness::screenshot(QQuickWindow* window, const QString& name) {
    const QString folder = QDir::current().filePath(QStringLiteral("screenshots"));
    QDir().mkpath(folder);
    const QString path = QDir(folder).filePath(name + QStringLiteral(".png"));
    window->grabWindow().save(path);
    return path;
}

QQuickItem* AppHarness::findItem(QQuickItem* item, const QString& name) {
    if (!item)
        return nullptr;
    if (item->objectName() == name)
        return item;
    const auto children = item->childItems();
    for (QQuickItem* child : children)
        if (QQuickItem* found = findItem(child, name))
            return found;
    return nullptr;
}

QQuickWindow* AppHarness::sheet(const QString& objectName) const {
    return m_window ? m_window->findChild<QQuickWindow*>(objectName) : nullptr;
}

QStringList AppHarness::textsIn(QQuickWindow* window) {
    QList<QQuickItem*> all;
    collectTexts(window ? window->contentItem() : nullptr, all);
    QStringList texts;
    for (QQuickItem* item : all)
        if (isShown(item))
            texts << item->property("text").toString();
    return texts;
}

QString AppHarness::screenshotOf(QQuickWindow* window, const QString& name) {
    const QString folder = QDir::current().filePath(QStringLiteral("screenshots"));
    QDir().mkpath(folder);
    const QString path = QDir(folder).filePath(name + QStringLiteral(".png"));
    window->grabWindow().save(path);
    return path;
}
