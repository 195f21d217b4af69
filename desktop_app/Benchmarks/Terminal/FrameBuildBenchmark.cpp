// CPU time to build a frame of the terminal view: every row of a 200x50 screen of coloured
// output copied out of the terminal and turned into rectangles and glyph quads (with the
// glyphs already in the atlas, as in steady use), then into the GPU path's vertices; and the
// same for a frame where one row changed.

#include <benchmark/benchmark.h>

#include <QDir>
#include <QFile>
#include <QGuiApplication>

#include <memory>

#include "Termkit/engine/Terminal.h"
#include "Termkit/view/TerminalCells.h"
#include "Termkit/view/render/GpuRowsNode.h"

using namespace termkit;

namespace {

constexpr int kCols = 200;
constexpr int kRows = 50;
// How much of the corpus is fed: enough to fill the screen several times over.
constexpr qint64 kCorpusBytes = 4 << 20;

class NoHost : public TerminalDelegate {
public:
    void send(Terminal&, std::span<const uint8_t>) override {}
};

struct Scene {
    NoHost host;
    Terminal terminal{&host, [] {
                          TerminalOptions o;
                          o.cols = kCols;
                          o.rows = kRows;
                          return o;
                      }()};
    FontSet fonts;
    GlyphCache glyphs{fonts, {}};
    FrameBuilder frames{glyphs};
    ViewColors colors;
    CacheSignature signature;
    RowBuildContext context{fonts.metrics(), 0xFFFFFFFFu, true};

    explicit Scene(const QString& corpus) {
        QFile file(corpus);
        if (file.open(QIODevice::ReadOnly)) {
            const QByteArray bytes = file.read(kCorpusBytes);
            terminal.feed(std::span(reinterpret_cast<const uint8_t*>(bytes.constData()),
                                    static_cast<size_t>(bytes.size())));
        }
        signature.cellWidth = fonts.metrics().width;
        signature.cellHeight = fonts.metrics().height;
        signature.rows = kRows;
        signature.cols = kCols;
        // Warm: every glyph of the screen is in the atlas before the timing starts.
        build();
    }
    FrameBuilder::Result build() {
        return frames.build(TerminalRowSource(terminal, colors), signature, context);
    }
};

QString corpusPath() {
    const QByteArray configured = qgetenv("TERMKIT_SGR_CORPUS");
    return configured.isEmpty() ? QDir::homePath() + "/.cache/termbench/corpus/sgr.bin" : QString(configured);
}

Scene& scene() {
    static Scene s(corpusPath());
    return s;
}

void FullFrame(benchmark::State& state) {
    Scene& s = scene();
    for (auto _ : state) {
        s.frames.cache().invalidateRows();
        benchmark::DoNotOptimize(s.build());
    }
    state.counters["quads"] = static_cast<double>([&] {
        size_t n = 0;
        for (int r = 0; r < kRows; ++r)
            n += s.frames.row(r).gray.size() + s.frames.row(r).backgrounds.size();
        return n;
    }());
}
BENCHMARK(FullFrame)->Unit(benchmark::kMicrosecond);

void FullFrameWithVertices(benchmark::State& state) {
    Scene& s = scene();
    GpuRowsNode node;
    for (auto _ : state) {
        s.frames.cache().invalidateRows();
        const FrameBuilder::Result result = s.build();
        node.update(s.frames, result, s.glyphs, nullptr, BufferingMode::perRowPersistent, 1.0f);
    }
}
BENCHMARK(FullFrameWithVertices)->Unit(benchmark::kMicrosecond);

void OneChangedRow(benchmark::State& state) {
    Scene& s = scene();
    GpuRowsNode node;
    s.frames.cache().invalidateRows();
    node.update(s.frames, s.build(), s.glyphs, nullptr, BufferingMode::perRowPersistent, 1.0f);
    int row = 0;
    for (auto _ : state) {
        // One row's cached geometry goes stale, as when the program rewrote that line.
        s.frames.cache().entry(row) = {};
        const FrameBuilder::Result result = s.build();
        node.update(s.frames, result, s.glyphs, nullptr, BufferingMode::perRowPersistent, 1.0f);
        row = (row + 7) % kRows;
    }
}
BENCHMARK(OneChangedRow)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
