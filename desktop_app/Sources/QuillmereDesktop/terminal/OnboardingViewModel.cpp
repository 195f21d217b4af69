#include "QuillmereDesktop/terminal/OnboardingViewModel.h"

void OnboardingViewModel::setCli(CLIStatusStore* cli) {
    if (m_cli == cli)
        return;
    if (m_cli)
        disconnect(m_cli, nullptr, this, nullptr);
    m_cli = cli;
    // The store's own polling keeps the rows current while the sheet is open.
    if (m_cli)
        connect(m_cli, &CLIStatusStore::statusChanged, this, &OnboardingViewModel::statusChanged);
    emit sourcesChanged();
    emit statusChanged();
}

void OnboardingViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit sourcesChanged();
}

QString OnboardingViewModel::statusLabel(const std::optional<CLIStatusResponse>& status,
                                         CLIInfo CLIStatusResponse::*tool) {
    if (!status)
        return unknown;
    const CLIInfo& info = (*status).*tool;
    if (!info.installed)
        return notInstalled;
    if (!info.authenticated)
        return notConnected;
    return connected;
}

QString OnboardingViewModel::refreshLabel() const {
    return m_isRefreshing ? QStringLiteral("REFRESHING…") : QStringLiteral("REFRESH STATUS");
}

QVariantMap OnboardingViewModel::labels() {
    return {
        {QStringLiteral("heading"), QStringLiteral("connect your clis")},
        {QStringLiteral("close"), QStringLiteral("✕")},
        {QStringLiteral("intro"),
         QStringLiteral(
             "Quillmere reads your Claude Code and Codex usage directly from each CLI. Both run in the "
             "terminal drawer and log in the same way they would in any other terminal.")},
        {QStringLiteral("claude"), QStringLiteral("Claude Code")},
        {QStringLiteral("codex"), QStringLiteral("Codex")},
        {QStringLiteral("openTerminal"), QStringLiteral("Open terminal")},
    };
}

QCoro::Task<> OnboardingViewModel::appearNow() {
    if (m_cli)
        co_await m_cli->refresh(relayClient());
}

QCoro::Task<> OnboardingViewModel::refreshNow() {
    if (m_isRefreshing || !m_cli)
        co_return;
    QPointer<OnboardingViewModel> self(this);
    QPointer<CLIStatusStore> cli(m_cli);
    m_isRefreshing = true;
    emit refreshingChanged();
    co_await cli->refresh(relayClient());
    if (!self)
        co_return;
    m_isRefreshing = false;
    emit refreshingChanged();
}
