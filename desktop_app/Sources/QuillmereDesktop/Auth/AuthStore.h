#pragma once

#include "QuillmereDesktop/Auth/AuthRecords.h"
#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/Auth/RelayProcessManager.h"
#include "QuillmereDesktop/Auth/SecretStore.h"
#include "QuillmereDesktop/common/PreferencesStore.h"
#include "QuillmereDesktop/common/QmlSingleton.h"

#include <QObject>
#include <QPointer>
#include <QtQml/qqmlregistration.h>

#include <chrono>
#include <optional>

// What the sign-in store takes from outside.
struct AuthStoreConfig {
    // After starting our own relay, how often and how far apart its health is asked.
    static constexpr int defaultReadinessPolls = 20;
    static constexpr std::chrono::milliseconds defaultReadinessInterval{150};

    int readinessPolls = defaultReadinessPolls;
    std::chrono::milliseconds readinessInterval = defaultReadinessInterval;
    // Starts bootstrap on construction, as the application does; tests may start it by hand.
    bool bootstrapOnStart = true;
    // How long the first look for a relay on the loopback port may take; a loopback
    // connection is accepted or refused well within it.
    static constexpr std::chrono::milliseconds defaultListenProbeTimeout{200};
    std::chrono::milliseconds listenProbeTimeout = defaultListenProbeTimeout;
};

// Decides who is signed in to which relay. The one owner of the relay's address: it keeps
// the address (preference "relayURL") and the relay client made for it, and replaces the
// client when the address changes; everyone else asks `client()` at the moment of use.
// Keeps the session token in the secret store under a name derived from the relay's URL,
// starts the managed relay when the URL calls for it, and drives the sign-in screen.
class AuthStore : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(State state READ state NOTIFY stateChanged)
    Q_PROPERTY(QString authError READ authErrorText NOTIFY authErrorChanged)
    Q_PROPERTY(
        QString relayURLString READ relayURLString WRITE setRelayURLString NOTIFY relayURLStringChanged)
    Q_PROPERTY(QString email READ email NOTIFY stateChanged)
    Q_PROPERTY(QString userEmail READ userEmail NOTIFY stateChanged)

public:
    // QML sees the one instance the application made.
    static AuthStore* create(QQmlEngine* qml, QJSEngine* js) {
        return QmlSingleton<AuthStore>::create(qml, js);
    }

    enum class State { checking, relayUnreachable, needsEmail, codeSent, needsSecondFactor, signedIn };
    Q_ENUM(State)

    static inline const QString relayURLKey = QStringLiteral("relayURL");
    // Where older versions kept a second copy of the address; read once, then removed.
    static inline const QString legacyRelayURLKey = QStringLiteral("baseURL");
    // The relay the application starts for itself, on loopback.
    static inline const QString defaultRelayURL =
        QStringLiteral("http://127.0.0.1:%1/").arg(RelayProcessConfig::defaultPort);
    static inline const QString legacyTokenAccount = QStringLiteral("relay_session_token");
    static inline const QString localAuthDisabledText = QStringLiteral("local authentication is disabled");

    AuthStore(PreferencesStore& preferences, SecretStore& secrets, RelayProcessManager* relayProcess,
              AuthStoreConfig config = {}, QObject* parent = nullptr);

    State state() const { return m_state; }
    const std::optional<QString>& authError() const { return m_authError; }
    const QString& relayURLString() const { return m_relayURLString; }
    RelayClient* client() const { return m_client; }
    // The manager of the relay this application may start, if any.
    RelayProcessManager* relayProcess() const { return m_relayProcess; }
    // The address of the code and second-factor forms, or of the signed-in user.
    QString email() const { return m_email; }
    QString userEmail() const { return m_user ? m_user->email : QString(); }
    const std::optional<RelayUser>& user() const { return m_user; }
    const QString& ticket() const { return m_ticket; }
    const QList<SecondFactor>& methods() const { return m_methods; }

    void setRelayURLString(const QString& text);
    // The sign-in form's "Change email" and "Start over".
    Q_INVOKABLE void startOver();

    QCoro::Task<> bootstrap();
    QCoro::Task<> requestCode(QString email);
    QCoro::Task<> verifyCode(QString code);
    QCoro::Task<> verifySecondFactor(QString code);
    Q_INVOKABLE void signOut();

    // The relay the application starts for itself: loopback, on the default port or none.
    bool shouldOwnLocalRelay() const;

    static QString tokenAccount(const QString& url);
    static bool isLoopback(const QString& url);
    static bool isLocalAuthDisabled(const QString& message);
    // The text with a trailing slash, parsed; nothing when it is not an absolute URL.
    static std::optional<QUrl> baseURL(const QString& text);

    // Finishes construction: reads the token and runs bootstrap. Called by the constructor
    // unless the configuration says otherwise.
    QCoro::Task<> start();
    // Launches the managed relay at once when this address calls for it and nothing listens
    // there yet, so that it boots while the window loads. The check of `bootstrap` decides
    // as before; it finds this launch under way and waits for it.
    void startOwnRelayEarly();

signals:
    void stateChanged();
    void authErrorChanged();
    void relayURLStringChanged();
    // The relay client was replaced: readers of `client()` should read it again.
    void clientChanged();

private:
    // The stored address, after folding the legacy key into the one key.
    QString readRelayURL();
    QCoro::Task<> rebuildClient(QUrl url);
    QCoro::Task<> waitForOwnRelay();
    QCoro::Task<> store(AuthResponse response);
    void setState(State state);
    void setAuthError(std::optional<QString> error);
    QString authErrorText() const { return m_authError.value_or(QString()); }

    PreferencesStore& m_preferences;
    SecretStore& m_secrets;
    QPointer<RelayProcessManager> m_relayProcess;
    AuthStoreConfig m_config;
    State m_state = State::checking;
    std::optional<QString> m_authError;
    QString m_relayURLString;
    QPointer<RelayClient> m_client;
    // The payloads of the states that carry one.
    QString m_email;
    QString m_ticket;
    QList<SecondFactor> m_methods;
    std::optional<RelayUser> m_user;

    struct Announced {
        State state = State::checking;
        QString email;
        QString ticket;
        QList<SecondFactor> methods;
        std::optional<RelayUser> user;
        friend bool operator==(const Announced&, const Announced&) = default;
    };
    Announced m_announced;
};
