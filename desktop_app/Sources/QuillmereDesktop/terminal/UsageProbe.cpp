#include "QuillmereDesktop/terminal/UsageProbe.h"

#include "QuillmereDesktop/common/LoginShell.h"
#include "Termkit/process/HeadlessTerminal.h"
#include "Termkit/view/qt/MainThreadExecutor.h"

#include <QPointer>
#include <QRegularExpression>
#include <qcoro/qcorosignal.h>

#include <pwd.h>
#include <unistd.h>

namespace UsageProbe {

QString shell() {
    loginShell::Sources sources;
    // Where zsh exists it comes first, as it does on the machines the CLI is mostly used on.
    sources.shellVariable = QStringLiteral("/bin/zsh");
    if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_shell)
        sources.passwordDatabase = QString::fromLocal8Bit(entry->pw_shell);
    return loginShell::choose(sources);
}

namespace {
// The first group of the first match, or nothing.
std::optional<QString> firstGroup(const QString& pattern, const QString& text) {
    const QRegularExpression expression(pattern);
    if (!expression.isValid())
        return std::nullopt;
    const QRegularExpressionMatch match = expression.match(text);
    if (!match.hasMatch() || match.lastCapturedIndex() < 1)
        return std::nullopt;
    return match.captured(1);
}
} // namespace

std::optional<ClaudeUsage> parse(const QString& text) {
    const std::optional<QString> tokens = firstGroup(QStringLiteral("Total tokens:\\s*(\\S+)"), text);
    const std::optional<QString> sessions = firstGroup(QStringLiteral("Sessions:\\s*(\\d+)"), text);
    if (!tokens || !sessions)
        return std::nullopt;
    return ClaudeUsage{*tokens, *sessions};
}

QString bufferText(const termkit::Terminal& terminal) {
    const auto& lines = terminal.buffer().lines();
    QStringList texts;
    texts.reserve(lines.count());
    for (int index = 0; index < lines.count(); ++index) {
        // A slot never read holds no line; there is nothing drawn in it.
        const termkit::BufferLine* line = lines.peek(index);
        if (!line)
            continue;
        QString text = QString::fromStdString(line->translateToString(terminal.tables().characters, true));
        // Cells that were never drawn must not glue a label to its figure.
        text.replace(QChar(u'\0'), QChar(u' '));
        texts.append(text);
    }
    return texts.join(u'\n');
}

Run::Run(QString workingDirectory, Timeline timeline, QString shellPath)
    : m_workingDirectory(std::move(workingDirectory)), m_timeline(timeline), m_shell(std::move(shellPath)) {
    termkit::TerminalOptions options;
    options.cols = columns;
    options.rows = rows;
    // The end of the shell needs no answer: the timeline ends the probe either way.
    m_terminal = std::make_unique<termkit::HeadlessTerminal>(termkit::MainThreadExecutor::shared(), options,
                                                             [](std::optional<int32_t>) {});
}

Run::~Run() = default;

pid_t Run::shellPid() const {
    return m_terminal->process().shellPid();
}

void Run::start() {
    m_terminal->process().startProcess(m_shell.toStdString(), {"-l", "-i"}, std::nullopt, std::nullopt,
                                       m_workingDirectory.toStdString());
    // Precise timers: the steps are fixed waits, and an early one could catch the CLI unready.
    QTimer::singleShot(m_timeline.command, Qt::PreciseTimer, this, [this] { send("claude\r"); });
    QTimer::singleShot(m_timeline.usage, Qt::PreciseTimer, this, [this] {
        send("/usage\r");
        // The panel opens on another tab; a tab moves it to the usage figures.
        QTimer::singleShot(m_timeline.tab, Qt::PreciseTimer, this, [this] {
            send("\t");
            QTimer::singleShot(m_timeline.copy, Qt::PreciseTimer, this, [this] { copyAndQuit(); });
        });
    });
    QTimer::singleShot(m_timeline.timeout, Qt::PreciseTimer, this, [this] { onTimeout(); });
}

void Run::send(std::string_view text) {
    m_terminal->send(text);
}

void Run::copyAndQuit() {
    const QString text = bufferText(m_terminal->terminal());
    // The CLI quits on a second Ctrl-C.
    send("\x03");
    send("\x03");
    terminate();
    if (m_guard.claim())
        emit finished(text);
}

void Run::onTimeout() {
    terminate();
    if (m_guard.claim())
        emit finished(std::nullopt);
    emit timedOut();
    deleteLater();
}

void Run::terminate() {
    ++m_terminations;
    m_terminal->process().terminate();
}

QCoro::Task<std::optional<QString>> captureUsageTab(QString workingDirectory, Timeline timeline) {
    auto* run = new Run(std::move(workingDirectory), timeline);
    run->start();
    co_return co_await qCoro(run, &Run::finished);
}

} // namespace UsageProbe
