// A guide file is replaced in one step: whoever reads it meanwhile sees the old text or the
// new, never a mixture, a truncation or no file at all.
#include "ImproveApply/FileSystem.h"
#include "ImproveApply/GuideWriter.h"
#include "ProjectFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

using namespace improve;
using improve::testing::ProjectFolder;

namespace {

constexpr int kRewrites = 1000;
constexpr int kApplyUndoCycles = 100;
constexpr qsizetype kGuideBytes = 1024 * 1024;

// A guide of at least the given size whose every line names its version, so that two
// versions differ throughout and a torn read cannot match either of them.
QString guide(char version, qsizetype bytes) {
    QString text;
    text.reserve(bytes + 80);
    for (int line = 0; text.size() < bytes; ++line)
        text +=
            QStringLiteral("- rule %1 of version %2: keep the build green\n").arg(line).arg(QChar(version));
    return text;
}

// What a reader saw while the writer ran.
struct Reads {
    int total = 0;
    int ofFirst = 0;
    int ofSecond = 0;
    int bad = 0;
};

// Reads the file over and over on another thread while write runs, and sorts every read
// by which of the two texts it saw in full, if any.
Reads readWhile(const QString& url, const QByteArray& first, const QByteArray& second,
                const std::function<void()>& write) {
    std::atomic<bool> writing{true};
    Reads reads;
    std::thread reader([&] {
        while (writing.load()) {
            QFile file(url);
            const QByteArray seen = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
            ++reads.total;
            if (seen == first)
                ++reads.ofFirst;
            else if (seen == second)
                ++reads.ofSecond;
            else
                ++reads.bad;
        }
    });
    write();
    writing = false;
    reader.join();
    return reads;
}

} // namespace

// Every write of the module, apply's and undo's alike, goes through this one replacement.
TEST(GuideWriterAtomicityTest, AReaderNeverSeesAPartialFileWhileAGuideIsRewrittenAThousandTimes) {
    ProjectFolder project;
    const QString url = project.path(QStringLiteral("AGENTS.md"));
    // Different sizes as well as different text, so a truncated read is caught as well.
    const QString first = guide('A', kGuideBytes);
    const QString second = guide('B', kGuideBytes + 4096);
    ASSERT_TRUE(files::writeAtomically(url, first).ok());

    int failedWrites = 0;
    const Reads reads = readWhile(url, first.toUtf8(), second.toUtf8(), [&] {
        for (int i = 1; i <= kRewrites; ++i)
            failedWrites += files::writeAtomically(url, i % 2 == 1 ? second : first).ok() ? 0 : 1;
    });

    EXPECT_EQ(failedWrites, 0);
    EXPECT_EQ(reads.bad, 0) << "of " << reads.total << " reads";
    // The reader really ran alongside the writer and saw both versions.
    EXPECT_GT(reads.ofFirst, 0);
    EXPECT_GT(reads.ofSecond, 0);
    EXPECT_EQ(project.entries(), QStringList{QStringLiteral("AGENTS.md")});
}

TEST(GuideWriterAtomicityTest, AReaderNeverSeesAPartialFileWhileARuleIsAppliedAndUndone) {
    ProjectFolder project;
    const QString url = project.path(QStringLiteral("AGENTS.md"));
    const QString without = QStringLiteral("## Rules\n") + guide('A', kGuideBytes);
    const QString with = without + QStringLiteral("- run the formatter before committing\n");
    ASSERT_TRUE(files::writeAtomically(url, without).ok());
    const auto planned = GuideWriter::plan(project.root(), QStringLiteral("AGENTS.md"),
                                           QStringLiteral("rule"), QStringLiteral("## Rules"),
                                           QStringLiteral("- run the formatter before committing"));
    ASSERT_TRUE(planned.ok());
    ASSERT_EQ(planned->plan.contents, with);

    int failures = 0;
    const Reads reads = readWhile(url, without.toUtf8(), with.toUtf8(), [&] {
        for (int i = 0; i < kApplyUndoCycles; ++i) {
            const auto applied = GuideWriter::apply(planned->url, planned->plan);
            failures += applied.ok() ? 0 : 1;
            failures += GuideWriter::undo(url, QStringLiteral("rule"), planned->plan.insertedText,
                                          QStringLiteral("## Rules"), QString())
                            ? 0
                            : 1;
        }
    });

    EXPECT_EQ(failures, 0);
    EXPECT_EQ(reads.bad, 0) << "of " << reads.total << " reads";
    EXPECT_GT(reads.ofFirst, 0);
    EXPECT_GT(reads.ofSecond, 0);
}
