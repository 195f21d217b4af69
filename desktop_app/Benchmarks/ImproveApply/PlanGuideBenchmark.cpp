// How long it takes to plan a rule into a large guide file. Guide files are usually a few
// kilobytes; 100 KB is a generous upper bound for one a person still edits by hand.
#include "ImproveApply/GuideMerge.h"
#include "ImproveApply/GuideWriter.h"

#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

using namespace improve;

namespace {

constexpr qsizetype kGuideBytes = 100 * 1024;
const QString kPath = QStringLiteral("AGENTS.md");
const QString kBody =
    QStringLiteral("- Run the formatter before every commit.\n- Never push to main directly.");

// A guide of sections of ten rules each; with accents, every line holds decomposed
// characters, so each comparison has to go through normalisation.
QString guide(bool accented) {
    const QString word =
        accented ? QStringLiteral("re\u0301sume\u0301 \uD55C\uAE00") : QStringLiteral("resume");
    QString text = QStringLiteral("# Project guide\n\nIntroductory text for agents.\n");
    for (int section = 0; text.size() < kGuideBytes; ++section) {
        text += QStringLiteral("\n## Section %1\n\n").arg(section);
        for (int rule = 0; rule < 10; ++rule)
            text += QStringLiteral("- Rule %1.%2: keep the %3 tidy and the build green.\n")
                        .arg(section)
                        .arg(rule)
                        .arg(word);
    }
    return text;
}

void planRule(benchmark::State& state, const QString& existing, const QString& section, const QString& body) {
    for (auto _ : state) {
        auto plan = GuideMerge::planRule(existing, section, body, kPath);
        benchmark::DoNotOptimize(plan);
    }
    state.counters["bytes"] = double(existing.toUtf8().size());
}

// The whole block search runs, then a new section goes at the end.
void BM_PlanRule_NewSection(benchmark::State& state) {
    planRule(state, guide(false), QStringLiteral("## Rules"), kBody);
}

// The block search, then the heading search and the section's end in the middle of the file.
void BM_PlanRule_IntoMiddleSection(benchmark::State& state) {
    planRule(state, guide(false), QStringLiteral("## Section 120"), kBody);
}

// The block is the file's last two lines, so the scan runs to its end and stops there.
void BM_PlanRule_AlreadyPresentAtEnd(benchmark::State& state) {
    const QString existing = guide(false) + kBody + QChar(u'\n');
    planRule(state, existing, QStringLiteral("## Rules"), kBody);
}

// Every comparison needs normalisation: lines and rule both hold decomposed characters.
void BM_PlanRule_DecomposedText(benchmark::State& state) {
    planRule(state, guide(true), QStringLiteral("## Rules"),
             QStringLiteral("- Keep the re\u0301sume\u0301 short.\n- \uD55C\uAE00 stays."));
}

// What the screen calls: resolving the path, reading the file from disk and planning.
void BM_GuideWriterPlan_FromDisk(benchmark::State& state) {
    QTemporaryDir dir;
    QFile file(dir.filePath(kPath));
    if (!file.open(QIODevice::WriteOnly) || file.write(guide(false).toUtf8()) < 0) {
        state.SkipWithError("could not write the guide file");
        return;
    }
    file.close();
    for (auto _ : state) {
        auto planned =
            GuideWriter::plan(dir.path(), kPath, QStringLiteral("rule"), QStringLiteral("## Rules"), kBody);
        benchmark::DoNotOptimize(planned);
    }
}

} // namespace

// Nine repetitions so that the reported median stands apart from one noisy run.
BENCHMARK(BM_PlanRule_NewSection)->Unit(benchmark::kMicrosecond)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(BM_PlanRule_IntoMiddleSection)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_PlanRule_AlreadyPresentAtEnd)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_PlanRule_DecomposedText)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_GuideWriterPlan_FromDisk)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

BENCHMARK_MAIN();
