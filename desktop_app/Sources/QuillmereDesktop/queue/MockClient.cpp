#include "QuillmereDesktop/queue/MockClient.h"

#include <QDateTime>
#include <QPointer>
#include <QUuid>
#include <qcoro/qcorotimer.h>

#include <algorithm>

namespace {

QString freshId() {
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

// The proposed call of the first demo interrupt, pretty-printed as an agent would send it.
const char* const branchCleanupDetail = R"({
  "branches": ["feat/old-router", "feat/spike-ui",
               "fix/flaky-test", "chore/deps-bump"],
  "remote": "origin"
})";

struct Template {
    const char* name;
    InterruptKind kind;
    const char* prompt;
    QStringList options;
};

const std::array<Template, 3>& templates() {
    static const std::array<Template, 3> all{{
        {"release-notes",
         InterruptKind::approval,
         "Publish v0.4.1 release notes to the public repo?",
         {QStringLiteral("Approve"), QStringLiteral("Reject")}},
        {"db-backfill",
         InterruptKind::choice,
         "Backfill strategy for the orphaned rows \u2014 batch or single transaction?",
         {QStringLiteral("Batch"), QStringLiteral("Single transaction")}},
        {"support-reply",
         InterruptKind::question,
         "Customer asking for a refund outside policy \u2014 how should I respond?",
         {QStringLiteral("Offer credit"), QStringLiteral("Escalate"), QStringLiteral("Decline")}},
    }};
    return all;
}

} // namespace

MockClient::MockClient(Timing timing, std::optional<unsigned> randomSeed, QObject* parent)
    : MereClient(parent), m_timing(timing), m_snapshot(startingSnapshot()),
      m_random(randomSeed ? *randomSeed : std::random_device{}()) {}

Snapshot MockClient::startingSnapshot() {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    Interrupt cleanup;
    cleanup.id = freshId();
    cleanup.runId = QStringLiteral("run-aurora");
    cleanup.runName = QStringLiteral("aurora-migrate");
    cleanup.kind = InterruptKind::approval;
    cleanup.prompt = QStringLiteral("Delete 4 stale feature branches on origin?");
    cleanup.options = {QStringLiteral("Approve"), QStringLiteral("Reject")};
    cleanup.raisedAt = now.addSecs(-140);
    cleanup.detail = QString::fromUtf8(branchCleanupDetail);
    cleanup.actionToolkit = QStringLiteral("github");
    cleanup.actionSlug = QStringLiteral("GITHUB_DELETE_A_REFERENCE");
    cleanup.target = QStringLiteral("tarnfield/quillmere");

    Interrupt triage;
    triage.id = freshId();
    triage.runId = QStringLiteral("run-triage");
    triage.runName = QStringLiteral("triage-bot");
    triage.kind = InterruptKind::question;
    triage.prompt =
        QStringLiteral("Which service owns the /v1/events 500s from last night \u2014 billing or ingest?");
    triage.options = {QStringLiteral("Billing"), QStringLiteral("Ingest"), QStringLiteral("Not sure")};
    triage.raisedAt = now.addSecs(-40);

    Snapshot snapshot;
    snapshot.running = 3;
    snapshot.done = 12;
    snapshot.usage = Usage{72, 18, 812000};
    snapshot.interrupts = {cleanup, triage};
    return snapshot;
}

void MockClient::connect(SnapshotCallback onSnapshot, ConnectionCallback onConnectionChange) {
    m_onSnapshot = std::move(onSnapshot);
    // The demo queue is always reachable, and never reports going offline, so the
    // connection callback is used once and not kept.
    if (onConnectionChange)
        onConnectionChange(true);
    publish();
    delete m_timer;
    m_timer = new QTimer(this);
    m_timer->setInterval(m_timing.tickInterval);
    QObject::connect(m_timer, &QTimer::timeout, this, &MockClient::tick);
    m_timer->start();
}

void MockClient::disconnect() {
    delete m_timer;
    m_timer = nullptr;
}

void MockClient::tick() {
    ++m_runCounter;
    if (m_runCounter % newInterruptEvery == 0 && m_snapshot.interrupts.size() < maxOpenInterrupts)
        m_snapshot.interrupts.append(randomInterrupt());
    if (m_runCounter % usageMovesEvery == 0 && m_snapshot.usage) {
        Usage& usage = *m_snapshot.usage;
        usage.limitPct = std::clamp(usage.limitPct + randomInt(-3, 4), 0, 100);
        usage.spendDeltaPct = randomInt(-5, 30);
    }
    publish();
}

QCoro::Task<SubmitResult> MockClient::submitVerdict(QString interruptId, Verdict) {
    QPointer<MockClient> self(this);
    co_await QCoro::sleepFor(m_timing.submitDelay);
    // A client replaced during the wait is gone; its verdict counts as cancelled.
    if (!self)
        co_return SubmitError{Error{QStringLiteral("cancelled")}};
    auto& interrupts = m_snapshot.interrupts;
    const auto removed =
        interrupts.removeIf([&interruptId](const Interrupt& i) { return i.id == interruptId; });
    if (removed == 0)
        co_return SubmitError{ClientError::alreadyResolved()};
    // Only `done` moves: the demo's running count drifts upward on purpose.
    m_snapshot.done += 1;
    publish();
    co_return SubmitResult{};
}

Interrupt MockClient::randomInterrupt() {
    const Template& t = templates()[std::size_t(randomInt(0, int(templates().size()) - 1))];
    Interrupt interrupt;
    interrupt.id = freshId();
    interrupt.runId = QString::fromUtf8(t.name);
    interrupt.runName = QString::fromUtf8(t.name);
    interrupt.kind = t.kind;
    interrupt.prompt = QString::fromUtf8(t.prompt);
    interrupt.options = t.options;
    interrupt.raisedAt = QDateTime::currentDateTimeUtc();
    return interrupt;
}

int MockClient::randomInt(int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(m_random);
}

void MockClient::publish() {
    if (m_onSnapshot)
        m_onSnapshot(m_snapshot);
}
