#include "ImproveApply/GuideMerge.h"

#include <gtest/gtest.h>

using namespace improve;
using GuideMerge::unifiedDiff;

namespace {
const QString kPath = QStringLiteral("docs/AGENTS.md");
const QString kHeader = QStringLiteral("--- a/docs/AGENTS.md\n+++ b/docs/AGENTS.md\n");
} // namespace

TEST(UnifiedDiffTest, TheContextIsThreeLines) {
    EXPECT_EQ(GuideMerge::kDiffContext, 3);
}

TEST(UnifiedDiffTest, NothingInsertedIsNoDiff) {
    const QStringList old{QStringLiteral("a")};
    EXPECT_EQ(unifiedDiff(old, old, kPath, 0, 0, 3), QString());
    EXPECT_EQ(unifiedDiff(old, old, kPath, 0, -1, 3), QString());
}

TEST(UnifiedDiffTest, AnInsertionAtTheStartNumbersFromOne) {
    const QStringList old{QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c"), QStringLiteral("d")};
    const QStringList updated{QStringLiteral("x"), QStringLiteral("a"), QStringLiteral("b"),
                              QStringLiteral("c"), QStringLiteral("d")};
    EXPECT_EQ(unifiedDiff(old, updated, kPath, 0, 1, 3),
              kHeader + QStringLiteral("@@ -1,3 +1,4 @@\n+x\n a\n b\n c"));
}

TEST(UnifiedDiffTest, AnInsertionIntoNothingStartsAtLineZero) {
    EXPECT_EQ(unifiedDiff({}, {QStringLiteral("x")}, kPath, 0, 1, 3),
              kHeader + QStringLiteral("@@ -0,0 +1,1 @@\n+x"));
}

TEST(UnifiedDiffTest, TheContextFollowsTheCallersCountAndAnEmptyOldRangeIsLineZero) {
    const QStringList old{QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")};
    const QStringList updated{QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("x"),
                              QStringLiteral("c")};
    EXPECT_EQ(unifiedDiff(old, updated, kPath, 2, 1, 1),
              kHeader + QStringLiteral("@@ -2,2 +2,3 @@\n b\n+x\n c"));
    EXPECT_EQ(unifiedDiff(old, updated, kPath, 2, 1, 0), kHeader + QStringLiteral("@@ -0,0 +3,1 @@\n+x"));
}

TEST(UnifiedDiffTest, HasNoFinalNewline) {
    EXPECT_FALSE(unifiedDiff({}, {QStringLiteral("x")}, kPath, 0, 1, 3).endsWith(QChar(u'\n')));
}
