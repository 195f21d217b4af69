#include "ImproveApply/GuideWriter.h"
#include "ProjectFolder.h"

#include <QCryptographicHash>
#include <QDateTime>

#include <gtest/gtest.h>

#include <cstring>

#include <sys/stat.h>

using namespace improve;
using improve::testing::ProjectFolder;

namespace {

const QString kRule = QStringLiteral("rule");
const QString kSkill = QStringLiteral("skill");
const QString kRules = QStringLiteral("## Rules");

GuideWriter::Planned planned(const ProjectFolder& project, const QString& relative, const QString& artifact,
                             const QString& body, const QString& section = kRules) {
    const auto result = GuideWriter::plan(project.root(), relative, artifact, section, body);
    EXPECT_TRUE(result.ok()) << result.error().message().toStdString();
    return result.ok() ? *result : GuideWriter::Planned{};
}

GuideWriter::Applied applied(const GuideWriter::Planned& planned) {
    const auto result = GuideWriter::apply(planned.url, planned.plan);
    EXPECT_TRUE(result.ok()) << result.error().message().toStdString();
    return result.ok() ? *result : GuideWriter::Applied{};
}

ino_t inodeOf(const QString& path) {
    struct stat info {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_ino : 0;
}

unsigned modeOf(const QString& path) {
    struct stat info {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_mode & 07777 : 0;
}

} // namespace

TEST(GuideWriterConstantsTest, DefaultsAreTheDocumentedOnes) {
    EXPECT_EQ(GuideWriter::kSkillArtifact, u"skill");
    EXPECT_EQ(GuideWriter::kSkillsFolderName, u"skills");
    EXPECT_EQ(GuideWriter::kMaxPrunedDirectories, 2);
}

TEST(GuideWriterSha256Test, IsLowerCaseHexOfTheUtf8Bytes) {
    EXPECT_EQ(GuideWriter::sha256(QString()),
              QStringLiteral("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
    EXPECT_EQ(GuideWriter::sha256(QStringLiteral("abc")),
              QStringLiteral("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    // "é" is the two bytes C3 A9 in UTF-8.
    EXPECT_EQ(GuideWriter::sha256(QStringLiteral("\u00E9")),
              QString::fromLatin1(QCryptographicHash::hash("\xC3\xA9", QCryptographicHash::Sha256).toHex()));
}

TEST(GuideWriterReadTest, NothingThereIsAbsent) {
    ProjectFolder project;
    const auto text = GuideWriter::read(project.path(QStringLiteral("AGENTS.md")));
    ASSERT_TRUE(text.ok());
    EXPECT_EQ(*text, std::nullopt);
}

TEST(GuideWriterReadTest, AFileIsReadAsUtf8KeepingAByteOrderMark) {
    ProjectFolder project;
    project.write(QStringLiteral("AGENTS.md"), "\xEF\xBB\xBF# T\r\n- caf\xC3\xA9\n");
    const auto text = GuideWriter::read(project.path(QStringLiteral("AGENTS.md")));
    ASSERT_TRUE(text.ok());
    EXPECT_EQ(*text, std::optional(QStringLiteral("\uFEFF# T\r\n- caf\u00E9\n")));
}

TEST(GuideWriterReadTest, BytesThatAreNotUtf8AreAFailure) {
    ProjectFolder project;
    project.write(QStringLiteral("AGENTS.md"), "# T\n\xFF\xFE\n");
    const QString url = project.path(QStringLiteral("AGENTS.md"));
    const auto text = GuideWriter::read(url);
    ASSERT_FALSE(text.ok());
    ASSERT_NE(text.error().as<FileError>(), nullptr);
    EXPECT_EQ(text.error().message(), url + QStringLiteral(" could not be read as UTF-8 text."));
}

TEST(GuideWriterPlanTest, ADirectoryAtTheTargetIsNotAFile) {
    ProjectFolder project;
    project.makeDirectory(QStringLiteral("AGENTS.md"));
    const QString url = project.path(QStringLiteral("AGENTS.md"));
    const auto plan =
        GuideWriter::plan(project.root(), QStringLiteral("AGENTS.md"), kRule, kRules, QStringLiteral("- x"));
    ASSERT_FALSE(plan.ok());
    EXPECT_EQ(plan.error(), Failure(WriteError::notAFile(url)));
    EXPECT_EQ(plan.error().message(), url + QStringLiteral(" is a directory, not a file."));
}

TEST(GuideWriterPlanTest, ARuleWithoutParentFolderIsPlannedWithoutMakingIt) {
    ProjectFolder project;
    const auto plan = planned(project, QStringLiteral("docs/agents/AGENTS.md"), kRule, QStringLiteral("- x"));
    EXPECT_EQ(plan.url, project.path(QStringLiteral("docs/agents/AGENTS.md")));
    EXPECT_TRUE(plan.plan.createsFile);
    EXPECT_EQ(plan.plan.contents, QStringLiteral("## Rules\n\n- x\n"));
    EXPECT_TRUE(plan.plan.diff.startsWith(
        QStringLiteral("--- a/docs/agents/AGENTS.md\n+++ b/docs/agents/AGENTS.md\n")));
    EXPECT_FALSE(project.exists(QStringLiteral("docs")));

    const GuideWriter::Applied result = applied(plan);
    EXPECT_EQ(project.bytes(QStringLiteral("docs/agents/AGENTS.md")), QByteArray("## Rules\n\n- x\n"));
    EXPECT_EQ(result, (GuideWriter::Applied{plan.url, QStringLiteral("- x"),
                                            GuideWriter::sha256(plan.plan.contents), true, false}));
}

TEST(GuideWriterPlanTest, ResolveAndPlanErrorsPassThroughUnchanged) {
    ProjectFolder project;
    auto plan = GuideWriter::plan(QStringLiteral(" "), QStringLiteral("/etc/passwd"), kRule, kRules,
                                  QStringLiteral("x"));
    ASSERT_FALSE(plan.ok());
    EXPECT_EQ(plan.error(), Failure(ResolveError::emptyRoot()));

    plan = GuideWriter::plan(project.root(), QStringLiteral("AGENTS.md"), kRule, kRules,
                             QStringLiteral("\n \n"));
    ASSERT_FALSE(plan.ok());
    EXPECT_EQ(plan.error(), Failure(PlanError::emptyBody()));
}

TEST(GuideWriterPlanTest, AnExistingSkillIsRefusedAndAnyOtherArtifactIsARule) {
    ProjectFolder project;
    project.write(QStringLiteral("skills/a/SKILL.md"), "");
    const auto skill = GuideWriter::plan(project.root(), QStringLiteral("skills/a/SKILL.md"), kSkill, kRules,
                                         QStringLiteral("x"));
    ASSERT_FALSE(skill.ok());
    EXPECT_EQ(skill.error(), Failure(PlanError::skillAlreadyExists(QStringLiteral("skills/a/SKILL.md"))));

    const auto other =
        planned(project, QStringLiteral("skills/a/SKILL.md"), QStringLiteral("note"), QStringLiteral("x"));
    EXPECT_EQ(other.plan.contents, QStringLiteral("## Rules\n\nx\n"));
}

TEST(GuideWriterApplyTest, AnAlreadyPresentPlanWritesNothingAndStillHashesTheText) {
    ProjectFolder project;
    project.write(QStringLiteral("AGENTS.md"), "## Rules\n  - x\n");
    const QString url = project.path(QStringLiteral("AGENTS.md"));
    const QDateTime past = QDateTime::currentDateTimeUtc().addDays(-3);
    {
        QFile file(url);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.setFileTime(past, QFileDevice::FileModificationTime));
    }
    const ino_t inode = inodeOf(url);

    const auto plan = planned(project, QStringLiteral("AGENTS.md"), kRule, QStringLiteral("- x"));
    ASSERT_TRUE(plan.plan.alreadyPresent);
    const GuideWriter::Applied result = applied(plan);
    EXPECT_EQ(result,
              (GuideWriter::Applied{url, QStringLiteral("- x"),
                                    GuideWriter::sha256(QStringLiteral("## Rules\n  - x\n")), false, true}));
    EXPECT_EQ(QFileInfo(url).lastModified().toUTC(), past);
    EXPECT_EQ(inodeOf(url), inode);
}

TEST(GuideWriterApplyTest, AnAlreadyPresentPlanMakesNoParentFolder) {
    ProjectFolder project;
    GuideMerge::Plan plan{QStringLiteral("- x\n"), QStringLiteral("- x"), true, false, QString()};
    const auto result = GuideWriter::apply(project.path(QStringLiteral("a/b/AGENTS.md")), plan);
    ASSERT_TRUE(result.ok());
    EXPECT_FALSE(project.exists(QStringLiteral("a")));
}

TEST(GuideWriterApplyTest, ApplyDoesNotLookAtWhatPlanRead) {
    ProjectFolder project;
    project.write(QStringLiteral("AGENTS.md"), "## Rules\n- a\n");
    const auto plan = planned(project, QStringLiteral("AGENTS.md"), kRule, QStringLiteral("- x"));
    project.write(QStringLiteral("AGENTS.md"), "changed meanwhile\n");
    applied(plan);
    EXPECT_EQ(project.bytes(QStringLiteral("AGENTS.md")), QByteArray("## Rules\n- a\n- x\n"));
}

TEST(GuideWriterApplyTest, AWriteLeavesNoTemporaryFileBehindAndKeepsPermissions) {
    ProjectFolder project;
    project.write(QStringLiteral("AGENTS.md"), "## Rules\n- a\n");
    const QString url = project.path(QStringLiteral("AGENTS.md"));
    ASSERT_EQ(::chmod(QFile::encodeName(url).constData(), 0640), 0);
    applied(planned(project, QStringLiteral("AGENTS.md"), kRule, QStringLiteral("- x")));
    EXPECT_EQ(project.entries(), QStringList{QStringLiteral("AGENTS.md")});
    EXPECT_EQ(modeOf(url), 0640u);
}

TEST(GuideWriterApplyTest, AFileInTheWayOfTheParentFolderIsTheSystemsError) {
    ProjectFolder project;
    project.write(QStringLiteral("docs"), "a file, not a folder\n");
    const auto plan = planned(project, QStringLiteral("docs/AGENTS.md"), kRule, QStringLiteral("- x"));
    const auto result = GuideWriter::apply(plan.url, plan.plan);
    ASSERT_FALSE(result.ok());
    ASSERT_NE(result.error().as<FileError>(), nullptr);
    const QString description = result.error().message();
    EXPECT_TRUE(description == QString::fromLocal8Bit(strerror(EEXIST)) ||
                description == QString::fromLocal8Bit(strerror(ENOTDIR)))
        << description.toStdString();
}
