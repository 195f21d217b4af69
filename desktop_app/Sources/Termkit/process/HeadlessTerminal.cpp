#include "Termkit/process/HeadlessTerminal.h"

#include <utility>

#include "Termkit/process/PseudoTerminalHelpers.h"

namespace termkit {

HeadlessTerminal::HeadlessTerminal(SerialExecutor& queue, TerminalOptions options, EndAction onEnd,
                                   TerminalScheduler* scheduler, TerminalExtensions* extensions)
    : m_onEnd(std::move(onEnd)), m_terminal(this, std::move(options), scheduler, extensions),
      m_process(this, queue) {}

HeadlessTerminal::~HeadlessTerminal() = default;

void HeadlessTerminal::send(std::span<const uint8_t> data) {
    m_process.send(data);
}

void HeadlessTerminal::send(std::string_view text) {
    m_process.send(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

void HeadlessTerminal::resize(int cols, int rows) {
    m_terminal.resize(cols, rows);
    updateChildSize();
}

std::optional<winsize> HeadlessTerminal::getWindowSize() {
    winsize size = {};
    size.ws_row = static_cast<unsigned short>(m_terminal.rows());
    size.ws_col = static_cast<unsigned short>(m_terminal.cols());
    size.ws_xpixel = kPixelsPerCell;
    size.ws_ypixel = kPixelsPerCell;
    return size;
}

void HeadlessTerminal::processTerminated(LocalProcess& /*source*/, std::optional<int32_t> exitCode) {
    if (m_onEnd)
        m_onEnd(exitCode);
}

void HeadlessTerminal::dataReceived(std::span<const uint8_t> slice) {
    m_terminal.feed(slice);
}

void HeadlessTerminal::send(Terminal& /*source*/, std::span<const uint8_t> data) {
    m_process.send(data);
}

void HeadlessTerminal::sizeChanged(Terminal& /*source*/) {
    updateChildSize();
}

void HeadlessTerminal::hostCurrentDirectoryUpdated(Terminal& source) {
    m_dir = source.hostCurrentDirectory();
}

void HeadlessTerminal::createImageFromBitmap(Terminal& /*source*/, std::vector<uint8_t> bytes, int width,
                                             int height) {
    m_images.push_back({std::move(bytes), width, height});
}

void HeadlessTerminal::updateChildSize() {
    const int master = m_process.childfd();
    if (master < 0)
        return;
    if (const auto size = getWindowSize())
        PseudoTerminalHelpers::setWinSize(master, *size);
}

} // namespace termkit
