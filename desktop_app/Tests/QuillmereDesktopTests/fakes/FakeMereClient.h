#pragma once

#include "QuillmereDesktop/queue/MereClient.h"

#include <QStringList>

// A queue client that answers every verdict with a result the test chooses, and lets the
// test push snapshots and connection changes as a live source would.
class FakeMereClient : public MereClient {
    Q_OBJECT
public:
    using MereClient::MereClient;

    void connect(SnapshotCallback onSnapshot, ConnectionCallback onConnectionChange) override {
        m_onSnapshot = std::move(onSnapshot);
        m_onConnectionChange = std::move(onConnectionChange);
        ++connectCount;
    }
    void disconnect() override {
        ++disconnectCount;
        if (keepsCallbacksAfterDisconnect)
            return;
        m_onSnapshot = nullptr;
        m_onConnectionChange = nullptr;
    }
    QCoro::Task<SubmitResult> submitVerdict(QString interruptId, Verdict verdict) override {
        submittedIds.append(interruptId);
        submittedVerdicts.append(verdict);
        co_return nextResult;
    }

    void pushSnapshot(const Snapshot& snapshot) {
        if (m_onSnapshot)
            m_onSnapshot(snapshot);
    }
    void pushConnection(bool connected) {
        if (m_onConnectionChange)
            m_onConnectionChange(connected);
    }

    SubmitResult nextResult;
    QStringList submittedIds;
    QList<Verdict> submittedVerdicts;
    int connectCount = 0;
    int disconnectCount = 0;
    // Stands for a delivery already on its way when the client was told to stop.
    bool keepsCallbacksAfterDisconnect = false;

private:
    SnapshotCallback m_onSnapshot;
    ConnectionCallback m_onConnectionChange;
};
