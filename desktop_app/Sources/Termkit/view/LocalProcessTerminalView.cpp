#include "Termkit/view/LocalProcessTerminalView.h"

#include "Termkit/process/PseudoTerminalHelpers.h"
#include "Termkit/view/qt/MainThreadExecutor.h"

namespace termkit {

LocalProcessTerminalView::LocalProcessTerminalView(QQuickItem* parent)
    : TerminalView(parent), m_process(std::make_unique<LocalProcess>(this, MainThreadExecutor::shared())) {}

LocalProcessTerminalView::~LocalProcessTerminalView() {
    // The process goes first: no output may arrive for a view being torn down.
    m_process.reset();
}

void LocalProcessTerminalView::startProcess(const std::string& executable,
                                            const std::vector<std::string>& args,
                                            const std::optional<std::vector<std::string>>& environment,
                                            const std::optional<std::string>& execName,
                                            const std::optional<std::string>& currentDirectory) {
    m_process->startProcess(executable, args, environment, execName, currentDirectory);
    emit runningChanged();
}

void LocalProcessTerminalView::terminate() {
    m_process->terminate();
    emit runningChanged();
}

void LocalProcessTerminalView::send(std::span<const uint8_t> data) {
    m_process->send(data);
}

void LocalProcessTerminalView::processTerminated(LocalProcess&, std::optional<int32_t> exitCode) {
    emit runningChanged();
    emit processEnded(exitCode.value_or(-1));
    if (m_processDelegate)
        m_processDelegate->processTerminated(*this, exitCode);
}

void LocalProcessTerminalView::dataReceived(std::span<const uint8_t> slice) {
    feed(slice);
}

std::optional<winsize> LocalProcessTerminalView::getWindowSize() {
    winsize size{};
    size.ws_col = static_cast<unsigned short>(terminal().cols());
    size.ws_row = static_cast<unsigned short>(terminal().rows());
    const CellMetrics& cell = cellMetrics();
    size.ws_xpixel = static_cast<unsigned short>(terminal().cols() * cell.width);
    size.ws_ypixel = static_cast<unsigned short>(terminal().rows() * cell.height);
    return size;
}

void LocalProcessTerminalView::terminalResized(int cols, int rows) {
    TerminalView::terminalResized(cols, rows);
    if (m_process->running() && m_process->childfd() >= 0)
        if (const auto size = getWindowSize())
            PseudoTerminalHelpers::setWinSize(m_process->childfd(), *size);
    if (m_processDelegate)
        m_processDelegate->sizeChanged(*this, cols, rows);
}

void LocalProcessTerminalView::setTerminalTitle(Terminal& source, const std::string& title) {
    TerminalView::setTerminalTitle(source, title);
    if (m_processDelegate)
        m_processDelegate->setTerminalTitle(*this, title);
}

void LocalProcessTerminalView::hostCurrentDirectoryUpdated(Terminal& source) {
    TerminalView::hostCurrentDirectoryUpdated(source);
    if (m_processDelegate)
        m_processDelegate->hostCurrentDirectoryUpdate(*this, reportedDirectory(source));
}

} // namespace termkit
