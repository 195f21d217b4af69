#include "QuillmereDesktop/shell/HomeViewModel.h"

#include "QuillmereDesktop/shell/Formatting.h"

HomeViewModel::HomeViewModel(QObject* parent) : QObject(parent) {}

void HomeViewModel::setApp(AppState* app) {
    if (m_app == app)
        return;
    if (m_app)
        m_app->disconnect(this);
    m_app = app;
    if (m_app)
        connect(m_app, &AppState::snapshotChanged, this, &HomeViewModel::changed);
    emit sourcesChanged();
    emit changed();
}

void HomeViewModel::setCli(CLIStatusStore* cli) {
    if (m_cli == cli)
        return;
    if (m_cli)
        m_cli->disconnect(this);
    m_cli = cli;
    if (m_cli) {
        connect(m_cli, &CLIStatusStore::statusChanged, this, &HomeViewModel::changed);
        connect(m_cli, &CLIStatusStore::claudeUsageChanged, this, &HomeViewModel::changed);
    }
    emit sourcesChanged();
    emit changed();
}

int HomeViewModel::running() const {
    return m_app ? m_app->snapshot().running : 0;
}

int HomeViewModel::done() const {
    return m_app ? m_app->snapshot().done : 0;
}

bool HomeViewModel::hasInterrupts() const {
    return m_app && !m_app->snapshot().interrupts.isEmpty();
}

QString HomeViewModel::needInputText() const {
    return QStringLiteral("%1 need input").arg(m_app ? m_app->snapshot().interrupts.size() : 0);
}

QStringList HomeViewModel::rows() const {
    if (!m_app)
        return {};
    const Snapshot& s = m_app->snapshot();
    return rows(s.count(InterruptKind::approval), s.count(InterruptKind::question),
                s.count(InterruptKind::choice));
}

QStringList HomeViewModel::rows(int approvals, int questions, int choices) {
    QStringList lines;
    if (questions >= 1)
        lines << formatting::counted(questions, QStringLiteral("question"));
    if (approvals >= 1)
        lines << formatting::counted(approvals, QStringLiteral("approval"));
    if (choices >= 1)
        lines << formatting::counted(choices, QStringLiteral("choice"));
    return lines;
}

bool HomeViewModel::showsSuggestions() const {
    return m_app && m_app->snapshot().openSuggestions.value_or(0) >= 1;
}

QString HomeViewModel::suggestionText() const {
    if (!showsSuggestions())
        return {};
    return QStringLiteral("\u25D4 %1 \u203A")
        .arg(suggestionLine(*m_app->snapshot().openSuggestions).toUpper());
}

QString HomeViewModel::suggestionLine(int count) {
    if (count == 1)
        return QStringLiteral("1 thing worth writing down");
    return QStringLiteral("%1 things worth writing down").arg(count);
}

bool HomeViewModel::showsConnectPrompt() const {
    return !m_cli || !m_cli->bothConnected();
}

QString HomeViewModel::usageValue(const std::optional<CLIInfo>& info) {
    if (!info || !info->authenticated)
        return QStringLiteral("NOT CONNECTED");
    return QStringLiteral("%1 TOKENS \u00B7 %2 MSGS").arg(info->tokens_today).arg(info->messages_today);
}

QString HomeViewModel::claudeUsageValue(const std::optional<CLIStatusResponse>& status,
                                        const std::optional<ClaudeUsage>& usage) {
    if (!status || !status->claude.authenticated)
        return QStringLiteral("NOT CONNECTED");
    if (usage)
        return QStringLiteral("%1 TOKENS \u00B7 %2 SESSIONS").arg(usage->totalTokens, usage->sessions);
    return usageValue(status->claude);
}

QString HomeViewModel::claudeUsageText() const {
    return m_cli ? claudeUsageValue(m_cli->status(), m_cli->claudeUsage())
                 : claudeUsageValue(std::nullopt, std::nullopt);
}

QString HomeViewModel::codexUsageText() const {
    if (!m_cli || !m_cli->status())
        return usageValue(std::nullopt);
    return usageValue(m_cli->status()->codex);
}

void HomeViewModel::openQueue() {
    if (m_app)
        m_app->setScreen(AppState::Screen::queue);
}
