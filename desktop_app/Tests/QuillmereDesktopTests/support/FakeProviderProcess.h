#pragma once

// The shared fake model provider (cloud_app/tests/fake_provider.py) as a child process on a
// free loopback port, scripted over its control paths; and the relay inventory that puts
// one API lane on it.

#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <QUrl>

#include <memory>

class FakeProviderProcess {
public:
    static inline const QString key = QStringLiteral("sk-app-test");
    static inline const QString keyVariable = QStringLiteral("QUILLMERE_TEST_PROVIDER_KEY");

    // Starts it with this default answer; `url()` is empty when it did not come up.
    explicit FakeProviderProcess(const QString& defaultText);
    ~FakeProviderProcess();

    QUrl url() const { return m_url; }
    // The next answers, each a reply object as the fake takes it ({"text": ..., "status": 503}).
    bool script(const QJsonArray& replies) const;
    // The requests it received on the model paths, as it recorded them.
    QJsonArray requests() const;

    // The relay's launch variables for one lane ("fake-lane", OpenAI chat) on this provider.
    QProcessEnvironment inventory() const {
        return inventory({QStringLiteral("reasoning"), QStringLiteral("long_context")});
    }
    // The same lane with the given capabilities.
    QProcessEnvironment inventory(const QStringList& capabilities) const;

private:
    std::unique_ptr<QProcess> m_process;
    QUrl m_url;
};
