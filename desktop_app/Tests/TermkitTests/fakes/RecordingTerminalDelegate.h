#pragma once
// A terminal host that records what it is told, for tests.

#include <string>
#include <vector>

#include "Termkit/engine/Terminal.h"

namespace termkit::testing {

/// Writes bytes with C escapes for everything that is not printable ASCII.
inline std::string escaped(std::span<const uint8_t> bytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (uint8_t c : bytes) {
        if (c == 0x1b) {
            out += "\\e";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

inline std::string escaped(std::string_view s) {
    return escaped(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(s.data()), s.size()));
}

/// Records replies and host events as readable lines.
class RecordingTerminalDelegate : public TerminalDelegate {
public:
    std::vector<std::string> replies;
    std::vector<std::string> events;
    bool trusted = true;
    std::optional<std::pair<int, int>> cellSize;
    std::optional<std::vector<uint8_t>> clipboard;
    std::optional<std::vector<uint8_t>> windowReply;

    void send(Terminal&, std::span<const uint8_t> data) override { replies.push_back(escaped(data)); }
    void showCursor(Terminal&) override { events.push_back("showCursor"); }
    void hideCursor(Terminal&) override { events.push_back("hideCursor"); }
    void setTerminalTitle(Terminal&, const std::string& title) override {
        events.push_back("title " + escaped(title));
    }
    void setTerminalIconTitle(Terminal&, const std::string& title) override {
        events.push_back("iconTitle " + escaped(title));
    }
    std::optional<std::vector<uint8_t>> windowCommand(Terminal&, const WindowCommand& c) override {
        events.push_back("window " + std::to_string(static_cast<int>(c.kind)) + " " + std::to_string(c.a) +
                         " " + std::to_string(c.b));
        return windowReply;
    }
    void sizeChanged(Terminal& t) override {
        events.push_back("sizeChanged " + std::to_string(t.cols()) + "x" + std::to_string(t.rows()));
    }
    void bufferActivated(Terminal& t) override {
        events.push_back(t.isAlternateBufferActive() ? "buffer alt" : "buffer normal");
    }
    void synchronizedOutputChanged(Terminal&, bool active) override {
        events.push_back(std::string("synchronizedOutput ") + (active ? "on" : "off"));
    }
    void bell(Terminal&) override { events.push_back("bell"); }
    bool isProcessTrusted(Terminal&) override { return trusted; }
    std::optional<std::pair<int, int>> cellSizeInPixels(Terminal&) override { return cellSize; }
    void cursorStyleChanged(Terminal&, CursorStyle s) override {
        events.push_back("cursorStyle " + std::to_string(static_cast<int>(s)));
    }
    void hostCurrentDocumentUpdated(Terminal& t) override {
        events.push_back("document " + t.hostCurrentDocument());
    }
    void hostCurrentDirectoryUpdated(Terminal& t) override {
        events.push_back("directory " + t.hostCurrentDirectory());
    }
    void colorChanged(Terminal&, std::optional<int> idx) override {
        events.push_back("colorChanged " + (idx ? std::to_string(*idx) : std::string("all")));
    }
    void setForegroundColor(Terminal& t, Color c) override {
        events.push_back("foreground " + c.formatAsXcolor());
        TerminalDelegate::setForegroundColor(t, c);
    }
    void setBackgroundColor(Terminal& t, Color c) override {
        events.push_back("background " + c.formatAsXcolor());
        TerminalDelegate::setBackgroundColor(t, c);
    }
    void setCursorColor(Terminal& t, std::optional<Color> c) override {
        events.push_back("cursorColor " + (c ? c->formatAsXcolor() : std::string("reset")));
        TerminalDelegate::setCursorColor(t, c);
    }
    void iTermContent(Terminal&, std::span<const uint8_t> content) override {
        events.push_back("iterm " + escaped(content));
    }
    void clipboardCopy(Terminal&, std::vector<uint8_t> content) override {
        events.push_back("clipboard " + escaped(content));
    }
    std::optional<std::vector<uint8_t>> clipboardRead(Terminal&) override { return clipboard; }
    void notify(Terminal&, const std::string& title, const std::string& body) override {
        events.push_back("notify " + title + " / " + body);
    }
    void progressReport(Terminal&, const ProgressReport& r) override {
        events.push_back("progress " + std::to_string(static_cast<int>(r.state)) + " " +
                         (r.progress ? std::to_string(*r.progress) : std::string("none")));
    }
    void createImage(Terminal&, std::vector<uint8_t> data, ImageSizeRequest w, ImageSizeRequest h,
                     bool keep) override {
        events.push_back("image " + escaped(data) + " w=" + std::to_string(static_cast<int>(w.kind)) + ":" +
                         std::to_string(w.value) + " h=" + std::to_string(static_cast<int>(h.kind)) + ":" +
                         std::to_string(h.value) + (keep ? " keep" : " stretch"));
    }
    void mouseModeChanged(Terminal& t) override {
        events.push_back("mouse " + std::to_string(static_cast<int>(t.mouseMode())));
    }
};

} // namespace termkit::testing
