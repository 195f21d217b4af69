#pragma once

#include "ImproveApply/Plan.h"
#include "ImproveApply/PlanError.h"
#include "ImproveApply/ResolveError.h"
#include "Result/Result.h"

#include <QString>
#include <QStringList>
#include <QStringView>

#include <optional>

// The pure planner of guide-file changes: from a file's text and a suggestion it decides
// the next text, whether the rule is there already, and the diff shown before writing.
// It touches no file; every operation takes strings and returns strings.
namespace improve {
// Failures are values, as everywhere in the project.
using result::Result;
} // namespace improve

namespace improve::GuideMerge {

// Lines of unchanged text shown around an insertion in the diff.
inline constexpr qsizetype kDiffContext = 3;

// The absolute, lexically normalised location of relativePath inside root.
Result<QString, ResolveError> resolve(const QString& root, const QString& relativePath);

// Where and how a rule's lines go into a guide file (existing is absent when there is no file).
Result<Plan, PlanError> planRule(const std::optional<QString>& existing, const QString& section,
                                 const QString& body, const QString& path);

// A skill is a whole new file, and an existing one is never overwritten.
Result<Plan, PlanError> planSkill(const std::optional<QString>& existing, const QString& body,
                                  const QString& path);

// The text with a written rule taken out again: absent when the rule's lines are no longer
// there, empty when nothing is left of the file.
std::optional<QString> undoRule(const QString& contents, const QString& insertedText, const QString& section);

// The helpers the operations above are made of.

// Splits at every U+000A; a single empty last piece (from a final newline) is dropped.
QStringList splitLines(const QString& text);

// 1 to 6 for a Markdown heading line such as "## Rules", 0 for anything else.
int headingLevel(QStringView line);

// The first index where block stands as a run of whole lines, ignoring indentation and
// trailing blanks on both sides.
std::optional<qsizetype> indexOfBlock(const QStringList& block, const QStringList& lines);

// The first index whose line, trimmed of horizontal white space, is heading.
std::optional<qsizetype> indexOfHeading(QStringView heading, const QStringList& lines);

// The index where the section whose heading line is at startingAt ends.
qsizetype endOfSection(qsizetype startingAt, const QStringList& lines, QStringView heading);

// One hunk of unified diff describing a pure insertion of insertedCount lines at insertedAt.
QString unifiedDiff(const QStringList& old, const QStringList& updated, const QString& path,
                    qsizetype insertedAt, qsizetype insertedCount, qsizetype context);

} // namespace improve::GuideMerge
