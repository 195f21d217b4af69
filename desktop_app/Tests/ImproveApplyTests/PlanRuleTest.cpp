#include "ImproveApply/GuideMerge.h"

#include <gtest/gtest.h>

using namespace improve;
using GuideMerge::Plan;

namespace {

const QString kPath = QStringLiteral("AGENTS.md");
const QString kRules = QStringLiteral("## Rules");

Plan planned(const std::optional<QString>& existing, const QString& section, const QString& body) {
    const auto result = GuideMerge::planRule(existing, section, body, kPath);
    EXPECT_TRUE(result.ok()) << result.error().message().toStdString();
    return result.ok() ? *result : Plan{};
}

QString diffOf(std::initializer_list<const char16_t*> body) {
    QStringList lines{QStringLiteral("--- a/AGENTS.md"), QStringLiteral("+++ b/AGENTS.md")};
    for (const char16_t* line : body)
        lines << QString::fromUtf16(line);
    return lines.join(QChar(u'\n'));
}

} // namespace

TEST(PlanRuleTest, ABodyOfBlankLinesIsNothingToWrite) {
    for (const std::optional<QString>& existing :
         {std::optional<QString>(), std::optional(QStringLiteral("# T\n- a\n"))}) {
        for (const QString& body :
             {QString(), QStringLiteral("\n  \n\t\n"), QStringLiteral("\u3000\u2028\u00A0")}) {
            const auto result = GuideMerge::planRule(existing, kRules, body, kPath);
            ASSERT_FALSE(result.ok());
            EXPECT_EQ(result.error(), PlanError::emptyBody());
        }
    }
}

TEST(PlanRuleTest, AnEmptyFileGetsTheSectionAndTheRule) {
    const Plan plan = planned(QString(), kRules, QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("## Rules\n\n- x\n"));
    EXPECT_TRUE(plan.createsFile);
    EXPECT_FALSE(plan.alreadyPresent);
    EXPECT_EQ(plan.insertedText, QStringLiteral("- x"));
    EXPECT_EQ(plan.diff, diffOf({u"@@ -0,0 +1,3 @@", u"+## Rules", u"+", u"+- x"}));
}

TEST(PlanRuleTest, AnAbsentFileIsPlannedExactlyAsAnEmptyOne) {
    EXPECT_EQ(planned(std::nullopt, kRules, QStringLiteral("- x")),
              planned(QString(), kRules, QStringLiteral("- x")));
}

TEST(PlanRuleTest, ANewFileWithoutSectionHoldsOnlyTheRule) {
    const Plan plan = planned(std::nullopt, QStringLiteral(" \n"), QStringLiteral("- x\n- y"));
    EXPECT_EQ(plan.contents, QStringLiteral("- x\n- y\n"));
    EXPECT_EQ(plan.diff, diffOf({u"@@ -0,0 +1,2 @@", u"+- x", u"+- y"}));
}

TEST(PlanRuleTest, TheRuleGoesAfterTheSectionTextAndTheBlankLineStays) {
    const Plan plan =
        planned(QStringLiteral("# T\n\n## Rules\n- a\n\n## Next\n- b\n"), kRules, QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("# T\n\n## Rules\n- a\n- x\n\n## Next\n- b\n"));
    EXPECT_FALSE(plan.createsFile);
    EXPECT_FALSE(plan.alreadyPresent);
    EXPECT_EQ(plan.diff,
              diffOf({u"@@ -2,6 +2,7 @@", u" ", u" ## Rules", u" - a", u"+- x", u" ", u" ## Next", u" - b"}));
}

TEST(PlanRuleTest, ASectionFollowedAtOnceByASiblingGetsTheRuleUnderItsHeading) {
    const Plan plan = planned(QStringLiteral("## Rules\n## Next\n- b\n"), kRules, QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("## Rules\n- x\n## Next\n- b\n"));
    EXPECT_EQ(plan.diff, diffOf({u"@@ -1,3 +1,4 @@", u" ## Rules", u"+- x", u" ## Next", u" - b"}));
}

TEST(PlanRuleTest, ASubsectionBelongsToTheSectionSoTheRuleGoesAfterIt) {
    const Plan plan =
        planned(QStringLiteral("## Rules\n- a\n### Sub\n- s\n\n## Next\n"), kRules, QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("## Rules\n- a\n### Sub\n- s\n- x\n\n## Next\n"));
    EXPECT_EQ(plan.diff,
              diffOf({u"@@ -2,5 +2,6 @@", u" - a", u" ### Sub", u" - s", u"+- x", u" ", u" ## Next"}));
}

TEST(PlanRuleTest, APlainSectionNameRunsToTheEndOfTheFile) {
    const Plan plan = planned(QStringLiteral("# T\nRules\n- a\n## Next\n- b\n\n"), QStringLiteral("Rules"),
                              QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("# T\nRules\n- a\n## Next\n- b\n- x\n\n"));
    EXPECT_EQ(plan.diff, diffOf({u"@@ -3,4 +3,5 @@", u" - a", u" ## Next", u" - b", u"+- x", u" "}));
}

TEST(PlanRuleTest, APlainSectionNameIsSearchedAsAWholeLine) {
    const Plan plan =
        planned(QStringLiteral("## Rules\n- a\n"), QStringLiteral("Rules"), QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("## Rules\n- a\n\nRules\n\n- x\n"));
}

TEST(PlanRuleTest, AnIndentedBlockWithTrailingBlanksIsAlreadyPresent) {
    const QString existing = QStringLiteral("# T\n\n## Other\n    - x \t\n\u00A0 - y\u3000\n## Rules\n- a");
    const Plan plan = planned(existing, kRules, QStringLiteral("\n- x\n- y\n\n"));
    EXPECT_TRUE(plan.alreadyPresent);
    EXPECT_EQ(plan.contents, existing); // byte for byte, even without a final newline
    EXPECT_FALSE(plan.createsFile);
    EXPECT_EQ(plan.diff, QString());
    EXPECT_EQ(plan.insertedText, QStringLiteral("- x\n- y"));
}

TEST(PlanRuleTest, ACanonicallyEquivalentBlockIsAlreadyPresent) {
    const Plan plan =
        planned(QStringLiteral("## Rules\n- caf\u00E9\n"), kRules, QStringLiteral("- cafe\u0301"));
    EXPECT_TRUE(plan.alreadyPresent);
}

TEST(PlanRuleTest, AFileOfOneNewlineStartsWithTheEmptyLine) {
    const Plan plan = planned(QStringLiteral("\n"), kRules, QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("\n## Rules\n\n- x\n"));
    EXPECT_FALSE(plan.createsFile);
    EXPECT_EQ(plan.diff, diffOf({u"@@ -0,0 +1,4 @@", u"+", u"+## Rules", u"+", u"+- x"}));
}

TEST(PlanRuleTest, TrailingBlankLinesGiveWayToTheOneEmptyLine) {
    const Plan plan = planned(QStringLiteral("# T\n- a\n\n \n\t\n\n"), kRules, QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("# T\n- a\n\n## Rules\n\n- x\n"));
    EXPECT_EQ(plan.diff, diffOf({u"@@ -1,2 +1,6 @@", u" # T", u" - a", u"+", u"+## Rules", u"+", u"+- x"}));
}

TEST(PlanRuleTest, WithoutSectionTheRuleFollowsOneEmptyLine) {
    const Plan plan = planned(QStringLiteral("# T\n- a\n"), QString(), QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("# T\n- a\n\n- x\n"));
}

TEST(PlanRuleTest, AFileWithoutFinalNewlineGainsOne) {
    const Plan plan = planned(QStringLiteral("## Rules\n- a"), kRules, QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("## Rules\n- a\n- x\n"));
}

TEST(PlanRuleTest, OnlyLineBreaksAreTrimmedFromTheBody) {
    const Plan plan = planned(QStringLiteral("## Rules\n- a\n"), QStringLiteral("\t## Rules \n"),
                              QStringLiteral("\r\n\u2028  - x\n  - y \t\r\n\n"));
    EXPECT_EQ(plan.insertedText, QStringLiteral("  - x\n  - y \t"));
    EXPECT_EQ(plan.contents, QStringLiteral("## Rules\n- a\n  - x\n  - y \t\n"));
}

TEST(PlanRuleTest, TheHeadingIsLookedForBelowTheFirstMatch) {
    // The first line equal to the heading wins, even when a later one looks likelier.
    const Plan plan =
        planned(QStringLiteral("## Rules\n- a\n## Rules\n- b\n"), kRules, QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("## Rules\n- a\n- x\n## Rules\n- b\n"));
}

TEST(PlanRuleTest, ABlockAnywhereInTheFileCountsAsPresent) {
    const Plan plan =
        planned(QStringLiteral("## Other\n- x\n## Rules\n- a\n"), kRules, QStringLiteral("- x"));
    EXPECT_TRUE(plan.alreadyPresent);
}

TEST(PlanRuleTest, CarriageReturnLinesDoNotMatchLineFeedOnes) {
    // A CR LF file's lines keep their U+000D, so neither the heading nor the block matches.
    const Plan plan = planned(QStringLiteral("## Rules\r\n- x\r\n"), kRules, QStringLiteral("- x"));
    EXPECT_FALSE(plan.alreadyPresent);
    EXPECT_EQ(plan.contents, QStringLiteral("## Rules\r\n- x\r\n\n## Rules\n\n- x\n"));
}

TEST(PlanRuleTest, AnEmptyExistingFileCreatesTheFile) {
    EXPECT_TRUE(planned(QString(), kRules, QStringLiteral("- x")).createsFile);
}

TEST(PlanRuleTest, TheDiffShowsAtMostThreeLinesOfContextEachSide) {
    const Plan plan =
        planned(QStringLiteral("1\n2\n3\n4\n## Rules\n5\n6\n7\n8\n9\n"), kRules, QStringLiteral("- x"));
    EXPECT_EQ(plan.contents, QStringLiteral("1\n2\n3\n4\n## Rules\n5\n6\n7\n8\n9\n- x\n"));
    EXPECT_EQ(plan.diff, diffOf({u"@@ -8,3 +8,4 @@", u" 7", u" 8", u" 9", u"+- x"}));
}
