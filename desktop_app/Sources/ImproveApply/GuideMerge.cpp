// Planning a rule or a skill, and taking a rule out again.
#include "ImproveApply/GuideMerge.h"

#include "ImproveApply/CharacterClasses.h"

namespace improve::GuideMerge {
namespace {

// Where new lines go in a file and which lines the diff shows as the old text.
struct Insertion {
    QStringList old;
    qsizetype index = 0;
    QStringList added;
};

QString joinWithFinalNewline(const QStringList& lines) {
    return lines.join(QChar(u'\n')) + QChar(u'\n');
}

void dropTrailingBlankLines(QStringList& lines) {
    while (!lines.isEmpty() && text::isBlank(lines.last()))
        lines.removeLast();
}

// The body as it is recorded and searched for: only line breaks come off its ends, so the
// first line's indentation and the last line's trailing blanks survive.
Result<QString, PlanError> insertedTextOf(const QString& body) {
    QString inserted = text::trimNewlines(body).toString();
    if (text::trimWhiteSpace(inserted).isEmpty())
        return PlanError::emptyBody();
    return inserted;
}

// A file that is written whole: everything in the diff is an addition.
Plan planWholeFile(const QString& contents, const QString& inserted, const QString& path) {
    const QStringList lines = splitLines(contents);
    return Plan{contents, inserted, false, true, unifiedDiff({}, lines, path, 0, lines.size(), kDiffContext)};
}

// No such section yet: the rule goes at the end, under a new heading when there is one,
// after exactly one empty line that replaces whatever blank lines ended the file.
Insertion appendAtEnd(QStringList lines, const QString& heading, const QStringList& block) {
    dropTrailingBlankLines(lines);
    Insertion insertion{lines, lines.size(), {QString()}};
    if (!heading.isEmpty())
        insertion.added << heading << QString();
    insertion.added << block;
    return insertion;
}

// The rule lands right after the section's last line of text; the blank lines that kept
// the section apart from the next heading stay behind it.
Insertion insertIntoSection(const QStringList& lines, qsizetype h, const QString& heading,
                            const QStringList& block) {
    qsizetype index = endOfSection(h, lines, heading);
    while (index > h + 1 && text::isBlank(lines[index - 1]))
        --index;
    return Insertion{lines, index, block};
}

} // namespace

Result<Plan, PlanError> planRule(const std::optional<QString>& existing, const QString& section,
                                 const QString& body, const QString& path) {
    const auto inserted = insertedTextOf(body);
    if (!inserted)
        return inserted.error();
    const QString heading = text::trimWhiteSpace(section).toString();
    // An empty file is planned exactly as an absent one.
    if (!existing || existing->isEmpty()) {
        const QString contents = heading.isEmpty()
                                     ? *inserted + QChar(u'\n')
                                     : heading + QStringLiteral("\n\n") + *inserted + QChar(u'\n');
        return planWholeFile(contents, *inserted, path);
    }
    const QStringList lines = splitLines(*existing);
    const QStringList block = splitLines(*inserted);
    // The rule counts as present wherever it stands, not only under the wanted section.
    if (indexOfBlock(block, lines))
        return Plan{*existing, *inserted, true, false, QString()};

    const auto h = indexOfHeading(heading, lines);
    const Insertion insertion =
        h ? insertIntoSection(lines, *h, heading, block) : appendAtEnd(lines, heading, block);
    QStringList updated = insertion.old;
    for (qsizetype i = 0; i < insertion.added.size(); ++i)
        updated.insert(insertion.index + i, insertion.added[i]);
    return Plan{
        joinWithFinalNewline(updated), *inserted, false, false,
        unifiedDiff(insertion.old, updated, path, insertion.index, insertion.added.size(), kDiffContext)};
}

Result<Plan, PlanError> planSkill(const std::optional<QString>& existing, const QString& body,
                                  const QString& path) {
    // Refused before the body is looked at: even an empty file at the path is someone's.
    if (existing)
        return PlanError::skillAlreadyExists(path);
    const auto inserted = insertedTextOf(body);
    if (!inserted)
        return inserted.error();
    return planWholeFile(*inserted + QChar(u'\n'), *inserted, path);
}

std::optional<QString> undoRule(const QString& contents, const QString& insertedText,
                                const QString& section) {
    const QString block = text::trimNewlines(insertedText).toString();
    const QString heading = text::trimWhiteSpace(section).toString();
    QStringList lines = splitLines(contents);
    const QStringList blockLines = splitLines(block);
    const auto at = indexOfBlock(blockLines, lines);
    if (!at)
        return std::nullopt;
    lines.remove(*at, blockLines.size());

    // A section left with nothing but blank lines goes too, heading included: that takes
    // away a section the rule had created. A section that still holds text stays.
    if (const auto h = indexOfHeading(heading, lines)) {
        const qsizetype end = endOfSection(*h, lines, heading);
        bool empty = true;
        for (qsizetype i = *h + 1; i < end && empty; ++i)
            empty = text::isBlank(lines[i]);
        if (empty)
            lines.remove(*h, end - *h);
    }
    dropTrailingBlankLines(lines);
    if (lines.isEmpty())
        return QString();
    return joinWithFinalNewline(lines);
}

} // namespace improve::GuideMerge
