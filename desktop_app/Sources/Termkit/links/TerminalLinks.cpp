#include "Termkit/links/TerminalLinks.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <any>
#include <memory>

#include "Termkit/buffer/TinyAtom.h"
#include "Termkit/engine/Terminal.h"

namespace termkit::TerminalLinks {

namespace {

// URLs with a scheme; paths starting ./ ../ ~/ $VAR/ .dir/ or /; relative paths with a
// directory. A URL may hold a bracketed IPv6 host and paired brackets, and does not end
// in "," or "."; a path may hold single blanks when what follows goes on as a path.
constexpr const char* kImplicitPattern =
    "(?:https?://|mailto:|ftp://|file:|ssh:|git://|ssh://|tel:|magnet:|ipfs://|ipns://|gemini://|gopher://"
    "|news:)"
    "(?:(?:\\[[:0-9a-fA-F]+\\](?::[0-9]+)?)|[\\w\\-.~:/?#@!$&*+,;=%](?:(?:[\\(\\[]\\w*[\\)\\]]))?)+(?<![,.])"
    "|(?:\\.\\.\\/|\\.\\/|(?<!\\w)~\\/|(?:[\\w][\\w\\-.]*\\/)*(?<!\\w)\\$[A-Za-z_]\\w*\\/"
    "|\\.[\\w][\\w\\-.]*\\/"
    "|(?<![\\w~\\/])\\/(?!\\/))(?:(?=[\\w\\-.~:\\/?#@!$&*+;=%]*\\.)[\\w\\-.~:\\/?#@!$&*+;=%]+(?:(?<!:) "
    "(?!\\w+:\\/\\/)[\\w\\-.~:\\/?#@!$&*+;=%]*[\\/.])*(?<!:)(?: +(?= *$))?|(?![\\w\\-.~:\\/?#@!$&*+;=%]*\\.)"
    "[\\w\\-.~:\\/?#@!$&*+;=%]+(?:(?<!:) (?!\\w+:\\/\\/)[\\w\\-.~:\\/?#@!$&*+;=%]+)*(?<!:)(?: +(?= *$))?)"
    "|(?=[\\w\\-.~:\\/?#@!$&*+;=%]*\\.)(?<!\\w)[\\w][\\w\\-.]*\\/[\\w\\-.~:\\/?#@!$&*+;=%]+(?:(?<!:) "
    "(?!\\w+:\\/\\/)[\\w\\-.~:\\/?#@!$&*+;=%]*[\\/.])*(?<!:)(?: +(?= *$))?";

Position bufferPosition(const Terminal& terminal, LinkLookupLocation at) {
    if (at.kind == LinkLookupLocation::Kind::buffer)
        return at.position;
    return {at.position.col, terminal.buffer().yDisp() + at.position.row.value};
}

bool wrapsInto(const Buffer& buffer, LineIndex row) {
    return row.value + 1 < buffer.lineCount() && buffer.line(row + 1).isWrapped();
}

// The rows a run of cells covers, from (row, first) to (lastRow, last) inclusive.
std::vector<RowRange> rangesOf(const Terminal& terminal, Position first, Position last) {
    std::vector<RowRange> out;
    for (LineIndex r = first.row; r <= last.row; ++r) {
        const int from = r == first.row ? first.col.value : 0;
        const int to = r == last.row ? last.col.value + 1 : terminal.cols();
        out.push_back({r, {from, to}});
    }
    return out;
}

std::optional<LinkMatch> explicitLinkMatch(const Terminal& terminal, Position p) {
    const Buffer& buffer = terminal.buffer();
    const auto payloadAt = [&](Position q) -> uint16_t {
        const BufferLine& line = buffer.line(q.row);
        return q.col.value < line.count() ? line[q.col.value].payload : 0;
    };
    const uint16_t code = payloadAt(p);
    if (code == 0)
        return std::nullopt;
    const std::any target = terminal.tables().payloads.target(code);
    const auto* payload = std::any_cast<std::string>(&target);
    if (payload == nullptr)
        return std::nullopt;
    // Extend through cells of the same link, along wrapped rows.
    Position first = p;
    while (true) {
        Position prev = first;
        if (first.col.value > 0)
            prev.col -= 1;
        else if (first.row.value > 0 && buffer.line(first.row).isWrapped())
            prev = {Col(terminal.cols() - 1), first.row - 1};
        else
            break;
        if (payloadAt(prev) != code)
            break;
        first = prev;
    }
    Position last = p;
    while (true) {
        Position next = last;
        if (last.col.value + 1 < terminal.cols())
            next.col += 1;
        else if (wrapsInto(buffer, last.row))
            next = {Col(0), last.row + 1};
        else
            break;
        if (payloadAt(next) != code)
            break;
        last = next;
    }
    LinkMatch m;
    std::tie(m.params, m.text) = parseHyperlinkPayload(*payload);
    m.isExplicit = true;
    m.rowRanges = rangesOf(terminal, first, last);
    m.row = first.row;
    m.range = m.rowRanges.front().range;
    return m;
}

// The logical line around a row as UTF-16, with each unit's cell, for the expression.
struct LineMap {
    icu::UnicodeString text;
    std::vector<Position> cells;
};

LineMap buildImplicitLineMap(const Terminal& terminal, LineIndex row) {
    const Buffer& buffer = terminal.buffer();
    LineIndex first = row;
    while (first.value > 0 && buffer.line(first).isWrapped())
        --first;
    LineMap map;
    for (LineIndex r = first; r.value < buffer.lineCount(); ++r) {
        if (r != first && !buffer.line(r).isWrapped())
            break;
        const BufferLine& line = buffer.line(r);
        const int length = wrapsInto(buffer, r) ? line.count() : line.getTrimmedLength();
        for (int c = 0; c < length; ++c) {
            const CharData& cell = line[c];
            if (cell.width == 0)
                continue;
            const std::string character = cell.code == 0 ? std::string(" ") : terminal.character(cell.code);
            const icu::UnicodeString units = icu::UnicodeString::fromUTF8(character);
            map.text.append(units);
            map.cells.insert(map.cells.end(), static_cast<size_t>(units.length()), Position(Col(c), r));
        }
    }
    return map;
}

std::optional<LinkMatch> implicitLinkMatch(const Terminal& terminal, Position p) {
    static const std::unique_ptr<icu::RegexPattern> pattern = [] {
        UErrorCode status = U_ZERO_ERROR;
        UParseError error;
        std::unique_ptr<icu::RegexPattern> compiled(
            icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(kImplicitPattern), 0, error, status));
        return U_SUCCESS(status) ? std::move(compiled) : nullptr;
    }();
    if (!pattern)
        return std::nullopt;
    const LineMap map = buildImplicitLineMap(terminal, p.row);
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(map.text, status));
    if (U_FAILURE(status))
        return std::nullopt;
    while (matcher->find(status) && U_SUCCESS(status)) {
        const int begin = matcher->start(status);
        int end = matcher->end(status);
        // Blanks the path part may take at the end of a row are not part of the link.
        while (end > begin && map.text[end - 1] == u' ')
            --end;
        if (end <= begin)
            continue;
        const Position first = map.cells[static_cast<size_t>(begin)];
        Position last = map.cells[static_cast<size_t>(end) - 1];
        const BufferLine& lastLine = terminal.buffer().line(last.row);
        if (lastLine[last.col.value].width == 2)
            last.col += 1;
        const bool covers = !p.before(first) && !last.before(p);
        if (!covers)
            continue;
        LinkMatch m;
        map.text.tempSubStringBetween(begin, end).toUTF8String(m.text);
        m.rowRanges = rangesOf(terminal, first, last);
        m.row = first.row;
        m.range = m.rowRanges.front().range;
        return m;
    }
    return std::nullopt;
}

} // namespace

const char* implicitLinkPattern() {
    return kImplicitPattern;
}

std::pair<std::string, std::string> parseHyperlinkPayload(const std::string& text) {
    const size_t semicolon = text.find(';');
    if (semicolon == std::string::npos)
        return {std::string(), text};
    return {text.substr(0, semicolon), text.substr(semicolon + 1)};
}

std::optional<LinkMatch> link(const Terminal& terminal, LinkLookupLocation at, LinkLookupMode mode) {
    const Position p = bufferPosition(terminal, at);
    if (p.row.value < 0 || p.row.value >= terminal.buffer().lineCount() || p.col.value < 0 ||
        p.col.value >= terminal.cols())
        return std::nullopt;
    if (auto m = explicitLinkMatch(terminal, p))
        return m;
    if (mode == LinkLookupMode::explicitAndImplicit)
        return implicitLinkMatch(terminal, p);
    return std::nullopt;
}

} // namespace termkit::TerminalLinks
