#pragma once

#include "QuillmereDesktop/common/PreferencesStore.h"
#include "QuillmereDesktop/terminal/CLIStatus.h"
#include "QuillmereDesktop/terminal/CapturingTerminalView.h"
#include "QuillmereDesktop/terminal/TerminalPipeline.h"

#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

#include <chrono>
#include <optional>

// The drawer's content: two terminals, "claude" and "codex", each with the pipeline that
// records it, the line each one types at start, and the status line of the selected tab.
class TerminalPanelViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The drawer makes its panel.")
    Q_PROPERTY(QString selectedTab READ selectedTab WRITE setSelectedTab NOTIFY selectedTabChanged)
    Q_PROPERTY(QString syncStatus READ syncStatus NOTIFY syncStatusChanged)
    Q_PROPERTY(QString claudeAutoRun READ claudeAutoRun CONSTANT)
    Q_PROPERTY(QString codexAutoRun READ codexAutoRun CONSTANT)
    Q_PROPERTY(QString workingDirectory READ workingDirectory CONSTANT)
    Q_PROPERTY(TerminalPipeline* claudePipeline READ claudePipeline CONSTANT)
    Q_PROPERTY(TerminalPipeline* codexPipeline READ codexPipeline CONSTANT)
    Q_PROPERTY(QString claudeTitle READ claudeTitle CONSTANT)
    Q_PROPERTY(QString codexTitle READ codexTitle CONSTANT)
    Q_PROPERTY(int autoRunDelayMs READ autoRunDelayMs CONSTANT)
    Q_PROPERTY(QString fontFamily READ fontFamily CONSTANT)
    Q_PROPERTY(qreal fontSize READ fontSize CONSTANT)

public:
    // The two tabs, by their wire-like names.
    static inline const QString claudeTab = QStringLiteral("claude");
    static inline const QString codexTab = QStringLiteral("codex");
    // What each tab types when its tool is installed, and the install lines otherwise.
    static inline const QString claudeCommand = QStringLiteral("claude");
    static inline const QString codexCommand = QStringLiteral("codex");
    static inline const QString claudeInstallLine =
        QStringLiteral("curl -fsSL https://claude.ai/install.sh | sh");
    static inline const QString codexInstallLine = QStringLiteral("npm install -g @openai/codex");
    static constexpr std::chrono::milliseconds defaultAutoRunDelay =
        CapturingTerminalView::defaultAutoRunDelay;

    struct Config {
        std::chrono::milliseconds autoRunDelay = defaultAutoRunDelay;
        std::chrono::milliseconds batchDelay = TerminalPipeline::defaultBatchDelay;
        QString fontFamily = QString::fromLatin1(termkit::FontSet::kDefaultFamily);
        double fontSize = termkit::FontSet::kDefaultPointSize;
    };

    // The preference keys of the drawer's font: a family name, and a size in points as text.
    static inline const QString fontFamilyKey = QStringLiteral("terminalFontFamily");
    static inline const QString fontSizeKey = QStringLiteral("terminalFontSize");
    // The defaults with the font the preferences name, where they name a usable one.
    static Config configFromPreferences(const PreferencesStore& preferences);
    static constexpr double minimumFontSize = 6;
    static constexpr double maximumFontSize = 48;

    TerminalPanelViewModel(RelayClient* client, const std::optional<CLIStatusResponse>& status,
                           QString workingDirectory, Config config, QObject* parent = nullptr);

    // The auto-run line of each tool: its own name once installed; the install line when it
    // is not, or when the relay has not said.
    static QString claudeAutoRunFor(const std::optional<CLIStatusResponse>& status);
    static QString codexAutoRunFor(const std::optional<CLIStatusResponse>& status);
    // The status line: the error, else "SYNCED" once the session is open, else "STARTING…".
    static QString syncStatusFor(const TerminalPipeline& pipeline);

    QString selectedTab() const { return m_selectedTab; }
    void setSelectedTab(const QString& tab);
    QString syncStatus() const;
    QString claudeAutoRun() const { return m_claudeAutoRun; }
    QString codexAutoRun() const { return m_codexAutoRun; }
    QString workingDirectory() const { return m_workingDirectory; }
    TerminalPipeline* claudePipeline() { return &m_claudePipeline; }
    TerminalPipeline* codexPipeline() { return &m_codexPipeline; }
    TerminalPipeline* selectedPipeline();
    QString claudeTitle() const { return claudeTab.toUpper(); }
    QString codexTitle() const { return codexTab.toUpper(); }
    int autoRunDelayMs() const { return static_cast<int>(m_config.autoRunDelay.count()); }
    QString fontFamily() const { return m_config.fontFamily; }
    qreal fontSize() const { return m_config.fontSize; }

signals:
    void selectedTabChanged();
    void syncStatusChanged();
    // The close button: the drawer hides, the terminals stay.
    void closeRequested();

public slots:
    void close() { emit closeRequested(); }

private:
    Config m_config;
    TerminalPipeline m_claudePipeline;
    TerminalPipeline m_codexPipeline;
    QString m_selectedTab = claudeTab;
    QString m_claudeAutoRun;
    QString m_codexAutoRun;
    QString m_workingDirectory;
};
