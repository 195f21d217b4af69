#pragma once

// The relay's fake Composio (cloud_app/tests/fake_composio.py) as a child process on a free
// loopback port, with a key made for this run only.

#include <QProcess>
#include <QProcessEnvironment>
#include <QUrl>

#include <memory>

class FakeComposioProcess {
public:
    FakeComposioProcess();
    ~FakeComposioProcess();

    // The API's base URL (ending in "/api/v3"); empty when the fake did not come up.
    QUrl url() const { return m_url; }
    // The relay's launch variables that point it at this fake.
    QProcessEnvironment relayEnvironment() const;
    // Marks a connected account active, as finishing the flow in the browser would.
    bool activate(const QString& accountId) const;

private:
    std::unique_ptr<QProcess> m_process;
    QString m_key;
    QUrl m_url;
};
