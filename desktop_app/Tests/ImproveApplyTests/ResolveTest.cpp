#include "ImproveApply/GuideMerge.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace improve;
using GuideMerge::resolve;

namespace {

QString resolved(const QString& root, const QString& relativePath) {
    const auto result = resolve(root, relativePath);
    if (!result)
        return QStringLiteral("error: ") + result.error().message();
    return *result;
}

ResolveError failure(const QString& root, const QString& relativePath) {
    const auto result = resolve(root, relativePath);
    EXPECT_FALSE(result.ok()) << result->toStdString();
    return result.ok() ? ResolveError::emptyRoot() : result.error();
}

} // namespace

TEST(ResolveTest, AnAbsoluteRelativePathIsRefused) {
    EXPECT_EQ(failure(QStringLiteral("/proj"), QStringLiteral("/etc/passwd")),
              ResolveError::relativePathIsAbsolute(QStringLiteral("/etc/passwd")));
}

TEST(ResolveTest, ABlankRootIsTestedBeforeTheRelativePath) {
    EXPECT_EQ(failure(QStringLiteral(" \t\n\u3000"), QStringLiteral("/etc/passwd")),
              ResolveError::emptyRoot());
    EXPECT_EQ(failure(QString(), QStringLiteral("AGENTS.md")), ResolveError::emptyRoot());
}

TEST(ResolveTest, LeavingTheProjectIsRefused) {
    EXPECT_EQ(failure(QStringLiteral("/proj"), QStringLiteral("a/../../b")),
              ResolveError::escapesProject(QStringLiteral("a/../../b")));
    EXPECT_EQ(failure(QStringLiteral("/proj"), QStringLiteral("../proj2/x")),
              ResolveError::escapesProject(QStringLiteral("../proj2/x")));
}

TEST(ResolveTest, FoldingDotsThatStayInsideIsAccepted) {
    EXPECT_EQ(resolved(QStringLiteral("/proj"), QStringLiteral("a/../b")), QStringLiteral("/proj/b"));
    EXPECT_EQ(resolved(QStringLiteral("/proj"), QStringLiteral("./docs//./AGENTS.md")),
              QStringLiteral("/proj/docs/AGENTS.md"));
}

TEST(ResolveTest, TheRootItselfIsOutsideTheProject) {
    for (const QString& path : {QString(), QStringLiteral("."), QStringLiteral("a/.."), QStringLiteral("./")})
        EXPECT_EQ(failure(QStringLiteral("/proj"), path), ResolveError::escapesProject(path));
}

TEST(ResolveTest, LeavingAndComingBackIsAccepted) {
    EXPECT_EQ(resolved(QStringLiteral("/work/proj"), QStringLiteral("../proj/x.md")),
              QStringLiteral("/work/proj/x.md"));
}

TEST(ResolveTest, ComingBackThroughAnotherSpellingOfTheFolderIsRefused) {
    // On Linux a decomposed "é" names a different folder than the precomposed one.
    const QString path = QStringLiteral("../cafe\u0301/x.md");
    EXPECT_EQ(failure(QStringLiteral("/work/caf\u00E9"), path), ResolveError::escapesProject(path));
}

TEST(ResolveTest, TheRootIsTrimmedAndNormalisedButNotTheRelativePath) {
    EXPECT_EQ(resolved(QStringLiteral("\n /work/./x/../proj/ \u00A0"), QStringLiteral(" a.md ")),
              QStringLiteral("/work/proj/ a.md "));
}

TEST(ResolveTest, ARelativeRootIsTakenAgainstTheWorkingDirectory) {
    const QString expected = QDir::cleanPath(QDir::currentPath() + QStringLiteral("/proj/AGENTS.md"));
    EXPECT_EQ(resolved(QStringLiteral("proj"), QStringLiteral("AGENTS.md")), expected);
}

TEST(ResolveTest, DotDotAtTheTopStaysAtTheTop) {
    EXPECT_EQ(resolved(QStringLiteral("/../proj"), QStringLiteral("x")), QStringLiteral("/proj/x"));
    EXPECT_EQ(resolved(QStringLiteral("/"), QStringLiteral("x")), QStringLiteral("/x"));
    EXPECT_EQ(failure(QStringLiteral("/"), QStringLiteral("..")),
              ResolveError::escapesProject(QStringLiteral("..")));
}

TEST(ResolveTest, NoSymbolicLinkIsFollowed) {
    // "link/.." on disk would lead into the link's target's parent; the text alone folds it
    // back into the project.
    QTemporaryDir temp;
    ASSERT_TRUE(temp.isValid());
    const QString root = temp.path() + QStringLiteral("/proj");
    ASSERT_TRUE(QDir().mkpath(root) && QDir().mkpath(temp.path() + QStringLiteral("/elsewhere/deep")));
    ASSERT_TRUE(QFile::link(temp.path() + QStringLiteral("/elsewhere/deep"), root + QStringLiteral("/link")));
    EXPECT_EQ(resolved(root, QStringLiteral("link/../AGENTS.md")), root + QStringLiteral("/AGENTS.md"));
}
