#pragma once
// A terminal view with a program of its own on a pseudo-terminal.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Termkit/process/LocalProcess.h"
#include "Termkit/view/TerminalView.h"

namespace termkit {

class LocalProcessTerminalView;

/// What a local-process view tells its host.
class LocalProcessTerminalViewDelegate {
public:
    virtual ~LocalProcessTerminalViewDelegate() = default;
    virtual void sizeChanged(LocalProcessTerminalView& /*source*/, int /*newCols*/, int /*newRows*/) {}
    virtual void setTerminalTitle(LocalProcessTerminalView& /*source*/, const std::string& /*title*/) {}
    virtual void hostCurrentDirectoryUpdate(LocalProcessTerminalView& /*source*/,
                                            const std::optional<std::string>& /*directory*/) {}
    /// The program ended by itself (not after `terminate`).
    virtual void processTerminated(LocalProcessTerminalView& /*source*/,
                                   std::optional<int32_t> /*exitCode*/) {}
};

/// A `TerminalView` whose bytes go to and come from a `LocalProcess`: it is the process's
/// delegate (output is fed, the size reaches the pseudo-terminal) and its own view delegate
/// (what the view sends goes to the process). Output arrives on the main thread in short
/// slices, so a flood never freezes the window.
class LocalProcessTerminalView : public TerminalView, public LocalProcessDelegate {
    Q_OBJECT
    Q_PROPERTY(bool running READ running NOTIFY runningChanged)

public:
    explicit LocalProcessTerminalView(QQuickItem* parent = nullptr);
    ~LocalProcessTerminalView() override;

    LocalProcess& process() { return *m_process; }
    void setProcessDelegate(LocalProcessTerminalViewDelegate* delegate) { m_processDelegate = delegate; }

    /// Starts a program; without an environment it gets the terminal's default one.
    void startProcess(const std::string& executable, const std::vector<std::string>& args = {},
                      const std::optional<std::vector<std::string>>& environment = std::nullopt,
                      const std::optional<std::string>& execName = std::nullopt,
                      const std::optional<std::string>& currentDirectory = std::nullopt);
    /// Ends the program (SIGTERM); the delegate is not told.
    Q_INVOKABLE void terminate();
    void setHostLogging(std::optional<std::string> directory) {
        m_process->setHostLogging(std::move(directory));
    }
    bool running() const { return m_process->running(); }

    // What the view sends goes to the program.
    void send(std::span<const uint8_t> data) override;

    // LocalProcessDelegate
    void processTerminated(LocalProcess& source, std::optional<int32_t> exitCode) override;
    /// Each read of the program's output; the default feeds it to the terminal.
    void dataReceived(std::span<const uint8_t> slice) override;
    std::optional<winsize> getWindowSize() override;

signals:
    void runningChanged();
    void processEnded(int exitCode);

protected:
    void terminalResized(int cols, int rows) override;
    void setTerminalTitle(Terminal& source, const std::string& title) override;
    void hostCurrentDirectoryUpdated(Terminal& source) override;

private:
    std::unique_ptr<LocalProcess> m_process;
    LocalProcessTerminalViewDelegate* m_processDelegate = nullptr;
};

} // namespace termkit
