#include "QuillmereDesktop/terminal/CapturingTerminalView.h"

#include "QuillmereDesktop/common/LoginShell.h"

#include <QQuickWindow>

CapturingTerminalView::CapturingTerminalView(QQuickItem* parent) : LocalProcessTerminalView(parent) {
    // Black on white with a black caret, whatever the program does with its own colours.
    setNativeBackgroundColor(Qt::white);
    setNativeForegroundColor(Qt::black);
    setCaretColor(Qt::black);
    setCaretTextColor(Qt::white);
    m_autoRun.setSingleShot(true);
    connect(&m_autoRun, &QTimer::timeout, this, [this] {
        sendText(m_autoRunCommand + QLatin1Char('\n'));
        takeKeyboardIfActive();
        emit autoRunSent();
    });
}

CapturingTerminalView::~CapturingTerminalView() {
    // Torn down with the drawer's sessions: the recording ends, then the shell.
    if (m_pipeline)
        m_pipeline->end();
    process().terminate();
}

void CapturingTerminalView::setPipeline(TerminalPipeline* pipeline) {
    if (pipeline == m_pipeline)
        return;
    m_pipeline = pipeline;
    // The recording holds the pipeline weakly: a pipeline that is gone records nothing.
    QPointer<TerminalPipeline> weak(pipeline);
    onOutput = [weak](const QByteArray& bytes) {
        if (weak)
            weak->capture(QStringLiteral("output"), bytes);
    };
    onInput = [weak](const QByteArray& bytes) {
        if (weak)
            weak->capture(QStringLiteral("input"), bytes);
    };
    emit pipelineChanged();
}

void CapturingTerminalView::setAutoRunCommand(const QString& command) {
    if (command == m_autoRunCommand)
        return;
    m_autoRunCommand = command;
    emit autoRunCommandChanged();
}

void CapturingTerminalView::setWorkingDirectory(const QString& directory) {
    if (directory == m_workingDirectory)
        return;
    m_workingDirectory = directory;
    emit workingDirectoryChanged();
}

void CapturingTerminalView::setIsActive(bool active) {
    if (active == m_isActive)
        return;
    m_isActive = active;
    emit isActiveChanged();
    // A change of tab moves the keyboard to the terminal now shown.
    takeKeyboardIfActive();
}

void CapturingTerminalView::setAutoRunDelayMs(int delay) {
    if (delay == m_autoRunDelayMs)
        return;
    m_autoRunDelayMs = delay;
    emit autoRunDelayMsChanged();
}

void CapturingTerminalView::componentComplete() {
    LocalProcessTerminalView::componentComplete();
    start();
}

void CapturingTerminalView::itemChange(ItemChange change, const ItemChangeData& value) {
    LocalProcessTerminalView::itemChange(change, value);
    if (change == ItemVisibleHasChanged || change == ItemSceneChange)
        takeKeyboardIfActive();
}

void CapturingTerminalView::start() {
    if (m_started)
        return;
    m_started = true;
    const std::optional<std::string> directory =
        m_workingDirectory.isEmpty() ? std::nullopt
                                     : std::optional<std::string>(m_workingDirectory.toStdString());
    startProcess(loginShell::current().toStdString(), shellArguments, std::nullopt, std::nullopt, directory);
    if (m_pipeline)
        m_pipeline->start();
    // A fixed time, not a wait for a prompt: the line goes into the shell's input either way.
    if (!m_autoRunCommand.isEmpty())
        m_autoRun.start(m_autoRunDelayMs);
}

void CapturingTerminalView::takeKeyboardIfActive() {
    if (m_isActive && window() && window()->isVisible() && isVisible())
        forceActiveFocus(Qt::OtherFocusReason);
}

void CapturingTerminalView::dataReceived(std::span<const uint8_t> slice) {
    feed(slice);
    if (onOutput)
        onOutput(
            QByteArray(reinterpret_cast<const char*>(slice.data()), static_cast<qsizetype>(slice.size())));
}

void CapturingTerminalView::send(std::span<const uint8_t> data) {
    LocalProcessTerminalView::send(data);
    if (onInput)
        onInput(QByteArray(reinterpret_cast<const char*>(data.data()), static_cast<qsizetype>(data.size())));
}
