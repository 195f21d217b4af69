#pragma once

#include "QuillmereDesktop/terminal/TerminalPipeline.h"
#include "Termkit/view/LocalProcessTerminalView.h"

#include <QByteArray>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QtQml/qqmlregistration.h>

#include <chrono>
#include <functional>

// One of the drawer's terminals: an interactive login shell whose every byte in and out is
// also handed to the relay's recording, through its pipeline. The terminal is never held up
// by the recording: the bytes go to the screen (or the shell) first.
class CapturingTerminalView : public termkit::LocalProcessTerminalView {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(TerminalPipeline* pipeline READ pipeline WRITE setPipeline NOTIFY pipelineChanged)
    Q_PROPERTY(
        QString autoRunCommand READ autoRunCommand WRITE setAutoRunCommand NOTIFY autoRunCommandChanged)
    Q_PROPERTY(QString workingDirectory READ workingDirectory WRITE setWorkingDirectory NOTIFY
                   workingDirectoryChanged)
    Q_PROPERTY(bool isActive READ isActive WRITE setIsActive NOTIFY isActiveChanged)
    Q_PROPERTY(int autoRunDelayMs READ autoRunDelayMs WRITE setAutoRunDelayMs NOTIFY autoRunDelayMsChanged)

public:
    // The shell's arguments: a login shell reads the person's profile (and so finds the agents
    // where they installed them); an interactive one shows its prompt and keeps running.
    static inline const std::vector<std::string> shellArguments{"-l", "-i"};
    // How long after the shell starts its auto-run line is typed. A fixed time, not a wait for
    // a prompt: shells print prompts in too many ways to recognise one, and the line waits in
    // the shell's input until it reads it anyway.
    static constexpr std::chrono::milliseconds defaultAutoRunDelay{400};

    explicit CapturingTerminalView(QQuickItem* parent = nullptr);
    ~CapturingTerminalView() override;

    // What the recording gets: each read of the shell's output, and everything sent to it.
    std::function<void(const QByteArray&)> onOutput;
    std::function<void(const QByteArray&)> onInput;

    TerminalPipeline* pipeline() const { return m_pipeline; }
    void setPipeline(TerminalPipeline* pipeline);
    QString autoRunCommand() const { return m_autoRunCommand; }
    void setAutoRunCommand(const QString& command);
    QString workingDirectory() const { return m_workingDirectory; }
    void setWorkingDirectory(const QString& directory);
    bool isActive() const { return m_isActive; }
    void setIsActive(bool active);
    int autoRunDelayMs() const { return m_autoRunDelayMs; }
    void setAutoRunDelayMs(int delay);

    // Output is drawn first, then recorded.
    void dataReceived(std::span<const uint8_t> slice) override;
    // Input goes to the shell first, then is recorded.
    void send(std::span<const uint8_t> data) override;

signals:
    void pipelineChanged();
    void autoRunCommandChanged();
    void workingDirectoryChanged();
    void isActiveChanged();
    void autoRunDelayMsChanged();
    // The auto-run line was typed.
    void autoRunSent();

protected:
    void componentComplete() override;
    void itemChange(ItemChange change, const ItemChangeData& value) override;

private:
    void start();
    void takeKeyboardIfActive();

    QPointer<TerminalPipeline> m_pipeline;
    QString m_autoRunCommand;
    QString m_workingDirectory;
    bool m_isActive = false;
    int m_autoRunDelayMs = static_cast<int>(defaultAutoRunDelay.count());
    bool m_started = false;
    QTimer m_autoRun;
};
