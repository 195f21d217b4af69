// Latency of one verdict over the wire: from the moment the app sends it to the moment
// the relay's next snapshot, without the interrupt, has reached the application state.
// Runs against the real reference relay on loopback and prints the median of 100 runs.

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/queue/AppState.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/RelayFixture.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>

namespace {

bool holds(const AppState& app, const QString& id) {
    return std::any_of(app.snapshot().interrupts.begin(), app.snapshot().interrupts.end(),
                       [&](const Interrupt& i) { return i.id == id; });
}

// Spins the event loop until the condition holds or ten seconds pass; it wakes on every
// event, so the measured time is not rounded to a polling interval.
bool spinUntil(const std::function<bool()>& condition) {
    QElapsedTimer waited;
    waited.start();
    while (!condition()) {
        if (waited.elapsed() > 10000)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
    }
    return true;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, std::size_t(p * double(values.size())))];
}

} // namespace

int main(int argc, char* argv[]) {
    QCoreApplication application(argc, argv);
    const int runs = argc > 1 ? std::atoi(argv[1]) : 100;

    RelayFixture relay;
    if (!relay.start()) {
        std::fprintf(stderr, "the relay did not start\n");
        return 1;
    }
    QTemporaryDir home;
    MemoryPreferencesStore prefs;
    FakeSecretStore secrets;
    prefs.setString(AuthStore::relayURLKey, relay.url().toString());
    AuthStoreConfig authConfig;
    authConfig.bootstrapOnStart = false;
    AuthStore auth(prefs, secrets, nullptr, authConfig);
    AppStateConfig appConfig;
    appConfig.homeDirectory = home.path();
    AppState app(prefs, appConfig);
    await(auth.start());
    app.connectToRelay(auth.client());
    if (!spinUntil([&] { return app.online(); })) {
        std::fprintf(stderr, "the queue did not come online\n");
        return 1;
    }

    RelayClient agent(relay.url(), auth.client()->token());
    std::vector<double> latencies;
    for (int run = 0; run < runs; ++run) {
        const QJsonObject body{{"run_id", "bench"},
                               {"run_name", "bench"},
                               {"kind", "approval"},
                               {"prompt", "Go?"},
                               {"options", QJsonArray{"Approve", "Reject"}}};
        const auto raised = await(agent.postRaw<QJsonObject>("v1/interrupts", body));
        const QString id = raised ? raised->value("id").toString() : QString();
        if (id.isEmpty() || !spinUntil([&] { return holds(app, id); }))
            return 1;
        app.setSelectedInterruptId(id);
        QElapsedTimer clock;
        clock.start();
        app.submit({VerdictKind::approve, QString("Approve"), Verdict::desktopSource,
                    QDateTime::currentDateTimeUtc()});
        if (!spinUntil([&] { return !holds(app, id); }))
            return 1;
        latencies.push_back(double(clock.nsecsElapsed()) / 1e6);
    }
    std::printf("verdict POST to snapshot without it, over %d runs on loopback: median %.2f ms, p90 %.2f ms, "
                "min %.2f ms, max %.2f ms\n",
                runs, percentile(latencies, 0.5), percentile(latencies, 0.9),
                *std::min_element(latencies.begin(), latencies.end()),
                *std::max_element(latencies.begin(), latencies.end()));
    return 0;
}
