#include "ImproveApply/GuideMerge.h"

#include <gtest/gtest.h>

using namespace improve;

namespace {
const QString kPath = QStringLiteral(".claude/skills/review/SKILL.md");
}

TEST(PlanSkillTest, ANewSkillIsTheBodyAndOneNewline) {
    const auto plan =
        GuideMerge::planSkill(std::nullopt, QStringLiteral("\n# Review\n\nRead it twice.\n\n"), kPath);
    ASSERT_TRUE(plan.ok());
    EXPECT_EQ(plan->contents, QStringLiteral("# Review\n\nRead it twice.\n"));
    EXPECT_EQ(plan->insertedText, QStringLiteral("# Review\n\nRead it twice."));
    EXPECT_TRUE(plan->createsFile);
    EXPECT_FALSE(plan->alreadyPresent);
    EXPECT_EQ(plan->diff, QStringLiteral("--- a/.claude/skills/review/SKILL.md\n"
                                         "+++ b/.claude/skills/review/SKILL.md\n"
                                         "@@ -0,0 +1,3 @@\n"
                                         "+# Review\n"
                                         "+\n"
                                         "+Read it twice."));
}

TEST(PlanSkillTest, AnExistingEmptyFileIsNeverOverwrittenThoughARuleWouldCreateIt) {
    const auto skill = GuideMerge::planSkill(QString(), QStringLiteral("x"), kPath);
    ASSERT_FALSE(skill.ok());
    EXPECT_EQ(skill.error(), PlanError::skillAlreadyExists(kPath));

    const auto rule = GuideMerge::planRule(QString(), QStringLiteral("## Rules"), QStringLiteral("x"), kPath);
    ASSERT_TRUE(rule.ok());
    EXPECT_TRUE(rule->createsFile);
}

TEST(PlanSkillTest, AnExistingFileIsReportedBeforeAnEmptyBody) {
    const auto plan = GuideMerge::planSkill(QStringLiteral("# Old"), QStringLiteral(" \n "), kPath);
    ASSERT_FALSE(plan.ok());
    EXPECT_EQ(plan.error(), PlanError::skillAlreadyExists(kPath));
}

TEST(PlanSkillTest, ABlankBodyIsNothingToWrite) {
    const auto plan = GuideMerge::planSkill(std::nullopt, QStringLiteral("\n\t\u00A0\n"), kPath);
    ASSERT_FALSE(plan.ok());
    EXPECT_EQ(plan.error(), PlanError::emptyBody());
}
