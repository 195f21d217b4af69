#include "TermkitTests/golden/GoldenScript.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "Termkit/buffer/CharacterTable.h"
#include "Termkit/buffer/TinyAtom.h"
#include "Termkit/engine/ScreenText.h"
#include "Termkit/engine/Terminal.h"
#include "TermkitTests/fakes/ManualScheduler.h"
#include "TermkitTests/fakes/RecordingTerminalDelegate.h"

namespace termkit::testing {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    throw std::runtime_error(std::string("bad hex digit ") + c);
}

std::string rest(const std::string& line, size_t afterWord) {
    const size_t start = line.find_first_not_of(' ', afterWord);
    return start == std::string::npos ? std::string() : line.substr(start);
}

std::pair<std::string, std::string> split1(const std::string& line) {
    const size_t space = line.find(' ');
    if (space == std::string::npos)
        return {line, ""};
    return {line.substr(0, space), rest(line, space)};
}

} // namespace

std::string unescapeFeed(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        switch (c) {
        case 'e':
            out += '\x1b';
            break;
        case 'r':
            out += '\r';
            break;
        case 'n':
            out += '\n';
            break;
        case 't':
            out += '\t';
            break;
        case 'a':
            out += '\a';
            break;
        case 'b':
            out += '\b';
            break;
        case 's':
            out += ' ';
            break;
        case '\\':
            out += '\\';
            break;
        case 'x':
            out += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
            i += 2;
            break;
        case 'u':
        case 'U': {
            const int digits = c == 'u' ? 4 : 8;
            char32_t scalar = 0;
            for (int k = 1; k <= digits; ++k)
                scalar = scalar * 16 + static_cast<char32_t>(hexDigit(text[i + k]));
            appendUtf8(scalar, out);
            i += digits;
            break;
        }
        default:
            throw std::runtime_error(std::string("unknown escape \\") + c);
        }
    }
    return out;
}

std::vector<GoldenCase> loadGoldenCases(const std::string& folder) {
    std::vector<GoldenCase> cases;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == ".script")
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const auto& path : files) {
        std::ifstream in(path);
        std::string line;
        int number = 0;
        GoldenCase* current = nullptr;
        bool inExpect = false;
        while (std::getline(in, line)) {
            if (line.rfind("case ", 0) == 0) {
                if (current)
                    current->endLine = number;
                cases.push_back({path.stem().string(), rest(line, 4), {}, {}, -1, 0});
                current = &cases.back();
                inExpect = false;
            } else if (current && line == "expect") {
                inExpect = true;
                current->expectLine = number;
            } else if (current && inExpect) {
                if (!line.empty())
                    current->expected.push_back(line);
            } else if (current && !line.empty() && line[0] != '#') {
                current->steps.push_back(line);
            }
            ++number;
        }
        if (current)
            current->endLine = number;
    }
    return cases;
}

std::vector<std::string> runGoldenCase(const GoldenCase& c) {
    TerminalOptions options;
    options.cols = 20;
    options.rows = 4;
    options.scrollback = 100;
    bool history = false;
    RecordingTerminalDelegate host;
    ManualScheduler scheduler;
    std::unique_ptr<Terminal> terminal;
    std::vector<std::string> logs;
    auto live = [&]() -> Terminal& {
        if (!terminal) {
            terminal = std::make_unique<Terminal>(&host, options, &scheduler);
            terminal->setLogSink([&logs](std::string_view line) { logs.emplace_back(line); });
        }
        return *terminal;
    };
    for (const std::string& step : c.steps) {
        const auto [word, args] = split1(step);
        std::istringstream in(args);
        if (word == "size") {
            in >> options.cols >> options.rows;
        } else if (word == "option") {
            const auto [key, value] = split1(args);
            if (key == "termName")
                options.termName = value;
            else if (key == "scrollback")
                options.scrollback = std::stoi(value);
            else if (key == "convertEol")
                options.convertEol = value == "on";
            else if (key == "sixel")
                options.enableSixelReported = value == "on";
            else if (key == "regionalIndicator")
                options.regionalIndicatorWidth =
                    value == "narrow" ? RegionalIndicatorWidth::narrow : RegionalIndicatorWidth::wide;
            else if (key == "palette")
                options.ansi256PaletteStrategy = value == "xterm" ? Ansi256PaletteStrategy::xterm
                                                 : value == "harmonious"
                                                     ? Ansi256PaletteStrategy::base16LabHarmonious
                                                     : Ansi256PaletteStrategy::base16Lab;
            else if (key == "history")
                history = value == "on";
            else
                throw std::runtime_error("unknown option " + key);
        } else if (word == "set") {
            const auto [key, value] = split1(args);
            Terminal& t = live();
            if (key == "send8bit")
                t.feed(value == "on" ? "\x1b G" : "\x1b F"); // S8C1T and S7C1T
            else if (key == "trusted")
                host.trusted = value == "on";
            else if (key == "userScrolling")
                t.setUserScrolling(value == "on");
            else if (key == "silentLog")
                t.setSilentLog(value == "on");
            else if (key == "cellSize") {
                std::istringstream v(value);
                int w = 0, h = 0;
                v >> w >> h;
                host.cellSize = std::pair(w, h);
            } else if (key == "clipboard") {
                const std::string bytes = unescapeFeed(value);
                host.clipboard = std::vector<uint8_t>(bytes.begin(), bytes.end());
            } else if (key == "windowReply") {
                const std::string bytes = unescapeFeed(value);
                host.windowReply = std::vector<uint8_t>(bytes.begin(), bytes.end());
            } else {
                throw std::runtime_error("unknown setting " + key);
            }
        } else if (word == "feed") {
            live().feed(unescapeFeed(args));
        } else if (word == "resize") {
            int cols = 0, rows = 0;
            in >> cols >> rows;
            live().resize(cols, rows);
        } else if (word == "tick") {
            int ms = 0;
            in >> ms;
            live();
            scheduler.advance(std::chrono::milliseconds(ms));
        } else {
            throw std::runtime_error("unknown directive " + word);
        }
    }
    Terminal& t = live();
    std::vector<std::string> out;
    const Buffer& b = t.buffer();
    if (history) {
        for (LineIndex i(0); i < b.yBase(); ++i)
            out.push_back("^" + rowText(b.line(i), t.tables().characters));
    }
    for (const std::string& row : screenText(t))
        out.push_back("|" + row);
    const auto [col, row] = t.getCursorLocation();
    out.push_back("cursor " + std::to_string(row.value) + " " + std::to_string(col.value));
    for (ScreenRow r(0); r <= b.lastRow(); ++r) {
        const std::string runs = attributeRuns(t, r);
        if (!runs.empty())
            out.push_back("attrs " + std::to_string(r.value) + ": " + runs);
    }
    for (ScreenRow r(0); r <= b.lastRow(); ++r) {
        // Cells with a payload, as runs of the payload's text.
        const BufferLine& line = b.screenLine(r);
        std::string runs;
        for (int c = 0; c < line.count();) {
            const uint16_t payload = line[c].payload;
            int end = c;
            while (end + 1 < line.count() && line[end + 1].payload == payload)
                ++end;
            if (payload != 0) {
                const std::any value = t.tables().payloads.target(payload);
                const auto* text = std::any_cast<std::string>(&value);
                runs += (runs.empty() ? "" : " | ") + std::to_string(c) + "-" + std::to_string(end) + " " +
                        (text ? *text : std::string("?"));
            }
            c = end + 1;
        }
        if (!runs.empty())
            out.push_back("links " + std::to_string(r.value) + ": " + runs);
    }
    for (const auto& reply : host.replies)
        out.push_back("reply " + reply);
    for (const auto& event : host.events)
        out.push_back("event " + event);
    for (const auto& line : logs)
        out.push_back("log " + escaped(line));
    return out;
}

} // namespace termkit::testing
