#pragma once

#include "QuillmereDesktop/terminal/CLIStatus.h"

#include <QObject>
#include <QString>
#include <QTimer>
#include <qcoro/qcorotask.h>

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>

namespace termkit {
class HeadlessTerminal;
class Terminal;
} // namespace termkit

// Claude's usage figures, read off its own usage screen: the CLI has no machine-readable
// form of them. A probe starts the CLI in a hidden terminal, types its usage command,
// switches to the usage tab, copies the screen as text and quits; two regular expressions
// pick the figures out. The waits are fixed, not waits for a prompt: a CLI that starts
// late simply yields a screen without figures, and the next probe tries again.
namespace UsageProbe {

// The probe's terminal: wide and tall enough that the usage panel is never wrapped.
constexpr int columns = 220;
constexpr int rows = 55;

// When each step happens. The command and the usage command are counted from the start,
// the tab from the usage command, the copy from the tab; the time-out from the start.
struct Timeline {
    static constexpr std::chrono::milliseconds defaultCommandDelay{400};
    static constexpr std::chrono::milliseconds defaultUsageDelay{2900};
    static constexpr std::chrono::milliseconds defaultTabDelay{2000};
    static constexpr std::chrono::milliseconds defaultCopyDelay{1000};
    static constexpr std::chrono::milliseconds defaultTimeout{10000};

    std::chrono::milliseconds command = defaultCommandDelay;
    std::chrono::milliseconds usage = defaultUsageDelay;
    std::chrono::milliseconds tab = defaultTabDelay;
    std::chrono::milliseconds copy = defaultCopyDelay;
    std::chrono::milliseconds timeout = defaultTimeout;
};

// The shell the CLI is started from: zsh where it exists, else the user's login shell,
// else bash, else sh. The environment's SHELL is not consulted.
QString shell();

// The figures on a screen, or nothing unless both are there.
std::optional<ClaudeUsage> parse(const QString& text);

// The whole buffer of a terminal as text: trailing blanks trimmed, NULs as spaces, one
// line per row.
QString bufferText(const termkit::Terminal& terminal);

// Gives the resumption of a waiting caller to the first of several routes only.
class ResumeOnce {
public:
    // True for the first call only.
    bool claim() {
        if (m_resumed)
            return false;
        m_resumed = true;
        return true;
    }
    bool resumed() const { return m_resumed; }

private:
    bool m_resumed = false;
};

// One probe: its terminal and process, its timers, and the guard between the normal
// route and the time-out. It lives until the time-out has fired, then deletes itself.
class Run : public QObject {
    Q_OBJECT

public:
    Run(QString workingDirectory, Timeline timeline, QString shellPath = shell());
    ~Run() override;

    // Starts the shell and the timeline.
    void start();
    // The shell's process id, for tests that look for leftovers; 0 before the start.
    pid_t shellPid() const;
    // How often the process was asked to end: twice when the time-out follows a finished run.
    int terminations() const { return m_terminations; }

signals:
    // Once: the screen text, or nothing after the time-out.
    void finished(std::optional<QString> text);
    // The time-out fired; the run is about to go.
    void timedOut();

private:
    void send(std::string_view text);
    void copyAndQuit();
    void onTimeout();
    void terminate();

    QString m_workingDirectory;
    Timeline m_timeline;
    QString m_shell;
    std::unique_ptr<termkit::HeadlessTerminal> m_terminal;
    ResumeOnce m_guard;
    int m_terminations = 0;
};

// Runs one probe in `workingDirectory`: the screen's text, or nothing when the time-out
// came first. Never fails.
QCoro::Task<std::optional<QString>> captureUsageTab(QString workingDirectory, Timeline timeline = {});

} // namespace UsageProbe
