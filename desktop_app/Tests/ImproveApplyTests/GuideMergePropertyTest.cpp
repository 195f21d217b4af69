// Properties of planning and undoing over a few thousand generated guide files.
#include "ImproveApply/CharacterClasses.h"
#include "ImproveApply/GuideMerge.h"
#include "generators/GuideCases.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

using namespace improve;
using improve::testing::describe;
using improve::testing::GuideCase;
using improve::testing::GuideCaseGenerator;

namespace {

constexpr int kCases = 3000;
const QString kPath = QStringLiteral("AGENTS.md");

GuideMerge::Plan planOf(const GuideCase& c) {
    const auto plan = GuideMerge::planRule(c.existing, c.section, c.body, kPath);
    EXPECT_TRUE(plan.ok()) << describe(c);
    return plan.ok() ? *plan : GuideMerge::Plan{};
}

void dropTrailingBlankLines(QStringList& lines) {
    while (!lines.isEmpty() && text::isBlank(lines.last()))
        lines.removeLast();
}

QString fileOf(const QStringList& lines) {
    return lines.isEmpty() ? QString() : lines.join(QChar(u'\n')) + QChar(u'\n');
}

// What undo is documented to leave of a file a rule was planned into: the file's own
// lines, minus trailing blank lines, and minus the named section when that section holds
// nothing but blank lines (whether the rule created it or found it so).
QString expectedAfterUndo(const GuideCase& c) {
    QStringList lines = GuideMerge::splitLines(c.existing.value_or(QString()));
    const QString heading = text::trimWhiteSpace(c.section).toString();
    if (const auto h = GuideMerge::indexOfHeading(heading, lines)) {
        const qsizetype end = GuideMerge::endOfSection(*h, lines, heading);
        bool empty = true;
        for (qsizetype i = *h + 1; i < end; ++i)
            empty = empty && text::isBlank(lines[i]);
        if (empty)
            lines.remove(*h, end - *h);
    }
    dropTrailingBlankLines(lines);
    return fileOf(lines);
}

// The text the diff's old side describes: the file as lines with one final newline, and,
// when the rule goes to the end of the file, without the trailing blank lines it replaces.
QString oldSideOfDiff(const GuideCase& c) {
    QStringList lines = GuideMerge::splitLines(c.existing.value_or(QString()));
    const QString heading = text::trimWhiteSpace(c.section).toString();
    if (!GuideMerge::indexOfHeading(heading, lines))
        dropTrailingBlankLines(lines);
    return fileOf(lines);
}

bool writeUtf8(const QString& path, const QString& text) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text.toUtf8()) == text.toUtf8().size();
}

QString readUtf8(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll())
                                          : QStringLiteral("<unreadable>");
}

} // namespace

TEST(GuideMergePropertyTest, UndoingAPlannedRuleGivesBackTheFile) {
    GuideCaseGenerator generator(0x5eed0001);
    int inserted = 0;
    for (int i = 0; i < kCases; ++i) {
        const GuideCase c = generator.next(true);
        const GuideMerge::Plan plan = planOf(c);
        ASSERT_FALSE(plan.alreadyPresent) << describe(c);
        const auto undone = GuideMerge::undoRule(plan.contents, plan.insertedText, c.section);
        ASSERT_TRUE(undone.has_value()) << describe(c);
        ASSERT_EQ(*undone, expectedAfterUndo(c)) << describe(c);
        ++inserted;
    }
    EXPECT_EQ(inserted, kCases);
}

TEST(GuideMergePropertyTest, PlanningARuleTwiceFindsItTheSecondTime) {
    GuideCaseGenerator generator(0x5eed0002);
    int presentAtFirst = 0;
    for (int i = 0; i < kCases; ++i) {
        const GuideCase c = generator.next(false);
        const GuideMerge::Plan first = planOf(c);
        presentAtFirst += first.alreadyPresent ? 1 : 0;
        // A run copied from the file, however re-indented or re-spelled, is found at once.
        ASSERT_TRUE(first.alreadyPresent || !c.bodyFromFile) << describe(c);
        const auto second = GuideMerge::planRule(first.contents, c.section, c.body, kPath);
        ASSERT_TRUE(second.ok()) << describe(c);
        ASSERT_TRUE(second->alreadyPresent) << describe(c);
        ASSERT_EQ(second->contents, first.contents) << describe(c);
        ASSERT_EQ(second->diff, QString()) << describe(c);
        ASSERT_EQ(second->insertedText, first.insertedText) << describe(c);
        ASSERT_FALSE(second->createsFile) << describe(c);
    }
    // Copied bodies must really reach the "already there" branch on the first plan too.
    EXPECT_GT(presentAtFirst, kCases / 20);
}

TEST(GuideMergePropertyTest, APlanInsertsOneRunOfLinesAndChangesNothingElse) {
    GuideCaseGenerator generator(0x5eed0003);
    for (int i = 0; i < kCases; ++i) {
        const GuideCase c = generator.next(false);
        const GuideMerge::Plan plan = planOf(c);
        if (plan.alreadyPresent) {
            ASSERT_EQ(plan.contents, c.existing.value_or(QString())) << describe(c);
            continue;
        }
        ASSERT_EQ(plan.createsFile, !c.existing || c.existing->isEmpty()) << describe(c);
        ASSERT_TRUE(plan.contents.endsWith(QChar(u'\n'))) << describe(c);
        // Every old line is kept in order, and the new ones stand together in one place.
        const QStringList oldLines = GuideMerge::splitLines(oldSideOfDiff(c));
        const QStringList newLines = GuideMerge::splitLines(plan.contents);
        ASSERT_GT(newLines.size(), oldLines.size()) << describe(c);
        qsizetype prefix = 0;
        while (prefix < oldLines.size() && oldLines[prefix] == newLines[prefix])
            ++prefix;
        qsizetype suffix = 0;
        while (suffix < oldLines.size() - prefix &&
               oldLines[oldLines.size() - 1 - suffix] == newLines[newLines.size() - 1 - suffix])
            ++suffix;
        ASSERT_EQ(prefix + suffix, oldLines.size()) << describe(c);
        // Under one of the file's own headings, however spelled, only the rule's lines are added.
        if (c.sectionFromFile) {
            const qsizetype added = newLines.size() - oldLines.size();
            ASSERT_EQ(added, GuideMerge::splitLines(plan.insertedText).size()) << describe(c);
        }
    }
}

// The diff the person reads is a real unified diff: the system's patch tool, given the
// old text, produces exactly the planned text. All cases go through one run of patch.
TEST(GuideMergePropertyTest, TheSystemPatchToolAppliesEveryDiff) {
    const QString patch = QStandardPaths::findExecutable(QStringLiteral("patch"));
    ASSERT_FALSE(patch.isEmpty()) << "the patch tool is needed";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());

    GuideCaseGenerator generator(0x5eed0004);
    std::vector<std::tuple<QString, GuideCase, GuideMerge::Plan>> cases;
    QString allDiffs;
    for (int i = 0; cases.size() < size_t(kCases); ++i) {
        const GuideCase c = generator.next(false);
        const QString name = QStringLiteral("case%1.md").arg(i);
        const auto plan = GuideMerge::planRule(c.existing, c.section, c.body, name);
        ASSERT_TRUE(plan.ok()) << describe(c);
        if (plan->alreadyPresent)
            continue;
        const QString old = oldSideOfDiff(c);
        // An empty old side is a file that patch creates.
        if (!old.isEmpty()) {
            ASSERT_TRUE(writeUtf8(dir.filePath(name), old));
        }
        allDiffs += plan->diff + QChar(u'\n');
        cases.emplace_back(name, c, *plan);
    }
    ASSERT_TRUE(writeUtf8(dir.filePath(QStringLiteral("all.diff")), allDiffs));

    QProcess run;
    run.setWorkingDirectory(dir.path());
    // --binary keeps carriage returns as they are; --fuzz=0 refuses any inexact context.
    run.start(patch, {QStringLiteral("-p1"), QStringLiteral("-f"), QStringLiteral("--binary"),
                      QStringLiteral("--fuzz=0"), QStringLiteral("-s"), QStringLiteral("-i"),
                      QStringLiteral("all.diff")});
    ASSERT_TRUE(run.waitForFinished(60000));
    ASSERT_EQ(run.exitCode(), 0) << run.readAllStandardOutput().toStdString()
                                 << run.readAllStandardError().toStdString();

    for (const auto& [name, c, plan] : cases)
        ASSERT_EQ(readUtf8(dir.filePath(name)), plan.contents) << describe(c);
    EXPECT_EQ(cases.size(), size_t(kCases));
}
