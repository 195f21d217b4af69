// Failures of the operating system reach the person in the system's own words.
#include "ImproveApply/GuideWriter.h"
#include "ProjectFolder.h"
#include "Unprivileged.h"

#include <gtest/gtest.h>

#include <cstring>

#include <sys/stat.h>

using namespace improve;
using improve::testing::asUnprivilegedUser;
using improve::testing::ProjectFolder;

namespace {

const QString kRules = QStringLiteral("## Rules");

std::string permissionDenied() {
    return std::strerror(EACCES);
}

void setMode(const QString& path, mode_t mode) {
    ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), mode), 0) << path.toStdString();
}

// A project whose root another user may enter, with its files open to that user unless a
// test closes them.
class OpenProject : public ProjectFolder {
public:
    OpenProject() { setMode(root(), 0777); }
    // Folders closed by a test are opened again, so that the temporary folder can go.
    ~OpenProject() {
        for (const QString& entry : entries()) {
            if (QFileInfo(path(entry)).isDir())
                ::chmod(QFile::encodeName(path(entry)).constData(), 0777);
        }
    }
    void writeOpen(const QString& relative, const QByteArray& bytes) const {
        write(relative, bytes);
        setMode(path(relative), 0666);
    }
};

std::string messageOf(const Result<void, Failure>& result) {
    return result.ok() ? "ok" : result.error().message().toStdString();
}

template <class T> std::string messageOf(const Result<T, Failure>& result) {
    return result.ok() ? "ok" : result.error().message().toStdString();
}

} // namespace

TEST(GuideWriterPermissionTest, AFileThatCannotBeReadFailsToPlan) {
    OpenProject project;
    project.write(QStringLiteral("AGENTS.md"), "## Rules\n");
    setMode(project.path(QStringLiteral("AGENTS.md")), 0200);
    const std::string message = asUnprivilegedUser([&] {
        return messageOf(GuideWriter::plan(project.root(), QStringLiteral("AGENTS.md"),
                                           QStringLiteral("rule"), kRules, QStringLiteral("- x")));
    });
    EXPECT_EQ(message, permissionDenied());
}

TEST(GuideWriterPermissionTest, AFolderThatCannotBeWrittenFailsToApplyAndKeepsTheFile) {
    OpenProject project;
    project.writeOpen(QStringLiteral("locked/AGENTS.md"), "## Rules\n- a\n");
    setMode(project.path(QStringLiteral("locked")), 0555);
    const QString url = project.path(QStringLiteral("locked/AGENTS.md"));
    const GuideMerge::Plan plan{QStringLiteral("## Rules\n- a\n- x\n"), QStringLiteral("- x"), false, false,
                                QString()};
    const std::string message = asUnprivilegedUser([&] { return messageOf(GuideWriter::apply(url, plan)); });
    EXPECT_EQ(message, permissionDenied());
    EXPECT_EQ(project.bytes(QStringLiteral("locked/AGENTS.md")), QByteArray("## Rules\n- a\n"));
    EXPECT_EQ(project.entries(), (QStringList{QStringLiteral("locked"), QStringLiteral("locked/AGENTS.md")}));
}

TEST(GuideWriterPermissionTest, AParentFolderThatCannotBeMadeFailsToApply) {
    OpenProject project;
    project.makeDirectory(QStringLiteral("locked"));
    setMode(project.path(QStringLiteral("locked")), 0555);
    const QString url = project.path(QStringLiteral("locked/new/AGENTS.md"));
    const GuideMerge::Plan plan{QStringLiteral("- x\n"), QStringLiteral("- x"), false, true, QString()};
    const std::string message = asUnprivilegedUser([&] { return messageOf(GuideWriter::apply(url, plan)); });
    EXPECT_EQ(message, permissionDenied());
    EXPECT_FALSE(project.exists(QStringLiteral("locked/new")));
}

TEST(GuideWriterPermissionTest, ASkillInAFolderThatCannotBeWrittenFailsToUndo) {
    OpenProject project;
    project.writeOpen(QStringLiteral("skills/locked/SKILL.md"), "# Skill\n");
    setMode(project.path(QStringLiteral("skills")), 0777);
    setMode(project.path(QStringLiteral("skills/locked")), 0555);
    const QString url = project.path(QStringLiteral("skills/locked/SKILL.md"));
    const QString hash = GuideWriter::sha256(QStringLiteral("# Skill\n"));
    const std::string message = asUnprivilegedUser([&] {
        return messageOf(
            GuideWriter::undo(url, QStringLiteral("skill"), QStringLiteral("# Skill"), QString(), hash));
    });
    EXPECT_EQ(message, permissionDenied());
    EXPECT_EQ(project.bytes(QStringLiteral("skills/locked/SKILL.md")), QByteArray("# Skill\n"));
}

TEST(GuideWriterPermissionTest, ARuleInAFolderThatCannotBeWrittenFailsToUndo) {
    OpenProject project;
    project.writeOpen(QStringLiteral("locked/AGENTS.md"), "## Rules\n- a\n- x\n");
    setMode(project.path(QStringLiteral("locked")), 0555);
    const QString url = project.path(QStringLiteral("locked/AGENTS.md"));
    const std::string message = asUnprivilegedUser([&] {
        return messageOf(
            GuideWriter::undo(url, QStringLiteral("rule"), QStringLiteral("- x"), kRules, QString()));
    });
    EXPECT_EQ(message, permissionDenied());
    EXPECT_EQ(project.bytes(QStringLiteral("locked/AGENTS.md")), QByteArray("## Rules\n- a\n- x\n"));
}

TEST(GuideWriterPermissionTest, AnEmptyFolderThatCannotBeListedIsNotPruned) {
    OpenProject project;
    project.makeDirectory(QStringLiteral("a/hidden"));
    setMode(project.path(QStringLiteral("a")), 0777);
    setMode(project.path(QStringLiteral("a/hidden")), 0333); // may be entered and removed, not listed
    const std::string result = asUnprivilegedUser([&] {
        GuideWriter::pruneEmptyDirectories(project.path(QStringLiteral("a/hidden")));
        return std::string("done");
    });
    EXPECT_EQ(result, "done");
    EXPECT_TRUE(project.exists(QStringLiteral("a/hidden")));
}

TEST(GuideWriterPermissionTest, AnEmptyFolderThatCannotBeRemovedIsLeftQuietly) {
    OpenProject project;
    project.makeDirectory(QStringLiteral("locked/empty"));
    setMode(project.path(QStringLiteral("locked")), 0555);
    setMode(project.path(QStringLiteral("locked/empty")), 0777);
    const std::string result = asUnprivilegedUser([&] {
        GuideWriter::pruneEmptyDirectories(project.path(QStringLiteral("locked/empty")));
        return std::string("done");
    });
    EXPECT_EQ(result, "done");
    EXPECT_TRUE(project.exists(QStringLiteral("locked/empty")));
}
