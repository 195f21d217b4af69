// What the terminal says about itself: device attributes, status reports, version,
// status strings, and window reports.

#include <string>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

bool is(std::span<const uint8_t> collect, std::string_view expected) {
    return collect.size() == expected.size() && std::equal(collect.begin(), collect.end(), expected.begin());
}

bool startsWith(const std::string& s, std::string_view prefix) {
    return s.rfind(prefix, 0) == 0;
}

} // namespace

/// Buffers the body of `DCS $ q` and answers it at the end.
class DecrqssHandler : public DcsHandler {
public:
    explicit DecrqssHandler(Terminal& terminal) : m_terminal(terminal) {}
    void hook(std::span<const uint8_t>, const CsiParameters&, uint8_t) override { m_body.clear(); }
    void put(std::span<const uint8_t> data) override {
        m_body.insert(m_body.end(), data.begin(), data.end());
    }
    void unhook() override { m_terminal.replyStatusString(std::string_view(m_body.data(), m_body.size())); }

private:
    Terminal& m_terminal;
    std::vector<char> m_body;
};

DcsHandler* Terminal::decrqssDcsHandler() {
    if (!m_decrqss)
        m_decrqss = std::make_unique<DecrqssHandler>(*this);
    return m_decrqss.get();
}

DcsHandler* Terminal::sixelDcsHandler() {
    return m_extensions->sixelDcsHandler(*this);
}

void Terminal::handleKittyGraphics(std::span<const uint8_t> data) {
    m_extensions->handleKittyGraphics(*this, data);
}

void Terminal::replyStatusString(std::string_view request) {
    const Buffer& b = *m_buffer;
    std::string value;
    if (request == "\"q") {
        value = "\"q";
    } else if (request == "\"p") {
        value = "65;1\"p";
    } else if (request == "r") {
        value =
            std::to_string(b.scrollTop().value + 1) + ";" + std::to_string(b.scrollBottom().value + 1) + "r";
    } else if (request == "m") {
        value = m_curAttr.toSgr() + "m";
    } else if (request == "s") {
        value =
            std::to_string(b.marginLeft().value + 1) + ";" + std::to_string(b.marginRight().value + 1) + "s";
    } else if (request == " q") {
        // Reported as a steady block whatever the style: what programs have always been told.
        value = "2 q";
    } else {
        log("Unknown DCS + " + std::string(request));
        const std::string reply = dcs() + "0$r" + st();
        sendResponse({std::string_view(reply)});
        return;
    }
    const std::string reply = dcs() + "1$r" + value + st();
    sendResponse({std::string_view(reply)});
}

void Terminal::cmdSendDeviceAttributes(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (collect.empty()) {
        if (pars.at(0) > 0) {
            log("SendDeviceAttributes got " + std::to_string(pars.at(0)) + " and " +
                std::to_string(pars.count));
            return;
        }
        const std::string& name = m_options.termName;
        std::string reply;
        if (startsWith(name, "xterm")) {
            reply = csi() +
                    (m_options.enableSixelReported ? "?65;4;1;2;6;21;22;17;28c" : "?65;1;2;6;21;22;17;28c");
        } else if (startsWith(name, "screen") || startsWith(name, "rxvt-unicode")) {
            reply = csi() + "?1;2c";
        } else if (startsWith(name, "linux")) {
            reply = csi() + "?6c";
        }
        if (!reply.empty())
            sendResponse({std::string_view(reply)});
        return;
    }
    if ((is(collect, ">") || is(collect, ">0")) && pars.at(0) == 0) {
        const std::string reply = csi() + ">65;20;1c";
        sendResponse({std::string_view(reply)});
        return;
    }
    log("Got a CSI > c with an unknown set of argument");
}

void Terminal::cmdDeviceStatus(const CsiParameters& pars, std::span<const uint8_t> collect) {
    const Buffer& b = *m_buffer;
    const int x = cursorCol().value;
    const int y = b.y().value;
    std::string reply;
    if (collect.empty()) {
        switch (pars.at(0)) {
        case 5:
            reply = csi() + "0n";
            break;
        case 6: {
            int row = y + 1;
            int col = x + 1;
            if (m_originMode) {
                row = std::max(row - b.scrollTop().value, 1);
                col = std::max(col - b.marginLeft().value, 1);
            }
            reply = csi() + std::to_string(row) + ";" + std::to_string(col) + "R";
            break;
        }
        default:
            break;
        }
    } else if (is(collect, "?")) {
        switch (pars.at(0)) {
        case 6: {
            int row = y + 1;
            int col = x + 1;
            if (m_originMode)
                row = std::max(row - b.scrollTop().value, 1);
            if (m_originMode && m_modes.marginMode)
                col = std::max(col - b.marginLeft().value, 1);
            reply = csi() + "?" + std::to_string(row) + ";" + std::to_string(col) + ";1R";
            break;
        }
        case 15:
            reply = csi() + "?10n";
            break;
        case 25:
            reply = csi() + "?21n";
            break;
        case 26:
            reply = csi() + "?27;1;0;0n";
            break;
        case 55:
            reply = csi() + "?53n";
            break;
        case 56:
            reply = csi() + "?57;1n";
            break;
        case 62:
            reply = csi() + "0*{";
            break;
        case 63:
            reply = dcs() + std::to_string(pars.at(1)) + "!~0000" + st();
            break;
        case 75:
            reply = csi() + "?70n";
            break;
        case 85:
            reply = csi() + "?83n";
            break;
        default:
            break;
        }
    }
    if (!reply.empty())
        sendResponse({std::string_view(reply)});
}

void Terminal::cmdXTVERSION(const CsiParameters& pars) {
    if (pars.count != 1 || pars.values[0] != 0)
        return;
    std::string tag(kTermkitTag);
    if (!tag.empty() && tag[0] == 'v')
        tag.erase(0, 1);
    std::string identity = "Termkit " + tag;
    if (kTermkitVersion != "unknown")
        identity += "+" + std::string(kTermkitVersion);
    // Long identities are cut so the reply stays a reasonable size.
    if (identity.size() + 1 > 256)
        identity.resize(255);
    identity += ":";
    const std::string reply = "\x1bP>|" + identity + "\x1b\\";
    sendResponse({std::string_view(reply)});
}

void Terminal::cmdWindowOptions(const CsiParameters& pars) {
    if (m_delegate == nullptr)
        return;
    using K = WindowCommand::Kind;
    auto ask = [&](WindowCommand command) {
        if (auto bytes = m_delegate->windowCommand(*this, command))
            sendResponse({std::span<const uint8_t>(*bytes)});
    };
    const int p1 = pars.at(1);
    const int p2 = pars.at(2);
    switch (pars.at(0)) {
    case 1:
        ask({K::deiconifyWindow});
        break;
    case 2:
        ask({K::iconifyWindow});
        break;
    case 3:
        ask({K::moveWindowTo, p1, p2});
        break;
    case 4:
        ask({K::resizeWindowTo, p1, p2});
        break;
    case 5:
        ask({K::bringToFront});
        break;
    case 6:
        ask({K::sendToBack});
        break;
    case 7:
        ask({K::refreshWindow});
        break;
    case 8:
        ask({K::resizeTo, p2, p1});
        break;
    case 9:
        if (p1 == 0)
            ask({K::restoreMaximizedWindow});
        if (p1 == 1)
            ask({K::maximizeWindow});
        if (p1 == 2)
            ask({K::maximizeWindowVertically});
        if (p1 == 3)
            ask({K::maximizeWindowHorizontally});
        break;
    case 10:
        if (p1 == 0)
            ask({K::undoFullScreen});
        if (p1 == 1)
            ask({K::switchToFullScreen});
        if (p1 == 2)
            ask({K::toggleFullScreen});
        break;
    case 11:
        ask({K::reportTerminalState});
        break;
    case 13:
        ask({K::reportTerminalPosition});
        break;
    case 14: {
        const auto cell = m_delegate->cellSizeInPixels(*this);
        const int w = cell ? cell->first * cols() : 0;
        const int h = cell ? cell->second * rows() : 0;
        const std::string reply = csi() + "4;" + std::to_string(h) + ";" + std::to_string(w) + "t";
        sendResponse({std::string_view(reply)});
        break;
    }
    case 15: {
        const auto cell = m_delegate->cellSizeInPixels(*this);
        const int w = cell ? cell->first * cols() : 0;
        const int h = cell ? cell->second * rows() : 0;
        const std::string reply = csi() + "5;" + std::to_string(h) + ";" + std::to_string(w) + "t";
        sendResponse({std::string_view(reply)});
        break;
    }
    case 16: {
        const auto cell = m_delegate->cellSizeInPixels(*this);
        const std::string reply =
            cell ? csi() + "6;" + std::to_string(cell->second) + ";" + std::to_string(cell->first) + "t"
                 : csi() + "6;16;10t";
        sendResponse({std::string_view(reply)});
        break;
    }
    case 18: {
        const std::string reply = csi() + "8;" + std::to_string(rows()) + ";" + std::to_string(cols()) + "t";
        sendResponse({std::string_view(reply)});
        break;
    }
    case 19: {
        const std::string reply = csi() + "9;" + std::to_string(rows()) + ";" + std::to_string(cols()) + "t";
        sendResponse({std::string_view(reply)});
        break;
    }
    case 20: {
        const std::string reply = osc() + "L" + m_iconTitle + st();
        sendResponse({std::string_view(reply)});
        break;
    }
    case 21: {
        const std::string reply = osc() + "l" + m_terminalTitle + st();
        sendResponse({std::string_view(reply)});
        break;
    }
    case 22:
        if (p1 == 0 || p1 == 1)
            m_terminalIconStack.push_back(m_iconTitle);
        if (p1 == 0 || p1 == 2)
            m_terminalTitleStack.push_back(m_terminalTitle);
        break;
    case 23:
        if ((p1 == 0 || p1 == 1) && !m_terminalIconStack.empty()) {
            m_iconTitle = m_terminalIconStack.back();
            m_terminalIconStack.pop_back();
            m_delegate->setTerminalIconTitle(*this, m_iconTitle);
        }
        if ((p1 == 0 || p1 == 2) && !m_terminalTitleStack.empty()) {
            m_terminalTitle = m_terminalTitleStack.back();
            m_terminalTitleStack.pop_back();
            m_delegate->setTerminalTitle(*this, m_terminalTitle);
        }
        break;
    default:
        log("Unhandled Window command: " + std::to_string(pars.at(0)));
        break;
    }
}

} // namespace termkit
