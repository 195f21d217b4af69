#include "QuillmereDesktop/terminal/TerminalPanelViewModel.h"

TerminalPanelViewModel::TerminalPanelViewModel(RelayClient* client,
                                               const std::optional<CLIStatusResponse>& status,
                                               QString workingDirectory, Config config, QObject* parent)
    : QObject(parent), m_config(config), m_claudePipeline(client, config.batchDelay),
      m_codexPipeline(client, config.batchDelay), m_claudeAutoRun(claudeAutoRunFor(status)),
      m_codexAutoRun(codexAutoRunFor(status)), m_workingDirectory(std::move(workingDirectory)) {
    for (TerminalPipeline* pipeline : {&m_claudePipeline, &m_codexPipeline}) {
        connect(pipeline, &TerminalPipeline::sessionIdChanged, this,
                &TerminalPanelViewModel::syncStatusChanged);
        connect(pipeline, &TerminalPipeline::lastErrorChanged, this,
                &TerminalPanelViewModel::syncStatusChanged);
    }
}

QString TerminalPanelViewModel::claudeAutoRunFor(const std::optional<CLIStatusResponse>& status) {
    return status && status->claude.installed ? claudeCommand : claudeInstallLine;
}

QString TerminalPanelViewModel::codexAutoRunFor(const std::optional<CLIStatusResponse>& status) {
    return status && status->codex.installed ? codexCommand : codexInstallLine;
}

QString TerminalPanelViewModel::syncStatusFor(const TerminalPipeline& pipeline) {
    if (pipeline.lastError())
        return (QStringLiteral("NOT SYNCING — ") + *pipeline.lastError()).toUpper();
    if (pipeline.sessionId())
        return QStringLiteral("SYNCED");
    return QStringLiteral("STARTING…");
}

void TerminalPanelViewModel::setSelectedTab(const QString& tab) {
    if ((tab != claudeTab && tab != codexTab) || tab == m_selectedTab)
        return;
    m_selectedTab = tab;
    emit selectedTabChanged();
    emit syncStatusChanged();
}

TerminalPipeline* TerminalPanelViewModel::selectedPipeline() {
    return m_selectedTab == codexTab ? &m_codexPipeline : &m_claudePipeline;
}

QString TerminalPanelViewModel::syncStatus() const {
    return syncStatusFor(m_selectedTab == codexTab ? m_codexPipeline : m_claudePipeline);
}

TerminalPanelViewModel::Config
TerminalPanelViewModel::configFromPreferences(const PreferencesStore& preferences) {
    Config config;
    if (const auto family = preferences.stringValue(fontFamilyKey); family && !family->trimmed().isEmpty())
        config.fontFamily = family->trimmed();
    if (const auto size = preferences.stringValue(fontSizeKey)) {
        bool ok = false;
        const double points = size->trimmed().toDouble(&ok);
        // Sizes no one could read from are ignored rather than obeyed.
        if (ok && points >= minimumFontSize && points <= maximumFontSize)
            config.fontSize = points;
    }
    return config;
}
