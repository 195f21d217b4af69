#include "Termkit/links/TerminalLinks.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <any>
#include <memory>
#include <string_view>

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

// The characters a URL or a path may hold where a program broke it across rows by hand.
constexpr std::string_view kLinkEdgeCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~:/?#[]@!$&*+,;=%()";
// How many rows a link broken by hand may span: the join is a guess, so it stays local.
constexpr int kMaxImplicitJoinRows = 8;

bool isLinkEdgeCharacter(const CharData& cell) {
    return cell.code > 0 && cell.code < 0x80 &&
           kLinkEdgeCharacters.find(static_cast<char>(cell.code)) != std::string_view::npos;
}

// Whether a row reaches the right edge with a link character, and whether it begins with one.
struct LinkRowEdgeInfo {
    bool endsAtEdge = false;
    bool beginsWithLinkCharacter = false;
};

LinkRowEdgeInfo linkRowEdgeInfo(const Terminal& terminal, LineIndex row) {
    const BufferLine& line = terminal.buffer().line(row);
    LinkRowEdgeInfo info;
    const int cols = terminal.cols();
    info.endsAtEdge =
        line.count() >= cols && line.getTrimmedLength() == cols && isLinkEdgeCharacter(line[cols - 1]);
    info.beginsWithLinkCharacter = line.count() > 0 && isLinkEdgeCharacter(line[0]);
    return info;
}

// A row that continues the one above without the wrap flag: the program filled the row to the
// edge with link characters and went on at the start of the next.
bool canJoinImplicitRows(const Terminal& terminal, LineIndex upper, LineIndex lower) {
    const Buffer& buffer = terminal.buffer();
    if (upper.value < 0 || lower.value >= buffer.lineCount() || buffer.line(lower).isWrapped())
        return false;
    return linkRowEdgeInfo(terminal, upper).endsAtEdge &&
           linkRowEdgeInfo(terminal, lower).beginsWithLinkCharacter;
}

bool isImplicitContinuationRow(const Terminal& terminal, LineIndex row) {
    return row.value > 0 && canJoinImplicitRows(terminal, row - 1, row);
}

// The rows a logical line covers (joined by the wrap flag).
std::pair<LineIndex, LineIndex> wrappedLine(const Buffer& buffer, LineIndex row) {
    LineIndex first = row;
    while (first.value > 0 && buffer.line(first).isWrapped())
        --first;
    LineIndex last = row;
    while (wrapsInto(buffer, last))
        ++last;
    return {first, last};
}

// The logical line around a row as UTF-16, with each unit's cell, for the expression; with
// `heuristic`, lines a program broke by hand are joined too, and `seams` says where.
struct LineMap {
    icu::UnicodeString text;
    std::vector<Position> cells;
    std::vector<int> seams;
};

// The rows of a line and of the lines a program broke by hand around it.
std::pair<LineIndex, LineIndex> heuristicImplicitGroup(const Terminal& terminal, LineIndex row) {
    const Buffer& buffer = terminal.buffer();
    auto [first, last] = wrappedLine(buffer, row);
    while (last.value - first.value + 1 < kMaxImplicitJoinRows &&
           isImplicitContinuationRow(terminal, first)) {
        first = wrappedLine(buffer, first - 1).first;
    }
    while (last.value - first.value + 1 < kMaxImplicitJoinRows && last.value + 1 < buffer.lineCount() &&
           isImplicitContinuationRow(terminal, last + 1)) {
        last = wrappedLine(buffer, last + 1).second;
    }
    return {first, last};
}

// One row's text, appended to the map with each unit's cell.
void implicitLineSegmentText(const Terminal& terminal, LineIndex r, int length, LineMap& map) {
    const BufferLine& line = terminal.buffer().line(r);
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

LineMap buildImplicitLineMap(const Terminal& terminal, LineIndex row, bool heuristic) {
    const Buffer& buffer = terminal.buffer();
    const auto [first, last] = heuristic ? heuristicImplicitGroup(terminal, row) : wrappedLine(buffer, row);
    LineMap map;
    for (LineIndex r = first; r <= last; ++r) {
        if (r != first && !buffer.line(r).isWrapped())
            map.seams.push_back(map.text.length());
        const int length = r < last ? buffer.line(r).count() : buffer.line(r).getTrimmedLength();
        implicitLineSegmentText(terminal, r, length, map);
    }
    return map;
}

const icu::RegexPattern* implicitPattern() {
    static const std::unique_ptr<icu::RegexPattern> pattern = [] {
        UErrorCode status = U_ZERO_ERROR;
        UParseError error;
        std::unique_ptr<icu::RegexPattern> compiled(
            icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(kImplicitPattern), 0, error, status));
        return U_SUCCESS(status) ? std::move(compiled) : nullptr;
    }();
    return pattern.get();
}

// Each match of the expression over a line map, as its unit range with blanks the path
// part may take at the end of a row left out; `visit` returns true to stop.
template <typename Visit> void forEachImplicitMatch(const LineMap& map, Visit visit) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(implicitPattern()->matcher(map.text, status));
    while (U_SUCCESS(status) && matcher->find(status) && U_SUCCESS(status)) {
        const int begin = matcher->start(status);
        int end = matcher->end(status);
        while (end > begin && map.text[end - 1] == u' ')
            --end;
        if (end > begin && visit(begin, end))
            return;
    }
}

// The cells of a match, its first and last (a wide character's right half included).
std::pair<Position, Position> matchCells(const Terminal& terminal, const LineMap& map, int begin, int end) {
    const Position first = map.cells[static_cast<size_t>(begin)];
    Position last = map.cells[static_cast<size_t>(end) - 1];
    if (terminal.buffer().line(last.row)[last.col.value].width == 2)
        last.col += 1;
    return {first, last};
}

LinkMatch implicitMatch(const Terminal& terminal, const LineMap& map, int begin, int end) {
    const auto [first, last] = matchCells(terminal, map, begin, end);
    LinkMatch m;
    map.text.tempSubStringBetween(begin, end).toUTF8String(m.text);
    m.rowRanges = rangesOf(terminal, first, last);
    m.row = first.row;
    m.range = m.rowRanges.front().range;
    return m;
}

// The match over a line map that covers a position, and whether it crosses one of its seams.
std::optional<std::pair<LinkMatch, bool>> matchCovering(const Terminal& terminal, const LineMap& map,
                                                        Position p) {
    std::optional<std::pair<LinkMatch, bool>> found;
    forEachImplicitMatch(map, [&](int begin, int end) {
        const auto [first, last] = matchCells(terminal, map, begin, end);
        if (p.before(first) || last.before(p))
            return false;
        // seamContainsImplicitLink: the join is only taken when a link runs across it.
        const bool crossesSeam = std::any_of(map.seams.begin(), map.seams.end(),
                                             [&](int seam) { return begin < seam && seam < end; });
        found = std::pair(implicitMatch(terminal, map, begin, end), crossesSeam);
        return true;
    });
    return found;
}

std::optional<LinkMatch> implicitLinkMatch(const Terminal& terminal, Position p) {
    if (implicitPattern() == nullptr)
        return std::nullopt;
    // Rows a program broke by hand count only when a link crosses the break; else each line
    // stands alone, as the expression's own edges (a path ending a line) expect.
    const LineMap joined = buildImplicitLineMap(terminal, p.row, true);
    if (!joined.seams.empty()) {
        if (auto m = matchCovering(terminal, joined, p); m && m->second)
            return std::move(m->first);
    }
    const LineMap single = joined.seams.empty() ? joined : buildImplicitLineMap(terminal, p.row, false);
    if (auto m = matchCovering(terminal, single, p))
        return std::move(m->first);
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

std::vector<LinkMatch> links(const Terminal& terminal, LineIndex first, LineIndex last, LinkLookupMode mode) {
    std::vector<LinkMatch> out;
    const Buffer& buffer = terminal.buffer();
    first = std::max(first, LineIndex(0));
    last = std::min(last, LineIndex(buffer.lineCount() - 1));
    for (LineIndex r = first; r <= last; ++r) {
        const BufferLine& line = buffer.line(r);
        for (int c = 0; c < line.count(); ++c) {
            const uint16_t code = line[c].payload;
            if (code == 0 || (c > 0 && line[c - 1].payload == code))
                continue;
            // A link continued from the row above was listed there, unless that row is above the range.
            if (c == 0 && r > first && line.isWrapped() &&
                buffer.line(r - 1)[terminal.cols() - 1].payload == code)
                continue;
            if (auto m = explicitLinkMatch(terminal, Position(Col(c), r)))
                out.push_back(std::move(*m));
        }
    }
    if (mode != LinkLookupMode::explicitAndImplicit || implicitPattern() == nullptr)
        return out;
    for (LineIndex r = wrappedLine(buffer, first).first; r <= last;) {
        const LineIndex end = wrappedLine(buffer, r).second;
        const LineMap map = buildImplicitLineMap(terminal, r, false);
        forEachImplicitMatch(map, [&](int begin, int stop) {
            const Position from = map.cells[static_cast<size_t>(begin)];
            // The text of an explicit link is that link's, already listed.
            if (buffer.line(from.row)[from.col.value].payload == 0)
                out.push_back(implicitMatch(terminal, map, begin, stop));
            return false;
        });
        r = end + 1;
    }
    return out;
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
