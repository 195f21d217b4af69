#include "ImproveApply/GuideWriter.h"
#include "ProjectFolder.h"

#include <gtest/gtest.h>

using namespace improve;
using improve::testing::ProjectFolder;

TEST(PruneEmptyDirectoriesTest, AtMostTwoFoldersGo) {
    ProjectFolder project;
    project.makeDirectory(QStringLiteral("a/b/c/d"));
    GuideWriter::pruneEmptyDirectories(project.path(QStringLiteral("a/b/c/d")));
    EXPECT_EQ(project.entries(), (QStringList{QStringLiteral("a"), QStringLiteral("a/b")}));
}

TEST(PruneEmptyDirectoriesTest, TheSkillsFolderStaysEvenWhenEmpty) {
    ProjectFolder project;
    project.makeDirectory(QStringLiteral("x/skills"));
    GuideWriter::pruneEmptyDirectories(project.path(QStringLiteral("x/skills")));
    EXPECT_EQ(project.entries(), (QStringList{QStringLiteral("x"), QStringLiteral("x/skills")}));
}

TEST(PruneEmptyDirectoriesTest, ATrailingSlashDoesNotHideTheSkillsName) {
    ProjectFolder project;
    project.makeDirectory(QStringLiteral("x/skills"));
    GuideWriter::pruneEmptyDirectories(project.path(QStringLiteral("x/skills/")));
    EXPECT_TRUE(project.exists(QStringLiteral("x/skills")));
}

TEST(PruneEmptyDirectoriesTest, ASimilarNameIsNotTheSkillsFolder) {
    ProjectFolder project;
    project.makeDirectory(QStringLiteral("x/Skills"));
    project.write(QStringLiteral("x/keep"), "");
    GuideWriter::pruneEmptyDirectories(project.path(QStringLiteral("x/Skills")));
    EXPECT_EQ(project.entries(), (QStringList{QStringLiteral("x"), QStringLiteral("x/keep")}));
}

TEST(PruneEmptyDirectoriesTest, AHiddenFileKeepsItsFolder) {
    ProjectFolder project;
    project.write(QStringLiteral("a/b/.keep"), "");
    GuideWriter::pruneEmptyDirectories(project.path(QStringLiteral("a/b")));
    EXPECT_TRUE(project.exists(QStringLiteral("a/b/.keep")));
}

TEST(PruneEmptyDirectoriesTest, TheWalkStopsAtTheFirstFolderThatHoldsSomething) {
    ProjectFolder project;
    project.makeDirectory(QStringLiteral("a/b"));
    project.write(QStringLiteral("a/other.md"), "");
    GuideWriter::pruneEmptyDirectories(project.path(QStringLiteral("a/b")));
    EXPECT_EQ(project.entries(), (QStringList{QStringLiteral("a"), QStringLiteral("a/other.md")}));
}

TEST(PruneEmptyDirectoriesTest, AMissingFolderStopsTheWalkBeforeItsEmptyParent) {
    ProjectFolder project;
    project.makeDirectory(QStringLiteral("a"));
    GuideWriter::pruneEmptyDirectories(project.path(QStringLiteral("a/missing")));
    EXPECT_EQ(project.entries(), QStringList{QStringLiteral("a")});
}
