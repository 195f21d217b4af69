// The line-level helpers of the planner: splitting, headings, sections and block search.
#include "ImproveApply/CharacterClasses.h"
#include "ImproveApply/GuideMerge.h"

namespace improve::GuideMerge {
namespace {

// Markdown knows six heading levels; a longer run of "#" is ordinary text.
constexpr int kDeepestHeading = 6;

bool runMatches(const QStringList& trimmedBlock, const QStringList& lines, qsizetype start) {
    for (qsizetype i = 0; i < trimmedBlock.size(); ++i) {
        if (!text::sameText(trimmedBlock[i], text::trimHorizontal(lines[start + i])))
            return false;
    }
    return true;
}

} // namespace

QStringList splitLines(const QString& text) {
    QStringList lines = text.split(QChar(u'\n'));
    // Only one empty piece goes: it is the final newline's, and any other empty piece
    // before it is a real blank line.
    if (lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

int headingLevel(QStringView line) {
    qsizetype count = 0;
    while (count < line.size() && line[count] == u'#')
        ++count;
    if (count == 0 || count > kDeepestHeading)
        return 0;
    // "#" alone and "## Rules" are headings; "##x" and "#\tx" are not.
    if (count == line.size() || line[count] == u' ')
        return int(count);
    return 0;
}

std::optional<qsizetype> indexOfBlock(const QStringList& block, const QStringList& lines) {
    if (block.isEmpty() || block.size() > lines.size())
        return std::nullopt;
    QStringList trimmedBlock;
    trimmedBlock.reserve(block.size());
    for (const QString& line : block)
        trimmedBlock.append(text::trimHorizontal(line).toString());
    // A plain scan: guide files are small, and re-trimming each candidate keeps the
    // comparison rule in one place.
    for (qsizetype start = 0; start <= lines.size() - block.size(); ++start) {
        if (runMatches(trimmedBlock, lines, start))
            return start;
    }
    return std::nullopt;
}

std::optional<qsizetype> indexOfHeading(QStringView heading, const QStringList& lines) {
    if (heading.isEmpty())
        return std::nullopt;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        if (text::sameText(text::trimHorizontal(lines[i]), heading))
            return i;
    }
    return std::nullopt;
}

qsizetype endOfSection(qsizetype startingAt, const QStringList& lines, QStringView heading) {
    // The level comes from the section string the suggestion names, not from the file's
    // line, so a plain "Rules" (level 0) always runs to the end of the file.
    const int level = headingLevel(heading);
    for (qsizetype i = startingAt + 1; i < lines.size(); ++i) {
        const int l = headingLevel(text::trimHorizontal(lines[i]));
        if (l >= 1 && level >= l)
            return i;
    }
    return lines.size();
}

} // namespace improve::GuideMerge
