#pragma once

#include "QuillmereDesktop/queue/ClientError.h"
#include "QuillmereDesktop/queue/Snapshot.h"
#include "QuillmereDesktop/queue/Verdict.h"

#include <QObject>
#include <QString>
#include <qcoro/qcorotask.h>

#include <functional>

// The contract of a queue source. The application state owns exactly one and never
// talks to a queue any other way.
class MereClient : public QObject {
    Q_OBJECT
public:
    using SnapshotCallback = std::function<void(const Snapshot&)>;
    using ConnectionCallback = std::function<void(bool connected)>;

    using QObject::QObject;
    ~MereClient() override = default;

    // Begins delivery: whole snapshots to the first callback, the connection state to the
    // second. Callers must not assume which thread the callbacks run on.
    virtual void connect(SnapshotCallback onSnapshot, ConnectionCallback onConnectionChange) = 0;

    // Stops delivery. Harmless on a client that is not connected.
    virtual void disconnect() = 0;

    // Completes when the source has accepted the verdict; fails with
    // ClientError::alreadyResolved when the interrupt is no longer open.
    virtual QCoro::Task<SubmitResult> submitVerdict(QString interruptId, Verdict verdict) = 0;
};
