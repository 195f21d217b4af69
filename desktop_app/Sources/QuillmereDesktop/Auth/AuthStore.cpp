#include "QuillmereDesktop/Auth/AuthStore.h"

#include <QCryptographicHash>
#include <QTcpSocket>
#include <qcoro/qcorotimer.h>

AuthStore::AuthStore(PreferencesStore& preferences, SecretStore& secrets, RelayProcessManager* relayProcess,
                     AuthStoreConfig config, QObject* parent)
    : QObject(parent), m_preferences(preferences), m_secrets(secrets), m_relayProcess(relayProcess),
      m_config(config) {
    m_relayURLString = readRelayURL();
    const QUrl url = baseURL(m_relayURLString).value_or(QUrl(defaultRelayURL));
    m_client = new RelayClient(url, std::nullopt, this);
    if (m_config.bootstrapOnStart)
        start();
}

QString AuthStore::readRelayURL() {
    // The queue used to remember the address under a key of its own. An address found only
    // there becomes the one address; the copy goes either way, so this happens once.
    if (m_preferences.contains(legacyRelayURLKey)) {
        const std::optional<QString> legacy = m_preferences.stringValue(legacyRelayURLKey);
        if (legacy && !m_preferences.contains(relayURLKey))
            m_preferences.setString(relayURLKey, *legacy);
        m_preferences.remove(legacyRelayURLKey);
    }
    return m_preferences.stringValue(relayURLKey).value_or(defaultRelayURL);
}

void AuthStore::startOwnRelayEarly() {
    if (!m_relayProcess || !shouldOwnLocalRelay())
        return;
    // A loopback connection is taken or refused at once: nothing has to be waited for to
    // learn that no relay runs yet.
    const QUrl url(m_relayURLString);
    QTcpSocket probe;
    probe.connectToHost(url.host(), quint16(url.port(RelayProcessConfig::defaultPort)));
    if (probe.waitForConnected(int(m_config.listenProbeTimeout.count())))
        return;
    // Launched now rather than after the window is loaded; the check that follows shares
    // this launch instead of making a second.
    m_relayProcess->start();
}

QCoro::Task<> AuthStore::start() {
    QPointer<AuthStore> self(this);
    startOwnRelayEarly();
    const QString account = tokenAccount(m_relayURLString);
    std::optional<QString> token = co_await m_secrets.get(account);
    if (!self)
        co_return;
    // Tokens of older versions lived under one fixed account; move them once.
    if (!token && isLoopback(m_relayURLString)) {
        token = co_await m_secrets.get(legacyTokenAccount);
        if (!self)
            co_return;
        if (token) {
            co_await m_secrets.set(*token, account);
            co_await m_secrets.remove(legacyTokenAccount);
            if (!self)
                co_return;
        }
    }
    if (m_client)
        m_client->setToken(token);
    co_await bootstrap();
}

QString AuthStore::tokenAccount(const QString& url) {
    const QByteArray digest = QCryptographicHash::hash(url.toLower().toUtf8(), QCryptographicHash::Sha256);
    return QStringLiteral("relay_session_") + QString::fromLatin1(digest.toHex());
}

bool AuthStore::isLoopback(const QString& url) {
    const QUrl parsed(url, QUrl::StrictMode);
    if (!parsed.isValid() || parsed.host().isEmpty())
        return false;
    const QString host = parsed.host().toLower();
    return host == QLatin1String("127.0.0.1") || host == QLatin1String("localhost") ||
           host == QLatin1String("::1");
}

bool AuthStore::isLocalAuthDisabled(const QString& message) {
    return message.contains(localAuthDisabledText, Qt::CaseInsensitive);
}

std::optional<QUrl> AuthStore::baseURL(const QString& text) {
    QString withSlash = text;
    if (!withSlash.endsWith(QLatin1Char('/')))
        withSlash += QLatin1Char('/');
    const QUrl url(withSlash, QUrl::StrictMode);
    if (!url.isValid() || url.isRelative() || url.host().isEmpty())
        return std::nullopt;
    return url;
}

bool AuthStore::shouldOwnLocalRelay() const {
    if (!isLoopback(m_relayURLString))
        return false;
    const int port = QUrl(m_relayURLString).port();
    return port == -1 || port == RelayProcessConfig::defaultPort;
}

void AuthStore::setRelayURLString(const QString& text) {
    m_preferences.setString(relayURLKey, text);
    if (m_relayURLString != text) {
        m_relayURLString = text;
        emit relayURLStringChanged();
    }
    // A URL that does not parse is kept as typed, and the old client goes on serving.
    if (const auto url = baseURL(text))
        rebuildClient(*url);
}

QCoro::Task<> AuthStore::rebuildClient(QUrl url) {
    QPointer<AuthStore> self(this);
    const std::optional<QString> token = co_await m_secrets.get(tokenAccount(m_relayURLString));
    if (!self)
        co_return;
    RelayClient* old = m_client;
    m_client = new RelayClient(url, token, this);
    emit clientChanged();
    // Tasks that still hold the old client finish on their own copies of its state.
    if (old)
        old->deleteLater();
    co_await bootstrap();
}

QCoro::Task<> AuthStore::bootstrap() {
    QPointer<AuthStore> self(this);
    setState(State::checking);
    bool reachable = co_await m_client->isReachable();
    if (!self)
        co_return;
    if (!reachable && shouldOwnLocalRelay()) {
        co_await waitForOwnRelay();
        if (!self)
            co_return;
    }
    reachable = co_await m_client->isReachable();
    if (!self)
        co_return;
    if (!reachable) {
        setState(State::relayUnreachable);
        co_return;
    }

    if (m_client->token()) {
        const Result<RelayUser> me = co_await m_client->get<RelayUser>(QStringLiteral("v1/me"));
        if (!self)
            co_return;
        if (me) {
            m_user = me.value();
            setState(State::signedIn);
            co_return;
        }
        // A stale token stays where it is; a new session overwrites it below.
    }

    if (!isLoopback(m_relayURLString)) {
        setState(State::needsEmail);
        co_return;
    }
    const Result<AuthResponse> local =
        co_await m_client->postRaw<AuthResponse>(QStringLiteral("v1/auth/local"), QJsonObject{}, false);
    if (!self)
        co_return;
    if (local) {
        co_await store(local.value());
        co_return;
    }
    if (!isLocalAuthDisabled(local.error().message))
        setAuthError(local.error().message);
    setState(State::needsEmail);
}

QCoro::Task<> AuthStore::waitForOwnRelay() {
    QPointer<AuthStore> self(this);
    if (!m_relayProcess)
        co_return;
    const Result<void> started = co_await m_relayProcess->start();
    if (!self)
        co_return;
    if (!started) {
        setAuthError(started.error().message);
        co_return;
    }
    for (int attempt = 0; attempt < m_config.readinessPolls; ++attempt) {
        if (!self || !m_client)
            co_return;
        if (co_await m_client->isReachable())
            co_return;
        co_await QCoro::sleepFor(m_config.readinessInterval);
    }
}

QCoro::Task<> AuthStore::store(AuthResponse response) {
    QPointer<AuthStore> self(this);
    m_client->setToken(response.token);
    m_user = response.user;
    setState(State::signedIn);
    // The session works even if the keyring refuses it; it just won't outlive the process.
    co_await m_secrets.set(response.token, tokenAccount(m_relayURLString));
}

QCoro::Task<> AuthStore::requestCode(QString email) {
    QPointer<AuthStore> self(this);
    setAuthError(std::nullopt);
    const QString normalised = email.trimmed().toLower();
    // Built before the wait: braced temporaries across a suspension trip up GCC 12.
    QJsonObject body;
    body.insert(QStringLiteral("email"), normalised);
    const Result<CodeSentResponse> sent =
        co_await m_client->postRaw<CodeSentResponse>(QStringLiteral("v1/auth/request-code"), body, false);
    if (!self)
        co_return;
    if (!sent) {
        setAuthError(sent.error().message);
        co_return;
    }
    m_email = normalised;
    setState(State::codeSent);
}

QCoro::Task<> AuthStore::verifyCode(QString code) {
    if (m_state != State::codeSent)
        co_return;
    QPointer<AuthStore> self(this);
    setAuthError(std::nullopt);
    QJsonObject request;
    request.insert(QStringLiteral("email"), m_email);
    request.insert(QStringLiteral("code"), code);
    const Result<QByteArray> body =
        co_await m_client->postRawData(QStringLiteral("v1/auth/verify-code"), request, false);
    if (!self)
        co_return;
    if (!body) {
        setAuthError(body.error().message);
        co_return;
    }
    const auto outcome = decodeSignInOutcome(body.value());
    if (!outcome) {
        setAuthError(RelayClient::decodingFailure(outcome.error()).message);
        co_return;
    }
    if (const auto* session = std::get_if<AuthResponse>(&outcome.value())) {
        co_await store(*session);
        co_return;
    }
    const auto& challenge = std::get<SecondFactorChallenge>(outcome.value());
    m_ticket = challenge.ticket;
    m_methods = challenge.methods;
    setState(State::needsSecondFactor);
}

QCoro::Task<> AuthStore::verifySecondFactor(QString code) {
    if (m_state != State::needsSecondFactor)
        co_return;
    QPointer<AuthStore> self(this);
    setAuthError(std::nullopt);
    QJsonObject request;
    request.insert(QStringLiteral("mfa_ticket"), m_ticket);
    request.insert(QStringLiteral("code"), code);
    const Result<AuthResponse> session =
        co_await m_client->postRaw<AuthResponse>(QStringLiteral("v1/auth/mfa/verify"), request, false);
    if (!self)
        co_return;
    if (!session) {
        setAuthError(session.error().message);
        co_return;
    }
    co_await store(session.value());
}

void AuthStore::signOut() {
    const std::optional<QString> token = m_client->token();
    // The relay is told in the background; the local sign-out does not wait for it.
    m_client->logout(token);
    m_client->setToken(std::nullopt);
    m_secrets.remove(tokenAccount(m_relayURLString));
    m_user.reset();
    setState(State::needsEmail);
}

void AuthStore::startOver() {
    setAuthError(std::nullopt);
    setState(State::needsEmail);
}

void AuthStore::setState(State state) {
    m_state = state;
    // Announced when the state or its payload differs from what was last announced.
    const Announced now{m_state, m_email, m_ticket, m_methods, m_user};
    if (now == m_announced)
        return;
    m_announced = now;
    emit stateChanged();
}

void AuthStore::setAuthError(std::optional<QString> error) {
    if (m_authError == error)
        return;
    m_authError = std::move(error);
    emit authErrorChanged();
}
