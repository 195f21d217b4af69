// A terminal view alone in a window, for measurements against other terminals on the same
// display: it runs a command in a view of a given size in cells and reports what only the
// process itself can see (the largest gap of a 10 ms main-thread timer, key-to-frame
// latency) as one JSON line on standard output.
//
//   termkit-view-host --cols C --rows R [--software] --run 'COMMAND'
//   termkit-view-host --cols C --rows R [--software] --typing N
//   termkit-view-host --cols C --rows R [--software] --idle SECONDS

#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "Termkit/view/LocalProcessTerminalView.h"

using namespace termkit;

namespace {

// The main-thread timer whose worst delay is reported.
constexpr int kProbeIntervalMs = 10;
// Between two typed keys, a pause that is not a multiple of a frame.
constexpr int kKeyPauseMs = 37;

struct Host {
    QQuickWindow window;
    LocalProcessTerminalView* view = nullptr;

    Host(int cols, int rows) {
        view = new LocalProcessTerminalView(window.contentItem());
        const CellMetrics& cell = view->cellMetrics();
        const QSize size(cols * cell.width, rows * cell.height);
        window.setTitle(QStringLiteral("termkit-view-host"));
        window.resize(size);
        window.setPosition(0, 0);
        view->setSize(QSizeF(size));
        view->setNativeBackgroundColor(Qt::white);
        view->setNativeForegroundColor(Qt::black);
        window.show();
        view->forceActiveFocus();
    }
    const char* path() const {
        return window.rendererInterface()->graphicsApi() == QSGRendererInterface::Software ? "software"
                                                                                           : "gpu";
    }
};

double percentile(std::vector<double> values, double p) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, static_cast<size_t>(p * (values.size() - 1) + 0.5));
    return values[index];
}

int runCommand(Host& host, const QString& command) {
    QElapsedTimer clock;
    clock.start();
    qint64 last = 0;
    qint64 worstGap = 0;
    QTimer probe;
    probe.setTimerType(Qt::PreciseTimer);
    QObject::connect(&probe, &QTimer::timeout, [&] {
        const qint64 now = clock.nsecsElapsed();
        if (last != 0)
            worstGap = std::max(worstGap, now - last);
        last = now;
    });
    probe.start(kProbeIntervalMs);
    QObject::connect(host.view, &LocalProcessTerminalView::processEnded, [&](int) {
        std::printf("{\"path\": \"%s\", \"seconds\": %.3f, \"max_timer_gap_ms\": %.1f, \"frames\": %llu}\n",
                    host.path(), clock.nsecsElapsed() / 1e9, worstGap / 1e6,
                    static_cast<unsigned long long>(host.view->presentedFrames()));
        std::fflush(stdout);
        QCoreApplication::quit();
    });
    host.view->startProcess("/bin/bash", {"-c", command.toStdString()});
    return QGuiApplication::exec();
}

int typing(Host& host, int keys) {
    host.view->startProcess("/bin/cat");
    std::vector<double> latencies;
    QElapsedTimer clock;
    clock.start();
    int typed = 0;
    qint64 sentAt = 0;
    uint64_t fedBefore = 0;
    bool waiting = false;
    QTimer next;
    next.setSingleShot(true);
    auto sendKey = [&] {
        const char c = static_cast<char>('a' + typed % 26);
        fedBefore = host.view->bytesFed();
        sentAt = clock.nsecsElapsed();
        waiting = true;
        QKeyEvent press(QEvent::KeyPress, Qt::Key_A + typed % 26, Qt::NoModifier, QString(QLatin1Char(c)));
        QCoreApplication::sendEvent(&host.window, &press);
        QKeyEvent release(QEvent::KeyRelease, Qt::Key_A + typed % 26, Qt::NoModifier,
                          QString(QLatin1Char(c)));
        QCoreApplication::sendEvent(&host.window, &release);
        ++typed;
    };
    // A frame that shows the echo: it holds bytes that arrived after the key was sent.
    QObject::connect(host.view, &TerminalView::framePresented, [&] {
        if (!waiting || host.view->bytesFed() <= fedBefore || host.view->bytesPresented() <= fedBefore)
            return;
        waiting = false;
        latencies.push_back((clock.nsecsElapsed() - sentAt) / 1e6);
        if (static_cast<int>(latencies.size()) >= keys) {
            std::printf(
                "{\"path\": \"%s\", \"keys\": %zu, \"p50_ms\": %.2f, \"p95_ms\": %.2f, \"max_ms\": %.2f}\n",
                host.path(), latencies.size(), percentile(latencies, 0.5), percentile(latencies, 0.95),
                percentile(latencies, 1.0));
            std::fflush(stdout);
            QCoreApplication::quit();
            return;
        }
        // A line full: Control-U lets the kernel's echo wipe it, so typing stays on one row.
        if (typed % 60 == 0)
            host.view->sendText(QStringLiteral("\x15"));
        next.start(kKeyPauseMs);
    });
    QObject::connect(&next, &QTimer::timeout, sendKey);
    QTimer::singleShot(500, sendKey);
    return QGuiApplication::exec();
}

} // namespace

int main(int argc, char* argv[]) {
    for (int i = 1; i < argc; ++i)
        if (qstrcmp(argv[i], "--software") == 0)
            qputenv("QT_QUICK_BACKEND", "software");
    QGuiApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOption({"cols", "Columns.", "n", "80"});
    parser.addOption({"rows", "Rows.", "n", "24"});
    parser.addOption({"software", "Software scene graph."});
    parser.addOption({"run", "Runs a command with bash and reports when it ends.", "command"});
    parser.addOption({"typing", "Types keys into cat and reports key-to-frame latency.", "keys"});
    parser.addOption({"idle", "Shows an idle shell for a time.", "seconds"});
    parser.process(app);
    Host host(parser.value("cols").toInt(), parser.value("rows").toInt());
    if (parser.isSet("run"))
        return runCommand(host, parser.value("run"));
    if (parser.isSet("typing"))
        return typing(host, parser.value("typing").toInt());
    host.view->startProcess("/bin/bash", {"-i"});
    QTimer::singleShot(parser.value("idle").toInt() * 1000, &app, &QCoreApplication::quit);
    return QGuiApplication::exec();
}
