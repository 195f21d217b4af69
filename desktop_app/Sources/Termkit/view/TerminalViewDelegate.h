#pragma once
// What a terminal view tells its host.

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace termkit {

class TerminalView;

/// The host of a `TerminalView`. Everything has a default, so a host overrides only what it
/// needs; all calls come on the main thread.
class TerminalViewDelegate {
public:
    virtual ~TerminalViewDelegate() = default;
    /// The terminal has a new size in cells.
    virtual void sizeChanged(TerminalView& /*source*/, int /*newCols*/, int /*newRows*/) {}
    virtual void setTerminalTitle(TerminalView& /*source*/, const std::string& /*title*/) {}
    /// The program reported its working directory (OSC 7).
    virtual void hostCurrentDirectoryUpdate(TerminalView& /*source*/,
                                            const std::optional<std::string>& /*directory*/) {}
    /// Bytes for the program: typed keys, pastes, pointer reports, and the terminal's replies.
    virtual void send(TerminalView& /*source*/, std::span<const uint8_t> /*data*/) {}
    /// The view scrolled; `position` is 0 at the top of the scrollback and 1 at the bottom.
    virtual void scrolled(TerminalView& /*source*/, double /*position*/) {}
    /// A link was activated. The default opens it with the desktop's handler.
    virtual void requestOpenLink(TerminalView& source, const std::string& link,
                                 const std::map<std::string, std::string>& params);
    /// The bell rang with a sound style. The default is the platform's beep.
    virtual void bell(TerminalView& source);
    /// The program copies to the clipboard (OSC 52). The default puts it on the clipboard.
    virtual void clipboardCopy(TerminalView& source, const std::vector<uint8_t>& content);
    /// The program asks for the clipboard; nothing by default, so a program cannot read it.
    virtual std::optional<std::vector<uint8_t>> clipboardRead(TerminalView& /*source*/) {
        return std::nullopt;
    }
    /// OSC 1337 content other than images.
    virtual void iTermContent(TerminalView& /*source*/, std::span<const uint8_t> /*content*/) {}
    /// Rows that changed in an update (when `notifyUpdateChanges` is on).
    virtual void rangeChanged(TerminalView& /*source*/, int /*startY*/, int /*endY*/) {}

    /// Opens a link with the desktop's handler.
    static void openDefaultLink(const std::string& link);
};

} // namespace termkit
