#include "ImproveApply/GuideWriter.h"
#include "ProjectFolder.h"

#include <gtest/gtest.h>

using namespace improve;
using improve::testing::ProjectFolder;

namespace {

const QString kRule = QStringLiteral("rule");
const QString kSkill = QStringLiteral("skill");
const QString kRules = QStringLiteral("## Rules");

GuideWriter::Applied write(const ProjectFolder& project, const QString& relative, const QString& artifact,
                           const QString& body) {
    const auto plan = GuideWriter::plan(project.root(), relative, artifact, kRules, body);
    EXPECT_TRUE(plan.ok()) << plan.error().message().toStdString();
    if (!plan.ok())
        return {};
    const auto result = GuideWriter::apply(plan->url, plan->plan);
    EXPECT_TRUE(result.ok()) << result.error().message().toStdString();
    return result.ok() ? *result : GuideWriter::Applied{};
}

Result<void, Failure> undo(const GuideWriter::Applied& applied, const QString& artifact) {
    return GuideWriter::undo(applied.resolvedPath, artifact, applied.insertedText, kRules,
                             applied.contentSHA256);
}

} // namespace

TEST(GuideWriterUndoTest, ADirectoryAtTheTargetIsNotAFile) {
    ProjectFolder project;
    project.makeDirectory(QStringLiteral("AGENTS.md"));
    const QString url = project.path(QStringLiteral("AGENTS.md"));
    for (const QString& artifact : {kRule, kSkill}) {
        const auto result = GuideWriter::undo(url, artifact, QStringLiteral("- x"), kRules, QString());
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error(), Failure(WriteError::notAFile(url)));
    }
}

TEST(GuideWriterUndoTest, ASkillChangedByOneByteIsLeftAlone) {
    ProjectFolder project;
    const QString relative = QStringLiteral(".claude/skills/review/SKILL.md");
    const GuideWriter::Applied applied =
        write(project, relative, kSkill, QStringLiteral("# Review\nRead twice."));
    project.write(relative, "# Review\nRead twice!\n");
    const QStringList before = project.entries();

    const auto result = undo(applied, kSkill);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error(), Failure(WriteError::changedSinceApplied(applied.resolvedPath)));
    EXPECT_EQ(project.bytes(relative), QByteArray("# Review\nRead twice!\n"));
    EXPECT_EQ(project.entries(), before);
}

TEST(GuideWriterUndoTest, ASkillGoesWithItsEmptyFolderButTheSkillsFolderStays) {
    ProjectFolder project;
    const GuideWriter::Applied applied =
        write(project, QStringLiteral("agent/skills/review/SKILL.md"), kSkill, QStringLiteral("# Review"));
    EXPECT_TRUE(applied.createdFile);
    ASSERT_TRUE(undo(applied, kSkill).ok());
    EXPECT_EQ(project.entries(), (QStringList{QStringLiteral("agent"), QStringLiteral("agent/skills")}));
}

TEST(GuideWriterUndoTest, ASkillFolderThatHoldsMoreStays) {
    ProjectFolder project;
    const GuideWriter::Applied applied =
        write(project, QStringLiteral("agent/skills/review/SKILL.md"), kSkill, QStringLiteral("# Review"));
    project.write(QStringLiteral("agent/skills/review/.notes"), "mine\n");
    ASSERT_TRUE(undo(applied, kSkill).ok());
    EXPECT_EQ(project.entries(), (QStringList{QStringLiteral("agent"), QStringLiteral("agent/skills"),
                                              QStringLiteral("agent/skills/review"),
                                              QStringLiteral("agent/skills/review/.notes")}));
}

TEST(GuideWriterUndoTest, WithoutASkillsFolderTwoEmptiedLevelsGoAndTheThirdStays) {
    ProjectFolder project;
    const GuideWriter::Applied applied =
        write(project, QStringLiteral("a/b/c/SKILL.md"), kSkill, QStringLiteral("x"));
    ASSERT_TRUE(undo(applied, kSkill).ok());
    EXPECT_EQ(project.entries(), QStringList{QStringLiteral("a")});
}

TEST(GuideWriterUndoTest, ARuleThatWasTheOnlyTextTakesTheFileButNotItsFolder) {
    ProjectFolder project;
    const GuideWriter::Applied applied =
        write(project, QStringLiteral("docs/deep/AGENTS.md"), kRule, QStringLiteral("- x"));
    ASSERT_EQ(project.bytes(QStringLiteral("docs/deep/AGENTS.md")), QByteArray("## Rules\n\n- x\n"));
    ASSERT_TRUE(undo(applied, kRule).ok());
    EXPECT_EQ(project.entries(), (QStringList{QStringLiteral("docs"), QStringLiteral("docs/deep")}));
}

TEST(GuideWriterUndoTest, AFileThatIsGoneIsNoError) {
    ProjectFolder project;
    for (const QString& artifact : {kRule, kSkill}) {
        const GuideWriter::Applied applied =
            write(project, QStringLiteral("x/") + artifact + QStringLiteral(".md"), artifact,
                  QStringLiteral("- x"));
        ASSERT_TRUE(QFile::remove(applied.resolvedPath));
        EXPECT_TRUE(undo(applied, artifact).ok());
    }
}

TEST(GuideWriterUndoTest, ARuleLeavesAnOtherwiseChangedFileWithAllElseKept) {
    ProjectFolder project;
    project.write(QStringLiteral("AGENTS.md"), "# T\n\n## Rules\n- a\n");
    const GuideWriter::Applied applied =
        write(project, QStringLiteral("AGENTS.md"), kRule, QStringLiteral("- x\n- y"));
    ASSERT_EQ(project.bytes(QStringLiteral("AGENTS.md")), QByteArray("# T\n\n## Rules\n- a\n- x\n- y\n"));
    // The person edits around the rule and re-indents it; the hash no longer matters.
    project.write(QStringLiteral("AGENTS.md"),
                  "# Title\n\n## Rules\n- a\n   - x\n\t- y\n- b\n\n## More\n- c\n");
    ASSERT_TRUE(undo(applied, kRule).ok());
    EXPECT_EQ(project.bytes(QStringLiteral("AGENTS.md")),
              QByteArray("# Title\n\n## Rules\n- a\n- b\n\n## More\n- c\n"));
}

TEST(GuideWriterUndoTest, ARewordedRuleIsNotFoundAndTheFileIsLeftAlone) {
    ProjectFolder project;
    const GuideWriter::Applied applied =
        write(project, QStringLiteral("AGENTS.md"), kRule, QStringLiteral("- x"));
    project.write(QStringLiteral("AGENTS.md"), "## Rules\n\n- x, mostly\n");
    const auto result = undo(applied, kRule);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error(), Failure(WriteError::ruleNotFound(applied.resolvedPath)));
    EXPECT_EQ(project.bytes(QStringLiteral("AGENTS.md")), QByteArray("## Rules\n\n- x, mostly\n"));
}

TEST(GuideWriterUndoTest, ARuleUndoIgnoresTheHash) {
    ProjectFolder project;
    project.write(QStringLiteral("AGENTS.md"), "## Rules\n- a\n");
    const GuideWriter::Applied applied =
        write(project, QStringLiteral("AGENTS.md"), kRule, QStringLiteral("- x"));
    const auto result =
        GuideWriter::undo(applied.resolvedPath, kRule, applied.insertedText, kRules, QStringLiteral("0"));
    ASSERT_TRUE(result.ok());
    EXPECT_EQ(project.bytes(QStringLiteral("AGENTS.md")), QByteArray("## Rules\n- a\n"));
}

TEST(GuideWriterUndoTest, ApplyThenUndoOfASkillRoundTripsAByteOrderMarkFreeFile) {
    ProjectFolder project;
    const GuideWriter::Applied applied = write(project, QStringLiteral("skills/x/SKILL.md"), kSkill,
                                               QStringLiteral("\uFEFF# caf\u00E9\r\nbody"));
    EXPECT_EQ(project.bytes(QStringLiteral("skills/x/SKILL.md")),
              QByteArray("\xEF\xBB\xBF# caf\xC3\xA9\r\nbody\n"));
    EXPECT_EQ(applied.contentSHA256, GuideWriter::sha256(QStringLiteral("\uFEFF# caf\u00E9\r\nbody\n")));
    ASSERT_TRUE(undo(applied, kSkill).ok());
    EXPECT_EQ(project.entries(), QStringList{QStringLiteral("skills")});
}
