#pragma once

#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/common/PreferencesStore.h"
#include "QuillmereDesktop/common/QmlSingleton.h"
#include "QuillmereDesktop/queue/MereClient.h"
#include "QuillmereDesktop/queue/MereCloudClient.h"
#include "QuillmereDesktop/queue/MockClient.h"
#include "QuillmereDesktop/queue/Snapshot.h"

#include <QDir>
#include <QMetaEnum>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <QtQml/qqmlregistration.h>

#include <chrono>
#include <functional>
#include <optional>

// What the application state takes from outside: its timers, folders and client factory.
struct AppStateConfig {
    // How long the verdict toast stays.
    static constexpr std::chrono::milliseconds defaultToastDuration{1400};

    std::chrono::milliseconds toastDuration = defaultToastDuration;
    MockClient::Timing mockTiming;
    // The folder under which "Quillmere" is the default working folder.
    QString homeDirectory = QDir::homePath();
    // Builds the live queue client for the signed-in relay client, which it asks for the
    // relay's address and the session token whenever it needs them.
    std::function<MereClient*(RelayClient& relay, QObject* parent)> makeRelayClient =
        [](RelayClient& relay, QObject* parent) -> MereClient* {
        return new MereCloudClient(&relay, parent);
    };
};

// The one observable object behind the queue: the last snapshot, the connection flag,
// which screen shows, the selection, the toast after a verdict, and the few preferences.
// It lives on the main thread for the life of the process.
class AppState : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(bool online READ online NOTIFY onlineChanged)
    Q_PROPERTY(Screen screen READ screen WRITE setScreen NOTIFY screenChanged)
    Q_PROPERTY(QString screenName READ screenName NOTIFY screenChanged)
    Q_PROPERTY(QString selectedInterruptId READ selectedInterruptIdText NOTIFY selectedInterruptIdChanged)
    Q_PROPERTY(QString sentToast READ sentToastText NOTIFY sentToastChanged)
    Q_PROPERTY(bool useMock READ useMock WRITE setUseMock NOTIFY useMockChanged)
    Q_PROPERTY(bool alwaysOnTop READ alwaysOnTop WRITE setAlwaysOnTop NOTIFY alwaysOnTopChanged)
    Q_PROPERTY(QString terminalWorkingDirectory READ terminalWorkingDirectory WRITE
                   setTerminalWorkingDirectory NOTIFY terminalWorkingDirectoryChanged)
    // The queue's relay: the signed-in one by default, or a compatible hosted one.
    Q_PROPERTY(QString baseURLString READ baseURLString WRITE setBaseURLString NOTIFY baseURLStringChanged)
    Q_PROPERTY(QString token READ token WRITE setToken NOTIFY tokenChanged)

public:
    // QML sees the one instance the application made.
    static AppState* create(QQmlEngine* qml, QJSEngine* js) {
        return QmlSingleton<AppState>::create(qml, js);
    }

    enum class Screen { home, queue, item };
    Q_ENUM(Screen)

    static inline const QString toastSent = QStringLiteral("SENT");
    static inline const QString toastAlreadyResolved = QStringLiteral("ALREADY RESOLVED ELSEWHERE");
    static inline const QString toastNotSent = QStringLiteral("NOT SENT \u2014 TRY AGAIN");

    // The preference keys.
    static inline const QString useMockKey = QStringLiteral("useMock");
    static inline const QString standaloneResetKey = QStringLiteral("standaloneQueueDefaultV1");
    // Only ever removed: older versions left a copy of the session token here.
    static inline const QString tokenKey = QStringLiteral("token");
    static inline const QString alwaysOnTopKey = QStringLiteral("alwaysOnTop");
    static inline const QString workingDirectoryKey = QStringLiteral("terminalWorkingDirectory");
    // The queue's relay before anyone has signed in or typed another.
    static inline const QString defaultBaseURLString = QStringLiteral("http://127.0.0.1:8787/");

    using Config = AppStateConfig;

    explicit AppState(PreferencesStore& preferences, Config config = {}, QObject* parent = nullptr);
    ~AppState() override;

    const Snapshot& snapshot() const { return m_snapshot; }
    bool online() const { return m_online; }
    Screen screen() const { return m_screen; }
    // The screen's case name, for the views to compare against.
    QString screenName() const {
        return QString::fromLatin1(QMetaEnum::fromType<Screen>().valueToKey(int(m_screen)));
    }
    const std::optional<QString>& selectedInterruptId() const { return m_selectedInterruptId; }
    const std::optional<QString>& sentToast() const { return m_sentToast; }
    bool useMock() const { return m_useMock; }
    bool alwaysOnTop() const { return m_alwaysOnTop; }
    const QString& terminalWorkingDirectory() const { return m_terminalWorkingDirectory; }
    const QString& baseURLString() const { return m_baseURLString; }
    const QString& token() const { return m_token; }
    MereClient* client() const { return m_client; }
    RelayClient* relayClient() const { return m_relayClient; }

    // The selected interrupt as the present snapshot holds it; absent once it has left.
    std::optional<Interrupt> selectedInterrupt() const;

    void setScreen(Screen screen);
    void setSelectedInterruptId(std::optional<QString> id);
    void setUseMock(bool useMock);
    void setAlwaysOnTop(bool alwaysOnTop);
    void setTerminalWorkingDirectory(const QString& path);
    // Kept in memory only, like the token: each sign-in sets both to the signed-in relay's,
    // and the defaults' old "baseURL" key is read as the sign-in relay's address by the
    // sign-in store. Takes effect at the next connect.
    void setBaseURLString(const QString& url);
    // Kept in memory only; takes effect at the next connect.
    void setToken(const QString& token);

    // Builds the queue client for the present settings, replacing the one before.
    Q_INVOKABLE void connect();
    // Remembers the signed-in relay client and, outside demo mode, connects the queue to
    // the relay it speaks for. The sign-in store owns the client and the relay's address.
    void connectToRelay(RelayClient* client);
    // Drops the queue client; the last snapshot stays on hand.
    Q_INVOKABLE void disconnectQueue();
    // Moves one screen up: item to queue, queue to home.
    Q_INVOKABLE void back();
    // Sends a verdict for the selected interrupt and shows how it went.
    void submit(const Verdict& verdict);

signals:
    void snapshotChanged();
    void onlineChanged();
    void screenChanged();
    void selectedInterruptIdChanged();
    void sentToastChanged();
    void useMockChanged();
    void alwaysOnTopChanged();
    void terminalWorkingDirectoryChanged();
    void baseURLStringChanged();
    void tokenChanged();

private:
    void readPreferences();
    void createWorkingDirectory() const;
    MereClient* makeClient();
    // The relay client the queue uses: the signed-in one when the address and token are
    // its own, else one of this object's for the hosted relay; none for a bad address.
    RelayClient* queueRelayClient();
    void replaceClient(MereClient* client);
    void setSnapshot(const Snapshot& snapshot);
    void setOnline(bool online);
    void setSentToast(std::optional<QString> toast);
    QCoro::Task<> runSubmit(QPointer<MereClient> client, QString interruptId, Verdict verdict);
    QString selectedInterruptIdText() const { return m_selectedInterruptId.value_or(QString()); }
    QString sentToastText() const { return m_sentToast.value_or(QString()); }

    PreferencesStore& m_preferences;
    Config m_config;
    Snapshot m_snapshot;
    bool m_online = false;
    Screen m_screen = Screen::home;
    std::optional<QString> m_selectedInterruptId;
    std::optional<QString> m_sentToast;
    bool m_useMock = false;
    bool m_alwaysOnTop = true;
    QString m_terminalWorkingDirectory;
    QPointer<MereClient> m_client;
    // Owned by the sign-in store; only remembered here. The queue client asks it for the
    // relay's address and the token at the moment of each request.
    QPointer<RelayClient> m_relayClient;
    QString m_baseURLString = defaultBaseURLString;
    QString m_token;
    // The client for a hosted relay typed in the settings; replaced at each connect.
    QPointer<RelayClient> m_hostedClient;
    // Bumped at every client change, so that a callback queued by an old client is dropped.
    quint64 m_clientGeneration = 0;
};
