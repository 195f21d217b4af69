#include "QuillmereDesktop/queue/AppState.h"

#include <QThread>
#include <qcoro/qcorotimer.h>

#include <type_traits>

AppState::AppState(PreferencesStore& preferences, Config config, QObject* parent)
    : QObject(parent), m_preferences(preferences), m_config(std::move(config)) {
    readPreferences();
    createWorkingDirectory();
    if (m_useMock)
        connect();
}

AppState::~AppState() {
    if (m_client)
        m_client->disconnect();
}

void AppState::readPreferences() {
    // An installation from before the relay became the default leaves demo mode once;
    // the marker records that this reset has run.
    if (!m_preferences.contains(standaloneResetKey)) {
        m_useMock = false;
        m_preferences.setBool(useMockKey, false);
        m_preferences.setBool(standaloneResetKey, true);
    } else {
        m_useMock = m_preferences.boolValue(useMockKey).value_or(false);
    }
    // The session token lives in the secret store only; an old copy in the defaults goes.
    m_preferences.remove(tokenKey);
    m_alwaysOnTop = m_preferences.boolValue(alwaysOnTopKey).value_or(true);
    m_terminalWorkingDirectory =
        m_preferences.stringValue(workingDirectoryKey)
            .value_or(QDir(m_config.homeDirectory).filePath(QStringLiteral("Quillmere")));
}

void AppState::createWorkingDirectory() const {
    // A folder that cannot be made is not worth stopping for: the terminals say so later.
    (void)QDir().mkpath(m_terminalWorkingDirectory);
}

std::optional<Interrupt> AppState::selectedInterrupt() const {
    if (!m_selectedInterruptId)
        return std::nullopt;
    for (const Interrupt& interrupt : m_snapshot.interrupts)
        if (interrupt.id == *m_selectedInterruptId)
            return interrupt;
    return std::nullopt;
}

void AppState::connect() {
    MereClient* client = makeClient();
    replaceClient(client);
    if (!client) {
        setOnline(false);
        return;
    }

    const quint64 generation = m_clientGeneration;
    QPointer<AppState> self(this);
    // Client callbacks may come from any thread; they only ever enter through the main one.
    auto onMainThread = [self, generation](auto apply) {
        if (!self)
            return;
        auto guarded = [self, generation, apply] {
            if (self && self->m_clientGeneration == generation)
                apply(*self);
        };
        if (QThread::currentThread() == self->thread())
            guarded();
        else
            QMetaObject::invokeMethod(self, guarded, Qt::QueuedConnection);
    };
    m_client->connect(
        [onMainThread](const Snapshot& snapshot) {
            onMainThread([snapshot](AppState& state) { state.setSnapshot(snapshot); });
        },
        [onMainThread](bool connected) {
            onMainThread([connected](AppState& state) { state.setOnline(connected); });
        });
}

MereClient* AppState::makeClient() {
    if (m_useMock)
        return new MockClient(m_config.mockTiming, std::nullopt, this);
    RelayClient* relay = queueRelayClient();
    if (!relay)
        return nullptr;
    return m_config.makeRelayClient(*relay, this);
}

RelayClient* AppState::queueRelayClient() {
    if (m_hostedClient)
        m_hostedClient->deleteLater();
    // Without a signed-in relay client there is no relay to queue from.
    if (!m_relayClient)
        return nullptr;
    const QUrl url(m_baseURLString, QUrl::StrictMode);
    const bool usable = url.isValid() && !url.host().isEmpty() &&
                        (url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https"));
    if (!usable)
        return nullptr;
    const QString signedInToken = m_relayClient->token().value_or(QString());
    if (url == m_relayClient->baseURL() && m_token == signedInToken)
        return m_relayClient;
    // Another relay: the signed-in client keeps its own address and token for sign-in.
    m_hostedClient = new RelayClient(url, m_token.isEmpty() ? std::nullopt : std::optional(m_token), this);
    return m_hostedClient;
}

void AppState::replaceClient(MereClient* client) {
    if (m_client) {
        m_client->disconnect();
        // Deferred, because the old client may be in the middle of calling us.
        m_client->deleteLater();
    }
    ++m_clientGeneration;
    m_client = client;
}

void AppState::connectToRelay(RelayClient* client) {
    m_relayClient = client;
    if (!client)
        return;
    setBaseURLString(client->baseURL().toString());
    setToken(client->token().value_or(QString()));
    // In demo mode the running demo client stays; the relay is remembered for later.
    if (!m_useMock)
        connect();
}

void AppState::disconnectQueue() {
    replaceClient(nullptr);
    setOnline(false);
}

void AppState::back() {
    switch (m_screen) {
    case Screen::item:
        setScreen(Screen::queue);
        break;
    case Screen::queue:
        setScreen(Screen::home);
        break;
    case Screen::home:
        break;
    }
}

void AppState::submit(const Verdict& verdict) {
    if (!m_selectedInterruptId)
        return;
    // The task is not awaited here: it reports through the published fields.
    runSubmit(m_client, *m_selectedInterruptId, verdict);
}

QCoro::Task<> AppState::runSubmit(QPointer<MereClient> client, QString interruptId, Verdict verdict) {
    QPointer<AppState> self(this);
    // With no client there is nothing to send, and that counts as success.
    SubmitResult result;
    if (client)
        result = co_await client->submitVerdict(interruptId, verdict);
    if (!self)
        co_return;

    if (result.ok()) {
        setSentToast(toastSent);
        setSelectedInterruptId(std::nullopt);
        // Read now: after the last interrupt the relay's new snapshot is usually still on
        // its way, so the person lands on the queue and sees it empty itself.
        setScreen(m_snapshot.interrupts.isEmpty() ? Screen::home : Screen::queue);
    } else if (const auto* clientError = std::get_if<ClientError>(&result.error());
               clientError && clientError->kind != ClientError::Kind::server) {
        setSentToast(toastAlreadyResolved);
        setSelectedInterruptId(std::nullopt);
        setScreen(Screen::queue);
    } else {
        // The selection stays so the person can answer the same interrupt again.
        setSentToast(toastNotSent);
    }

    co_await QCoro::sleepFor(m_config.toastDuration);
    if (self)
        self->setSentToast(std::nullopt);
}

void AppState::setSnapshot(const Snapshot& snapshot) {
    if (m_snapshot == snapshot)
        return;
    m_snapshot = snapshot;
    emit snapshotChanged();
}

void AppState::setOnline(bool online) {
    if (m_online == online)
        return;
    m_online = online;
    emit onlineChanged();
}

void AppState::setScreen(Screen screen) {
    if (m_screen == screen)
        return;
    m_screen = screen;
    emit screenChanged();
}

void AppState::setSelectedInterruptId(std::optional<QString> id) {
    if (m_selectedInterruptId == id)
        return;
    m_selectedInterruptId = std::move(id);
    emit selectedInterruptIdChanged();
}

void AppState::setSentToast(std::optional<QString> toast) {
    if (m_sentToast == toast)
        return;
    m_sentToast = std::move(toast);
    emit sentToastChanged();
}

void AppState::setUseMock(bool useMock) {
    m_preferences.setBool(useMockKey, useMock);
    if (m_useMock != useMock) {
        m_useMock = useMock;
        emit useMockChanged();
    }
    connect();
}

void AppState::setAlwaysOnTop(bool alwaysOnTop) {
    m_preferences.setBool(alwaysOnTopKey, alwaysOnTop);
    if (m_alwaysOnTop == alwaysOnTop)
        return;
    m_alwaysOnTop = alwaysOnTop;
    emit alwaysOnTopChanged();
}

void AppState::setTerminalWorkingDirectory(const QString& path) {
    m_preferences.setString(workingDirectoryKey, path);
    if (m_terminalWorkingDirectory != path) {
        m_terminalWorkingDirectory = path;
        emit terminalWorkingDirectoryChanged();
    }
    createWorkingDirectory();
}

void AppState::setBaseURLString(const QString& url) {
    if (m_baseURLString == url)
        return;
    m_baseURLString = url;
    emit baseURLStringChanged();
}

void AppState::setToken(const QString& token) {
    if (m_token == token)
        return;
    m_token = token;
    emit tokenChanged();
}
