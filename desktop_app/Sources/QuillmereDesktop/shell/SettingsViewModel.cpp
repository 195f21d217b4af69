#include "QuillmereDesktop/shell/SettingsViewModel.h"

#include "QuillmereDesktop/routing/ProviderConfigurationStore.h"

#include <QDesktopServices>
#include <QDir>

#include <iterator>

namespace {
const QString improveSettingsPath = QStringLiteral("v1/improve/settings");
}

SettingsViewModel::SettingsViewModel(QObject* parent)
    : QObject(parent), m_configurationFolder(ProviderConfigurationStore::systemSupportDirectory()),
      m_openFolder([](const QUrl& url) { return QDesktopServices::openUrl(url); }) {}

void SettingsViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit sourcesChanged();
}

void SettingsViewModel::setApp(AppState* app) {
    if (m_app == app)
        return;
    if (m_app)
        disconnect(m_app, nullptr, this, nullptr);
    m_app = app;
    if (m_app)
        connect(m_app, &AppState::useMockChanged, this, &SettingsViewModel::sourcesChanged);
    emit sourcesChanged();
}

bool SettingsViewModel::showsHostedRelayFields() const {
    // In demo mode there is no relay to point anywhere.
    return m_app && !m_app->useMock();
}

int SettingsViewModel::improveCadenceIndex() const {
    if (!m_improve)
        return -1;
    for (int index = 0; index < int(std::size(cadenceHours)); ++index)
        if (cadenceHours[index] == m_improve->cadence_hours)
            return index;
    return -1;
}

QStringList SettingsViewModel::cadenceChoices() {
    return {QStringLiteral("every hour"), QStringLiteral("every 6 hours"), QStringLiteral("every 12 hours"),
            QStringLiteral("once a day")};
}

QVariantMap SettingsViewModel::labels() {
    return {
        {QStringLiteral("sheet"), QStringLiteral("settings")},
        {QStringLiteral("relaySection"), QStringLiteral("relay")},
        {QStringLiteral("relayPlaceholder"), loopbackRelayURL},
        {QStringLiteral("relayNote"),
         QStringLiteral("The default local relay starts and stops with Quillmere. Provider keys and model "
                        "inventory can live in:")},
        {QStringLiteral("relayEnv"), QStringLiteral("relay.env")},
        {QStringLiteral("openFolder"), QStringLiteral("Open Configuration Folder")},
        {QStringLiteral("relayEnvNote"),
         QStringLiteral("Name the file relay.env and restart Quillmere after changes. "
                        "Secrets stay outside the app bundle.")},
        {QStringLiteral("providers"), QStringLiteral("Configure API Providers…")},
        {QStringLiteral("gatewayKeys"), QStringLiteral("Manage Gateway API Keys…")},
        {QStringLiteral("presets"), QStringLiteral("Manage Agent Presets…")},
        {QStringLiteral("queueSection"), QStringLiteral("interrupt queue")},
        {QStringLiteral("demo"), QStringLiteral("Use demo queue data")},
        {QStringLiteral("hostedNote"),
         QStringLiteral("Uses the authenticated relay above by default. These fields "
                        "allow a compatible hosted relay.")},
        {QStringLiteral("baseURL"), QStringLiteral("snapshot base url")},
        {QStringLiteral("baseURLPlaceholder"), hostedRelayExample},
        {QStringLiteral("token"), QStringLiteral("token")},
        {QStringLiteral("tokenPlaceholder"), QStringLiteral("bearer token")},
        {QStringLiteral("reconnect"), QStringLiteral("Reconnect")},
        {QStringLiteral("windowSection"), QStringLiteral("window")},
        {QStringLiteral("alwaysOnTop"), QStringLiteral("Always on top")},
        {QStringLiteral("improveSection"), QStringLiteral("improve loop")},
        {QStringLiteral("improveNote"),
         QStringLiteral(
             "Off by default. The scan is local and deterministic — it counts where you corrected or "
             "steered an agent and clusters what you repeated. Nothing is written to a file without "
             "you seeing the exact diff first.")},
        {QStringLiteral("improveAutomatic"), QStringLiteral("Read new transcript automatically")},
        {QStringLiteral("connectCLIs"), QStringLiteral("Connect CLIs")},
        {QStringLiteral("workingDirectory"), QStringLiteral("terminal working directory")},
        {QStringLiteral("workingDirectoryPlaceholder"), QStringLiteral("~/Quillmere")},
        {QStringLiteral("chooseFolder"), QStringLiteral("Choose Folder…")},
        {QStringLiteral("workingDirectoryNote"),
         QStringLiteral(
             "Where the terminal drawer's shells start, so Claude Code/Codex aren't trusted with your "
             "whole home folder by default.")},
        {QStringLiteral("signOut"), QStringLiteral("Sign out")},
    };
}

QCoro::Task<> SettingsViewModel::loadImproveNow() {
    QPointer<SettingsViewModel> self(this);
    RelayClient* client = relayClient();
    if (!client) {
        m_improveError = QStringLiteral("not signed in");
        emit improveChanged();
        co_return;
    }
    const Result<ImproveSettings> answer = co_await client->get<ImproveSettings>(improveSettingsPath);
    if (!self)
        co_return;
    if (answer)
        m_improve = answer.value();
    else
        m_improveError = answer.error().message;
    emit improveChanged();
}

void SettingsViewModel::setImproveCadenceIndex(int index) {
    if (index < 0 || index >= int(std::size(cadenceHours)) || index == improveCadenceIndex())
        return;
    setImprove(std::nullopt, cadenceHours[index]);
}

QCoro::Task<> SettingsViewModel::setImproveNow(std::optional<bool> automatic,
                                               std::optional<qint64> cadenceHours) {
    QPointer<SettingsViewModel> self(this);
    RelayClient* client = relayClient();
    if (m_improveBusy || !client)
        co_return;
    m_improveBusy = true;
    m_improveError.reset();
    emit improveChanged();
    const Result<ImproveSettings> answer = co_await client->post<ImproveSettings>(
        improveSettingsPath, ImproveSettingsChange{automatic, cadenceHours});
    if (!self)
        co_return;
    if (answer)
        m_improve = answer.value();
    else
        m_improveError = answer.error().message;
    m_improveBusy = false;
    emit improveChanged();
}

bool SettingsViewModel::openConfigurationFolder() {
    // A file manager cannot show a folder that is not there yet.
    (void)QDir().mkpath(m_configurationFolder);
    return m_openFolder(QUrl::fromLocalFile(m_configurationFolder));
}

void SettingsViewModel::applyChosenFolder(const QUrl& folder) {
    if (!m_app || folder.isEmpty() || !folder.isLocalFile())
        return;
    m_app->setTerminalWorkingDirectory(QDir::cleanPath(folder.toLocalFile()));
}

void SettingsViewModel::reconnect() {
    if (m_app)
        m_app->connect();
}

void SettingsViewModel::signOut() {
    if (m_auth)
        m_auth->signOut();
    emit dismissRequested();
}
