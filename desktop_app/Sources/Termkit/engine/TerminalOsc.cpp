// Operating system commands: titles, colours, clipboard, notifications, links, images.

#include <unicode/utf8.h>

#include <algorithm>
#include <string>

#include "Termkit/engine/Terminal.h"
#include "Termkit/parser/EscapeSequenceParser.h"

namespace termkit {

namespace {

std::string text(std::span<const uint8_t> bytes) {
    return std::string(bytes.begin(), bytes.end());
}

bool validUtf8(std::span<const uint8_t> bytes) {
    int32_t i = 0;
    const auto length = static_cast<int32_t>(bytes.size());
    while (i < length) {
        UChar32 c = 0;
        U8_NEXT(bytes.data(), i, length, c);
        if (c < 0)
            return false;
    }
    return true;
}

std::vector<std::string> split(const std::string& s, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        const size_t at = s.find(separator, start);
        parts.push_back(s.substr(start, at == std::string::npos ? std::string::npos : at - start));
        if (at == std::string::npos)
            break;
        start = at + 1;
    }
    return parts;
}

std::optional<std::vector<uint8_t>> base64Decode(std::string_view in) {
    auto value = [](char c) -> int {
        if (c >= 'A' && c <= 'Z')
            return c - 'A';
        if (c >= 'a' && c <= 'z')
            return c - 'a' + 26;
        if (c >= '0' && c <= '9')
            return c - '0' + 52;
        if (c == '+')
            return 62;
        if (c == '/')
            return 63;
        return -1;
    };
    std::vector<uint8_t> out;
    uint32_t buffer = 0;
    int bits = 0;
    size_t i = 0;
    for (; i < in.size() && in[i] != '='; ++i) {
        const int v = value(in[i]);
        if (v < 0)
            return std::nullopt;
        buffer = buffer << 6 | static_cast<uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<uint8_t>(buffer >> bits));
        }
    }
    for (; i < in.size(); ++i) {
        if (in[i] != '=')
            return std::nullopt;
    }
    return out;
}

std::string base64Encode(std::span<const uint8_t> in) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        const uint32_t v = in[i] << 16 | in[i + 1] << 8 | in[i + 2];
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    if (i + 1 == in.size()) {
        const uint32_t v = in[i] << 16;
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += "==";
    } else if (i + 2 == in.size()) {
        const uint32_t v = in[i] << 16 | in[i + 1] << 8;
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

ImageSizeRequest parseImageSize(const std::string& value) {
    if (value.empty() || value == "auto")
        return {ImageSizeRequest::Kind::automatic, 0};
    auto number = [](const std::string& digits) {
        const auto n = parseDecimal(
            std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(digits.data()), digits.size()));
        return n ? static_cast<int>(std::min<int64_t>(*n, INT32_MAX)) : -1;
    };
    if (value.size() > 2 && value.ends_with("px")) {
        const int n = number(value.substr(0, value.size() - 2));
        if (n >= 0)
            return {ImageSizeRequest::Kind::pixels, n};
    } else if (value.size() > 1 && value.back() == '%') {
        const int n = number(value.substr(0, value.size() - 1));
        if (n >= 0)
            return {ImageSizeRequest::Kind::percent, n};
    } else {
        const int n = number(value);
        if (n >= 0)
            return {ImageSizeRequest::Kind::cells, n};
    }
    return {ImageSizeRequest::Kind::automatic, 0};
}

} // namespace

void Terminal::dispatchOsc(int code, std::span<const uint8_t> data) {
    m_hasLastChar = false;
    switch (code) {
    case 0:
        oscSetTitle(data, true, true);
        break;
    case 1:
        oscSetTitle(data, false, true);
        break;
    case 2:
        oscSetTitle(data, true, false);
        break;
    case 4:
        oscChangeOrQueryColorIndex(data);
        break;
    case 6:
        oscSetCurrentDocument(data);
        break;
    case 7:
        oscSetCurrentDirectory(data);
        break;
    case 8:
        oscHyperlink(data);
        break;
    case 9:
        if (!parseProgressReport(data))
            logUnknownOsc(code);
        break;
    case 10:
        oscSetColors(data, 0);
        break;
    case 11:
        oscSetColors(data, 1);
        break;
    case 12:
        oscSetColors(data, 2);
        break;
    case 52:
        oscClipboard(data);
        break;
    case 104:
        oscResetColor(data);
        break;
    case 112:
        if (m_delegate)
            m_delegate->setCursorColor(*this, std::nullopt);
        break;
    case 133:
        m_extensions->oscSemanticPrompt(*this, data);
        break;
    case 777:
        oscNotification(data);
        break;
    case 1337:
        osciTerm2(data);
        break;
    default:
        logUnknownOsc(code);
        break;
    }
}

void Terminal::oscSetTitle(std::span<const uint8_t> data, bool title, bool icon) {
    // A title that is not valid UTF-8 becomes empty rather than garbled.
    const std::string value = validUtf8(data) ? text(data) : std::string();
    if (title) {
        m_terminalTitle = value;
        if (m_delegate)
            m_delegate->setTerminalTitle(*this, value);
    }
    if (icon && !title) {
        m_iconTitle = value;
        if (m_delegate)
            m_delegate->setTerminalIconTitle(*this, value);
    }
}

void Terminal::oscChangeOrQueryColorIndex(std::span<const uint8_t> data) {
    const std::vector<std::string> parts = split(text(data), ';');
    for (size_t i = 0; i + 1 < parts.size(); i += 2) {
        const auto index = parseDecimal(
            std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(parts[i].data()), parts[i].size()));
        if (!index || *index > 255)
            continue;
        const int n = static_cast<int>(*index);
        if (parts[i + 1] == "?") {
            const std::string reply =
                osc() + "4;" + std::to_string(n) + ";" + m_ansiColors[n].formatAsXcolor() + st();
            sendResponse({std::string_view(reply)});
        } else if (const auto color = Color::parseColor(std::string_view(parts[i + 1]))) {
            m_ansiColors[n] = *color;
            if (m_delegate)
                m_delegate->colorChanged(*this, n);
        }
    }
}

void Terminal::oscSetColors(std::span<const uint8_t> data, int first) {
    // Each further item moves on to the next of foreground, background, cursor.
    const std::vector<std::string> parts = split(text(data), ';');
    int which = first;
    for (const std::string& spec : parts) {
        if (which > 2)
            break;
        const auto [fg, bg] =
            m_delegate ? m_delegate->getColors(*this) : std::pair(m_foregroundColor, m_backgroundColor);
        if (spec == "?") {
            Color current = which == 0 ? fg : which == 1 ? bg : m_cursorColor.value_or(fg);
            const std::string reply =
                osc() + std::to_string(10 + which) + ";" + current.formatAsXcolor() + st();
            sendResponse({std::string_view(reply)});
        } else if (const auto color = Color::parseColor(std::string_view(spec))) {
            if (which == 0) {
                if (m_delegate) {
                    m_delegate->setForegroundColor(*this, *color);
                } else {
                    storeForegroundColor(*color);
                }
            } else if (which == 1) {
                if (m_delegate) {
                    m_delegate->setBackgroundColor(*this, *color);
                } else {
                    storeBackgroundColor(*color);
                }
            } else {
                if (m_delegate) {
                    m_delegate->setCursorColor(*this, *color);
                } else {
                    storeCursorColor(*color);
                }
            }
        }
        ++which;
    }
}

void Terminal::oscResetColor(std::span<const uint8_t> data) {
    const std::vector<Color> palette = [&] {
        const std::vector<Color>& base =
            m_installedColors.size() >= 16 ? m_installedColors : m_defaultAnsiColors;
        switch (m_options.ansi256PaletteStrategy) {
        case Ansi256PaletteStrategy::xterm:
            return generateXtermPalette(base);
        case Ansi256PaletteStrategy::base16Lab:
            return generateBase16LabPalette(base, m_foregroundColor, m_backgroundColor, false);
        case Ansi256PaletteStrategy::base16LabHarmonious:
            return generateBase16LabPalette(base, m_foregroundColor, m_backgroundColor, true);
        }
        return generateXtermPalette(base);
    }();
    if (data.empty()) {
        std::copy(palette.begin(), palette.begin() + 256, m_ansiColors.begin());
        if (m_delegate)
            m_delegate->colorChanged(*this, std::nullopt);
        return;
    }
    for (const std::string& item : split(text(data), ';')) {
        const auto index = parseDecimal(
            std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(item.data()), item.size()));
        if (!index || *index > 255)
            continue;
        m_ansiColors[*index] = palette[*index];
        if (m_delegate)
            m_delegate->colorChanged(*this, static_cast<int>(*index));
    }
}

void Terminal::oscClipboard(std::span<const uint8_t> data) {
    const std::string body = text(data);
    const size_t semicolon = body.find(';');
    if (semicolon == std::string::npos)
        return;
    std::string selection = body.substr(0, semicolon);
    if (selection.empty())
        selection = "c";
    const std::string content = body.substr(semicolon + 1);
    if (content == "?") {
        if (!m_delegate)
            return;
        if (const auto clip = m_delegate->clipboardRead(*this)) {
            const std::string reply = osc() + "52;" + selection + ";" + base64Encode(*clip) + st();
            sendResponse({std::string_view(reply)});
        }
        return;
    }
    if (const auto decoded = base64Decode(content)) {
        if (m_delegate)
            m_delegate->clipboardCopy(*this, *decoded);
    }
}

void Terminal::oscNotification(std::span<const uint8_t> data) {
    const std::vector<std::string> parts = split(text(data), ';');
    if (parts.size() < 3 || parts[0] != "notify")
        return;
    std::string body = parts[2];
    for (size_t i = 3; i < parts.size(); ++i)
        body += ";" + parts[i];
    if (m_delegate)
        m_delegate->notify(*this, parts[1], body);
}

bool Terminal::parseProgressReport(std::span<const uint8_t> data) {
    const std::vector<std::string> parts = split(text(data), ';');
    if (parts.size() < 2 || parts.size() > 3 || parts[0] != "4")
        return false;
    if (parts[1].size() != 1 || parts[1][0] < '0' || parts[1][0] > '4')
        return false;
    ProgressReport report;
    report.state = static_cast<ProgressReport::State>(parts[1][0] - '0');
    if (parts.size() == 3) {
        const auto n = parseDecimal(
            std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(parts[2].data()), parts[2].size()));
        if (!n)
            return false;
        const int progress = static_cast<int>(std::clamp<int64_t>(*n, 0, 100));
        if (progress != 0)
            report.progress = progress;
    }
    if (report.state == ProgressReport::State::set && !report.progress)
        report.progress = 0;
    if (m_delegate)
        m_delegate->progressReport(*this, report);
    return true;
}

void Terminal::osciTerm2(std::span<const uint8_t> data) {
    const std::string body = text(data);
    const size_t colon = body.find(':');
    if (body.rfind("File=", 0) == 0 && colon != std::string::npos) {
        bool inlineImage = false;
        bool preserve = true;
        ImageSizeRequest width;
        ImageSizeRequest height;
        for (const std::string& item : split(body.substr(5, colon - 5), ';')) {
            const size_t eq = item.find('=');
            if (eq == std::string::npos)
                continue;
            const std::string key = item.substr(0, eq);
            const std::string value = item.substr(eq + 1);
            if (key == "inline")
                inlineImage = value == "1";
            if (key == "width")
                width = parseImageSize(value);
            if (key == "height")
                height = parseImageSize(value);
            if (key == "preserveAspectRatio")
                preserve = value != "0";
        }
        if (inlineImage) {
            if (const auto bytes = base64Decode(std::string_view(body).substr(colon + 1))) {
                if (m_delegate)
                    m_delegate->createImage(*this, *bytes, width, height, preserve);
            }
            return;
        }
    }
    if (m_delegate)
        m_delegate->iTermContent(*this, data);
}

void Terminal::oscHyperlink(std::span<const uint8_t> data) {
    // A body of exactly ";" closes the link; anything else opens one with the whole text.
    if (data.size() == 1 && data[0] == ';') {
        setActiveHyperlink(std::nullopt);
        return;
    }
    const bool ascii = std::all_of(data.begin(), data.end(), [](uint8_t c) { return c < 0x80; });
    setActiveHyperlink(ascii ? text(data) : std::string());
}

void Terminal::oscSetCurrentDirectory(std::span<const uint8_t> data) {
    if (m_delegate && !m_delegate->isProcessTrusted(*this))
        return;
    m_hostCurrentDirectory = text(data);
    if (m_delegate)
        m_delegate->hostCurrentDirectoryUpdated(*this);
}

void Terminal::oscSetCurrentDocument(std::span<const uint8_t> data) {
    if (m_delegate && !m_delegate->isProcessTrusted(*this))
        return;
    m_hostCurrentDocument = text(data);
    if (m_delegate)
        m_delegate->hostCurrentDocumentUpdated(*this);
}

} // namespace termkit
