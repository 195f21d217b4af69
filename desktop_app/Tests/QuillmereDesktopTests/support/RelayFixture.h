#pragma once

// The real reference relay, started for a test on a free loopback port with a database
// in a temporary folder; it can be stopped and started again on the same port.

#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>

#include <memory>
#include <optional>

class RelayFixture {
public:
    struct Options {
        bool localAuth = true;
        // Extra variables, e.g. shorter relay timings.
        QProcessEnvironment extra;
        // The Python that runs the relay; empty for the configured one (which may be a
        // launcher that needs the system's PATH).
        QString interpreter;
    };

    RelayFixture();
    explicit RelayFixture(Options options);
    ~RelayFixture();

    // Starts the relay (on the same port as before, after a stop); false if it did not come up.
    bool start();
    // Stops it and waits for it to end.
    void stop();
    bool isRunning() const;

    QUrl url() const;
    quint16 port() const { return m_port; }
    QString databasePath() const;
    QString outboxPath() const;

    // The newest sign-in code the relay wrote to its outbox for this address.
    std::optional<QString> latestCode(const QString& email) const;
    // Turns the second factor on for an address; gives its secret and recovery codes.
    struct SecondFactorSetup {
        QString secret;
        QStringList recoveryCodes;
    };
    std::optional<SecondFactorSetup> enableSecondFactor(const QString& email) const;

    static QString serverScript();
    static QString python();
    // A loopback port that was free a moment ago, for a relay that the app itself starts.
    static quint16 freeLoopbackPort();

private:
    Options m_options;
    QTemporaryDir m_folder;
    std::unique_ptr<QProcess> m_process;
    quint16 m_port = 0;
};

// The RFC 6238 code of a base32 secret at a moment: 30-second steps, six digits, SHA-1.
QString totpCode(const QString& base32Secret, qint64 unixSeconds);
