#include "ImproveApply/GuideMerge.h"

#include <gtest/gtest.h>

using namespace improve;
using GuideMerge::undoRule;

namespace {
const QString kRules = QStringLiteral("## Rules");
}

TEST(UndoRuleTest, TakesTheRuleOutOfASectionThatKeepsText) {
    EXPECT_EQ(undoRule(QStringLiteral("# T\n\n## Rules\n- a\n- x\n\n## Next\n- b\n"), QStringLiteral("- x"),
                       kRules),
              QStringLiteral("# T\n\n## Rules\n- a\n\n## Next\n- b\n"));
}

TEST(UndoRuleTest, ReindentedLinesAreStillFound) {
    EXPECT_EQ(
        undoRule(QStringLiteral("## Rules\n- a\n\t- x  \n\u3000- y\n"), QStringLiteral("- x\n- y"), kRules),
        QStringLiteral("## Rules\n- a\n"));
}

TEST(UndoRuleTest, ARewordedLineMeansTheRuleIsGone) {
    EXPECT_EQ(
        undoRule(QStringLiteral("## Rules\n- a\n- x, please\n- y\n"), QStringLiteral("- x\n- y"), kRules),
        std::nullopt);
}

TEST(UndoRuleTest, TakingOutTheOnlyTextLeavesTheEmptyStringNotAbsent) {
    const auto result = undoRule(QStringLiteral("## Rules\n\n- x\n"), QStringLiteral("- x"), kRules);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(*result, QString());
    EXPECT_EQ(undoRule(QStringLiteral("- x\n"), QStringLiteral("- x"), QString()), QString());
}

TEST(UndoRuleTest, ASectionTheRuleCreatedGoesWithIt) {
    EXPECT_EQ(undoRule(QStringLiteral("# T\n- a\n\n## Rules\n\n- x\n"), QStringLiteral("- x"), kRules),
              QStringLiteral("# T\n- a\n"));
}

TEST(UndoRuleTest, ASectionLeftBlankInTheMiddleGoesUpToTheNextHeading) {
    EXPECT_EQ(undoRule(QStringLiteral("# T\n## Rules\n- x\n\n## Next\n- b\n"), QStringLiteral("- x"), kRules),
              QStringLiteral("# T\n## Next\n- b\n"));
}

TEST(UndoRuleTest, AnEmptySectionOfADeeperSubsectionStays) {
    // "### Sub" belongs to the section, so the section still holds a line of text.
    EXPECT_EQ(undoRule(QStringLiteral("## Rules\n- x\n### Sub\n"), QStringLiteral("- x"), kRules),
              QStringLiteral("## Rules\n### Sub\n"));
}

TEST(UndoRuleTest, WithoutSectionTheBlankLineInFrontGoesAsATrailingBlank) {
    EXPECT_EQ(undoRule(QStringLiteral("# T\n- a\n\n- x\n"), QStringLiteral("- x"), QString()),
              QStringLiteral("# T\n- a\n"));
}

TEST(UndoRuleTest, OnlyTheFirstOccurrenceGoes) {
    EXPECT_EQ(undoRule(QStringLiteral("## Rules\n- x\n- a\n- x\n"), QStringLiteral("- x"), kRules),
              QStringLiteral("## Rules\n- a\n- x\n"));
}

TEST(UndoRuleTest, TheInsertedTextIsTrimmedOfLineBreaksFirst) {
    EXPECT_EQ(undoRule(QStringLiteral("## Rules\n- a\n- x\n"), QStringLiteral("\r\n- x\n\n"), kRules),
              QStringLiteral("## Rules\n- a\n"));
}

TEST(UndoRuleTest, LeadingTextIsKeptAndTrailingBlankLinesGo) {
    EXPECT_EQ(
        undoRule(QStringLiteral("\n\n  intro\n## Rules\n- a\n- x\n\n\n"), QStringLiteral("- x"), kRules),
        QStringLiteral("\n\n  intro\n## Rules\n- a\n"));
}

TEST(UndoRuleTest, AFileWithoutFinalNewlineGainsOne) {
    EXPECT_EQ(undoRule(QStringLiteral("## Rules\n- a\n- x"), QStringLiteral("- x"), kRules),
              QStringLiteral("## Rules\n- a\n"));
}

TEST(UndoRuleTest, AnEmptyFileHasNoRuleToFind) {
    EXPECT_EQ(undoRule(QString(), QStringLiteral("- x"), kRules), std::nullopt);
    EXPECT_EQ(undoRule(QStringLiteral("- x\n"), QString(), kRules), std::nullopt);
}

TEST(UndoRuleTest, AMissingHeadingLeavesTheRestAlone) {
    EXPECT_EQ(undoRule(QStringLiteral("# T\n\n- x\n## Other\n"), QStringLiteral("- x"), kRules),
              QStringLiteral("# T\n\n## Other\n"));
}
