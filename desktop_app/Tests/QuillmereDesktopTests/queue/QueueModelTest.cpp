#include "QuillmereDesktop/queue/QueueWire.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace {

const QStringList interruptRequiredKeys{"id", "run_id", "run_name", "kind", "prompt", "options", "raised_at"};
const QStringList interruptOptionalKeys{
    "detail",   "action_toolkit",  "action_slug",        "target",       "requester",
    "reason",   "proposed_action", "affected_resources", "blast_radius", "reversibility",
    "evidence", "expires_at",      "timeout_behavior"};

QJsonObject fullInterrupt() {
    return QJsonObject{{"id", "i-1"},
                       {"run_id", "run-1"},
                       {"run_name", "aurora"},
                       {"kind", "approval"},
                       {"prompt", "Delete?"},
                       {"options", QJsonArray{"Approve", "Reject"}},
                       {"raised_at", "2026-01-31T09:30:00Z"},
                       {"detail", "{}"},
                       {"action_toolkit", "github"},
                       {"action_slug", "GITHUB_DELETE_A_REFERENCE"},
                       {"target", "org/repo"},
                       {"requester", "bot"},
                       {"reason", "cleanup"},
                       {"proposed_action", "delete"},
                       {"affected_resources", QJsonArray{"a", "b"}},
                       {"blast_radius", "small"},
                       {"reversibility", "none"},
                       {"evidence", QJsonArray{"e"}},
                       {"expires_at", "2026-01-31T10:30:00Z"},
                       {"timeout_behavior", "reject"}};
}

QJsonObject snapshotWith(const QJsonObject& interrupt) {
    return QJsonObject{
        {"running", 1},
        {"done", 2},
        {"interrupts", QJsonArray{interrupt}},
        {"usage", QJsonObject{{"limit_pct", 72}, {"spend_delta_pct", -4}, {"tokens_today", 812000}}},
        {"open_suggestions", 3}};
}

wire::Decoded<Snapshot> decode(const QJsonObject& snapshot) {
    return decodeSnapshot(QJsonDocument(snapshot).toJson());
}

TEST(QueueModel, FullSnapshotDecodesEveryField) {
    const auto decoded = decode(snapshotWith(fullInterrupt()));
    ASSERT_TRUE(decoded.ok()) << decoded.error().message().toStdString();
    const Snapshot& s = decoded.value();
    EXPECT_EQ(s.running, 1);
    EXPECT_EQ(s.done, 2);
    EXPECT_EQ(s.usage, (Usage{72, -4, 812000}));
    EXPECT_EQ(s.openSuggestions, 3);
    const Interrupt& i = s.interrupts.at(0);
    EXPECT_EQ(i.runId, "run-1");
    EXPECT_EQ(i.kind, InterruptKind::approval);
    EXPECT_EQ(i.options, (QStringList{"Approve", "Reject"}));
    EXPECT_EQ(i.proposedAction, QString("delete"));
    EXPECT_EQ(i.affectedResources, (QStringList{"a", "b"}));
    EXPECT_EQ(i.expiresAt, QDateTime(QDate(2026, 1, 31), QTime(10, 30), Qt::UTC));
    EXPECT_EQ(i.timeoutBehavior, QString("reject"));
}

TEST(QueueModel, EncodingGivesSnakeCaseKeysAndDecodesBackEqual) {
    const Snapshot s = decode(snapshotWith(fullInterrupt())).value();
    const QJsonObject json = wire::encode(s, queueWireOptions).toObject();
    EXPECT_EQ(json.value("interrupts").toArray().at(0).toObject(), fullInterrupt());
    EXPECT_EQ(decode(json).value(), s);
}

TEST(QueueModel, FractionalSecondsInRaisedAtFailTheSnapshot) {
    QJsonObject interrupt = fullInterrupt();
    interrupt.insert("raised_at", "2026-01-31T09:30:00.250Z");
    EXPECT_FALSE(decode(snapshotWith(interrupt)).ok());
}

TEST(QueueModel, SnapshotWithoutUsageAndSuggestionsDecodesWithBothAbsent) {
    const auto decoded = decodeSnapshot(R"({"running": 0, "done": 5, "interrupts": []})");
    ASSERT_TRUE(decoded.ok());
    EXPECT_FALSE(decoded.value().usage.has_value());
    EXPECT_FALSE(decoded.value().openSuggestions.has_value());
}

TEST(QueueModel, CountOfEachKindOnTheEmptySnapshotIsZero) {
    const Snapshot empty;
    for (InterruptKind kind : allInterruptKinds())
        EXPECT_EQ(empty.count(kind), 0);
}

TEST(QueueModel, CountOfCountsOnlyThatKind) {
    QJsonObject question = fullInterrupt();
    question.insert("kind", "question");
    QJsonObject snapshot = snapshotWith(fullInterrupt());
    snapshot.insert("interrupts", QJsonArray{fullInterrupt(), question, fullInterrupt()});
    const Snapshot s = decode(snapshot).value();
    EXPECT_EQ(s.count(InterruptKind::approval), 2);
    EXPECT_EQ(s.count(InterruptKind::question), 1);
    EXPECT_EQ(s.count(InterruptKind::choice), 0);
}

TEST(QueueModel, OptionsMayBeEmptyButNotMissing) {
    QJsonObject interrupt = fullInterrupt();
    interrupt.insert("options", QJsonArray{});
    ASSERT_TRUE(decode(snapshotWith(interrupt)).ok());
    EXPECT_TRUE(decode(snapshotWith(interrupt)).value().interrupts.at(0).options.isEmpty());
    interrupt.remove("options");
    EXPECT_FALSE(decode(snapshotWith(interrupt)).ok());
}

TEST(QueueModel, UnknownKindFailsTheSnapshot) {
    QJsonObject interrupt = fullInterrupt();
    interrupt.insert("kind", "poll");
    EXPECT_FALSE(decode(snapshotWith(interrupt)).ok());
}

TEST(QueueModel, EveryRequiredInterruptKeyRemovedInTurnFailsTheSnapshot) {
    for (const QString& key : interruptRequiredKeys) {
        QJsonObject interrupt = fullInterrupt();
        interrupt.remove(key);
        const auto decoded = decode(snapshotWith(interrupt));
        ASSERT_FALSE(decoded.ok()) << key.toStdString();
        EXPECT_EQ(decoded.error().path, "interrupts[0]." + key);
    }
}

TEST(QueueModel, EveryRequiredSnapshotAndUsageKeyRemovedInTurnFails) {
    for (const QString key : {"running", "done", "interrupts"}) {
        QJsonObject snapshot = snapshotWith(fullInterrupt());
        snapshot.remove(key);
        EXPECT_FALSE(decode(snapshot).ok()) << key.toStdString();
    }
    for (const QString key : {"limit_pct", "spend_delta_pct", "tokens_today"}) {
        QJsonObject snapshot = snapshotWith(fullInterrupt());
        QJsonObject usage = snapshot.value("usage").toObject();
        usage.remove(key);
        snapshot.insert("usage", usage);
        EXPECT_FALSE(decode(snapshot).ok()) << key.toStdString();
    }
}

// Values that are the wrong type for every field: each one must fail, whatever the field.
TEST(QueueModel, EveryInterruptFieldGivenAWrongTypeFailsTheSnapshot) {
    const QList<QJsonValue> wrongForStrings{42, true, QJsonArray{"x"}, QJsonObject{}};
    const QList<QJsonValue> wrongForArrays{"a", 42, true, QJsonObject{}, QJsonArray{1}};
    const QStringList arrayKeys{"options", "affected_resources", "evidence"};
    QStringList allKeys = interruptRequiredKeys + interruptOptionalKeys;
    for (const QString& key : allKeys) {
        const auto& wrongValues = arrayKeys.contains(key) ? wrongForArrays : wrongForStrings;
        for (const QJsonValue& wrong : wrongValues) {
            QJsonObject interrupt = fullInterrupt();
            interrupt.insert(key, wrong);
            EXPECT_FALSE(decode(snapshotWith(interrupt)).ok())
                << key.toStdString() << " = " << QJsonDocument(QJsonArray{wrong}).toJson().toStdString();
        }
    }
}

TEST(QueueModel, EverySnapshotAndUsageFieldGivenAWrongTypeFails) {
    for (const QString key : {"running", "done", "open_suggestions"}) {
        for (const QJsonValue& wrong :
             {QJsonValue("1"), QJsonValue(1.5), QJsonValue(true), QJsonValue(QJsonArray{})}) {
            QJsonObject snapshot = snapshotWith(fullInterrupt());
            snapshot.insert(key, wrong);
            EXPECT_FALSE(decode(snapshot).ok()) << key.toStdString();
        }
    }
    for (const QString key : {"limit_pct", "spend_delta_pct", "tokens_today"}) {
        QJsonObject snapshot = snapshotWith(fullInterrupt());
        QJsonObject usage = snapshot.value("usage").toObject();
        usage.insert(key, "7");
        snapshot.insert("usage", usage);
        EXPECT_FALSE(decode(snapshot).ok()) << key.toStdString();
    }
    QJsonObject snapshot = snapshotWith(fullInterrupt());
    snapshot.insert("interrupts", QJsonObject{});
    EXPECT_FALSE(decode(snapshot).ok());
    snapshot.insert("interrupts", QJsonArray{"not an interrupt"});
    EXPECT_FALSE(decode(snapshot).ok());
}

TEST(QueueModel, NullForEveryOptionalGivesTheAbsentValue) {
    QJsonObject interrupt = fullInterrupt();
    for (const QString& key : interruptOptionalKeys)
        interrupt.insert(key, QJsonValue::Null);
    QJsonObject snapshot = snapshotWith(interrupt);
    snapshot.insert("usage", QJsonValue::Null);
    snapshot.insert("open_suggestions", QJsonValue::Null);
    const auto decoded = decode(snapshot);
    ASSERT_TRUE(decoded.ok());
    const Interrupt& i = decoded.value().interrupts.at(0);
    EXPECT_FALSE(i.detail || i.actionToolkit || i.actionSlug || i.target || i.requester || i.reason ||
                 i.proposedAction || i.affectedResources || i.blastRadius || i.reversibility || i.evidence ||
                 i.expiresAt || i.timeoutBehavior);
    EXPECT_FALSE(decoded.value().usage || decoded.value().openSuggestions);
}

TEST(QueueModel, NullForARequiredKeyFails) {
    for (const QString& key : interruptRequiredKeys) {
        QJsonObject interrupt = fullInterrupt();
        interrupt.insert(key, QJsonValue::Null);
        EXPECT_FALSE(decode(snapshotWith(interrupt)).ok()) << key.toStdString();
    }
}

TEST(QueueModel, UnknownKeysAreIgnored) {
    QJsonObject interrupt = fullInterrupt();
    interrupt.insert("priority", "high");
    QJsonObject snapshot = snapshotWith(interrupt);
    snapshot.insert("server_version", 9);
    EXPECT_TRUE(decode(snapshot).ok());
}

TEST(QueueModel, VerdictWithoutReplyHasNoReplyKey) {
    const Verdict verdict{VerdictKind::approve, std::nullopt, Verdict::desktopSource,
                          QDateTime(QDate(2026, 1, 31), QTime(9, 30, 5), Qt::UTC)};
    const QJsonObject json = QJsonDocument::fromJson(encodeVerdict(verdict)).object();
    EXPECT_EQ(
        json,
        (QJsonObject{{"verdict", "approve"}, {"source", "desktop"}, {"decided_at", "2026-01-31T09:30:05Z"}}));
}

TEST(QueueModel, VerdictWithReplyRoundTrips) {
    const Verdict verdict{VerdictKind::reply, QString("use billing"), Verdict::desktopSource,
                          QDateTime(QDate(2026, 1, 31), QTime(9, 30, 5), Qt::UTC)};
    const QByteArray body = encodeVerdict(verdict);
    EXPECT_EQ(QJsonDocument::fromJson(body).object().value("reply").toString(), "use billing");
    EXPECT_EQ(wire::decodeJson<Verdict>(body, queueWireOptions).value(), verdict);
}

TEST(QueueModel, UnknownVerdictFails) {
    EXPECT_FALSE(
        wire::decodeJson<Verdict>(
            R"({"verdict":"maybe","source":"desktop","decided_at":"2026-01-31T09:30:05Z"})", queueWireOptions)
            .ok());
}

TEST(QueueModel, KindsHaveTheirRawValues) {
    EXPECT_EQ(wire::rawValue(InterruptKind::approval), "approval");
    EXPECT_EQ(wire::rawValue(InterruptKind::question), "question");
    EXPECT_EQ(wire::rawValue(InterruptKind::choice), "choice");
    EXPECT_EQ(wire::rawValue(VerdictKind::approve), "approve");
    EXPECT_EQ(wire::rawValue(VerdictKind::reject), "reject");
    EXPECT_EQ(wire::rawValue(VerdictKind::reply), "reply");
}

} // namespace
