#pragma once
// A terminal and the program it runs, with no view: for probes, tools and tests.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Termkit/engine/Terminal.h"
#include "Termkit/process/LocalProcess.h"

namespace termkit {

/// Joins a `Terminal` and a `LocalProcess`: the child's output is fed to the terminal, the
/// terminal's replies go back to the child, and a new size reaches the child. Lives on the
/// thread of its executor, like the two it joins.
class HeadlessTerminal : public TerminalDelegate, public LocalProcessDelegate {
public:
    /// The pixel size reported for each cell in the pseudo-terminal's size: there is no view.
    static constexpr unsigned short kPixelsPerCell = 16;

    /// Called once when the child ends by itself, with its exit status.
    using EndAction = std::function<void(std::optional<int32_t> exitCode)>;
    /// A bitmap image the program drew, kept for a host that wants it.
    struct Image {
        std::vector<uint8_t> bytes;
        int width = 0;
        int height = 0;
    };

    HeadlessTerminal(SerialExecutor& queue, TerminalOptions options = {}, EndAction onEnd = {},
                     TerminalScheduler* scheduler = nullptr, TerminalExtensions* extensions = nullptr);
    ~HeadlessTerminal() override;
    HeadlessTerminal(const HeadlessTerminal&) = delete;
    HeadlessTerminal& operator=(const HeadlessTerminal&) = delete;

    Terminal& terminal() { return m_terminal; }
    LocalProcess& process() { return m_process; }

    /// Writes bytes, or text as UTF-8, to the child.
    void send(std::span<const uint8_t> data) override;
    void send(std::string_view text);
    /// Sets the terminal's scrollback; none keeps only the screen.
    void changeScrollback(std::optional<int> lines) { m_terminal.changeScrollback(lines); }
    /// Resizes the terminal and tells the child.
    void resize(int cols, int rows);
    /// Rows and columns of the terminal, and `kPixelsPerCell` in both pixel fields.
    std::optional<winsize> getWindowSize() override;

    /// The directory the program last reported, if any.
    const std::optional<std::string>& dir() const { return m_dir; }
    const std::vector<Image>& images() const { return m_images; }

    // LocalProcessDelegate
    void processTerminated(LocalProcess& source, std::optional<int32_t> exitCode) override;
    void dataReceived(std::span<const uint8_t> slice) override;
    // TerminalDelegate
    void send(Terminal& source, std::span<const uint8_t> data) override;
    void sizeChanged(Terminal& source) override;
    void hostCurrentDirectoryUpdated(Terminal& source) override;
    void createImageFromBitmap(Terminal& source, std::vector<uint8_t> bytes, int width, int height) override;

private:
    void updateChildSize();

    EndAction m_onEnd;
    Terminal m_terminal;
    // Declared after the terminal so that it goes first: no output arrives for a dead terminal.
    LocalProcess m_process;
    std::optional<std::string> m_dir;
    std::vector<Image> m_images;
};

} // namespace termkit
