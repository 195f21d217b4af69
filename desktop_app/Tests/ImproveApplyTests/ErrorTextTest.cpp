#include "ImproveApply/Failure.h"

#include <gtest/gtest.h>

using namespace improve;

TEST(ErrorTextTest, ResolveErrors) {
    EXPECT_EQ(
        ResolveError::relativePathIsAbsolute(QStringLiteral("/etc/passwd")).message(),
        QStringLiteral("/etc/passwd is an absolute path, and a target must be relative to the project."));
    EXPECT_EQ(ResolveError::escapesProject(QStringLiteral("a/../../b")).message(),
              QStringLiteral("a/../../b would be written outside the project."));
    EXPECT_EQ(ResolveError::emptyRoot().message(),
              QStringLiteral("No project is selected, so there is nowhere to write this."));
}

TEST(ErrorTextTest, PlanErrors) {
    EXPECT_EQ(
        PlanError::skillAlreadyExists(QStringLiteral("skills/a/SKILL.md")).message(),
        QStringLiteral("skills/a/SKILL.md already exists. Skills are never overwritten \u2014 move or delete "
                       "it first if you want this one."));
    EXPECT_EQ(PlanError::emptyBody().message(), QStringLiteral("There is nothing to write."));
}

TEST(ErrorTextTest, WriteErrors) {
    const QString path = QStringLiteral("/p/AGENTS.md");
    EXPECT_EQ(WriteError::notAFile(path).message(),
              QStringLiteral("/p/AGENTS.md is a directory, not a file."));
    EXPECT_EQ(
        WriteError::changedSinceApplied(path).message(),
        QStringLiteral("/p/AGENTS.md has changed since this was written, so it was left alone. Remove the "
                       "lines by hand if you still want them gone."));
    EXPECT_EQ(
        WriteError::ruleNotFound(path).message(),
        QStringLiteral("The rule is no longer in /p/AGENTS.md as it was written, so nothing was removed."));
}

TEST(ErrorTextTest, CasesCompareByKindAndPayload) {
    EXPECT_EQ(ResolveError::escapesProject(QStringLiteral("x")),
              ResolveError::escapesProject(QStringLiteral("x")));
    EXPECT_NE(ResolveError::escapesProject(QStringLiteral("x")),
              ResolveError::escapesProject(QStringLiteral("y")));
    EXPECT_NE(ResolveError::escapesProject(QStringLiteral("x")),
              ResolveError::relativePathIsAbsolute(QStringLiteral("x")));
    EXPECT_NE(WriteError::notAFile(QStringLiteral("x")), WriteError::ruleNotFound(QStringLiteral("x")));
    EXPECT_EQ(PlanError::emptyBody().path(), QString());
    EXPECT_EQ(ResolveError::emptyRoot().kind(), ResolveError::Case::emptyRoot);
}

TEST(ErrorTextTest, AFailureShowsTheTextOfTheErrorItHolds) {
    const Failure planFailure(PlanError::emptyBody());
    EXPECT_EQ(planFailure.message(), QStringLiteral("There is nothing to write."));
    ASSERT_NE(planFailure.as<PlanError>(), nullptr);
    EXPECT_EQ(planFailure.as<WriteError>(), nullptr);

    const Failure fileFailure(FileError{QStringLiteral("/p/x"), QStringLiteral("Permission denied")});
    EXPECT_EQ(fileFailure.message(), QStringLiteral("Permission denied"));
    EXPECT_EQ(fileFailure, Failure(FileError{QStringLiteral("/p/x"), QStringLiteral("Permission denied")}));
    EXPECT_NE(fileFailure, planFailure);
}
