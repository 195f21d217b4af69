#pragma once

#include "QuillmereDesktop/queue/AppState.h"
#include "QuillmereDesktop/terminal/CLIStatusStore.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QtQml/qqmlregistration.h>

// The home screen: is anything waiting for me? Counters, what needs input, open
// suggestions, and how much the two command-line agents have used.
class HomeViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AppState* app READ app WRITE setApp NOTIFY sourcesChanged)
    Q_PROPERTY(CLIStatusStore* cli READ cli WRITE setCli NOTIFY sourcesChanged)
    Q_PROPERTY(int running READ running NOTIFY changed)
    Q_PROPERTY(int done READ done NOTIFY changed)
    Q_PROPERTY(bool hasInterrupts READ hasInterrupts NOTIFY changed)
    Q_PROPERTY(QString needInputText READ needInputText NOTIFY changed)
    Q_PROPERTY(QStringList rows READ rows NOTIFY changed)
    Q_PROPERTY(bool showsSuggestions READ showsSuggestions NOTIFY changed)
    Q_PROPERTY(QString suggestionText READ suggestionText NOTIFY changed)
    Q_PROPERTY(bool showsConnectPrompt READ showsConnectPrompt NOTIFY changed)
    Q_PROPERTY(QString claudeUsageText READ claudeUsageText NOTIFY changed)
    Q_PROPERTY(QString codexUsageText READ codexUsageText NOTIFY changed)
    Q_PROPERTY(QString runningLabel READ runningLabel CONSTANT)
    Q_PROPERTY(QString doneLabel READ doneLabel CONSTANT)
    Q_PROPERTY(QString nothingWaiting READ nothingWaiting CONSTANT)
    Q_PROPERTY(QString openQueueLabel READ openQueueLabel CONSTANT)
    Q_PROPERTY(QString connectPrompt READ connectPrompt CONSTANT)
    Q_PROPERTY(QString usageBanner READ usageBanner CONSTANT)
    Q_PROPERTY(QString claudeName READ claudeName CONSTANT)
    Q_PROPERTY(QString codexName READ codexName CONSTANT)

public:
    static QString runningLabel() { return QStringLiteral("running"); }
    static QString doneLabel() { return QStringLiteral("done"); }
    static QString nothingWaiting() { return QStringLiteral("Nothing waiting on you."); }
    static QString openQueueLabel() { return QStringLiteral("Open queue"); }
    static QString connectPrompt() { return QStringLiteral("connect claude & codex to see usage"); }
    static QString usageBanner() { return QStringLiteral("usage"); }
    static QString claudeName() { return QStringLiteral("CLAUDE"); }
    static QString codexName() { return QStringLiteral("CODEX"); }

    explicit HomeViewModel(QObject* parent = nullptr);

    AppState* app() const { return m_app; }
    void setApp(AppState* app);
    CLIStatusStore* cli() const { return m_cli; }
    void setCli(CLIStatusStore* cli);

    int running() const;
    int done() const;
    bool hasInterrupts() const;
    QString needInputText() const;
    QStringList rows() const;
    bool showsSuggestions() const;
    QString suggestionText() const;
    bool showsConnectPrompt() const;
    QString claudeUsageText() const;
    QString codexUsageText() const;

    // One line per kind that waits, questions first: "2 questions", "1 approval", "3 choices".
    static QStringList rows(int approvals, int questions, int choices);
    // "1 thing worth writing down", "3 things worth writing down".
    static QString suggestionLine(int count);
    // The value of a tool's usage row: "NOT CONNECTED" or "1200 TOKENS · 4 MSGS".
    static QString usageValue(const std::optional<CLIInfo>& info);
    // Claude's value prefers its own figures from the usage probe.
    static QString claudeUsageValue(const std::optional<CLIStatusResponse>& status,
                                    const std::optional<ClaudeUsage>& usage);

    // The alert and "Open queue" both lead to the queue.
    Q_INVOKABLE void openQueue();

signals:
    void sourcesChanged();
    void changed();

private:
    QPointer<AppState> m_app;
    QPointer<CLIStatusStore> m_cli;
};
