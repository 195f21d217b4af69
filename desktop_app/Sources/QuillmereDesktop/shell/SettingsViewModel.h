#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/improve/ImproveSettings.h"
#include "QuillmereDesktop/queue/AppState.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QUrl>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <functional>
#include <optional>

// The settings sheet: the relay's address and configuration folder, the queue's source,
// the window, the improve loop's schedule (kept by the relay), the terminals' start
// folder and sign-out. Most controls write straight through to the application state or
// the sign-in store; this model holds the improve schedule and the fixed texts.
class SettingsViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY sourcesChanged)
    Q_PROPERTY(AppState* app READ app WRITE setApp NOTIFY sourcesChanged)
    Q_PROPERTY(bool showsHostedRelayFields READ showsHostedRelayFields NOTIFY sourcesChanged)
    Q_PROPERTY(bool improveAutomatic READ improveAutomatic NOTIFY improveChanged)
    // The picker's entry for the relay's cadence; -1 while nothing is loaded or it is another.
    Q_PROPERTY(int improveCadenceIndex READ improveCadenceIndex NOTIFY improveChanged)
    Q_PROPERTY(bool improveBusy READ improveBusy NOTIFY improveChanged)
    Q_PROPERTY(QString improveError READ improveErrorText NOTIFY improveChanged)
    Q_PROPERTY(bool hasImproveError READ hasImproveError NOTIFY improveChanged)
    Q_PROPERTY(QString configurationFolder READ configurationFolder CONSTANT)
    Q_PROPERTY(QStringList cadenceChoices READ cadenceChoices CONSTANT)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    // The schedules the picker offers, in hours, beside their texts.
    static constexpr int cadenceHours[] = {1, 6, 12, 24};
    static inline const QString loopbackRelayURL = QStringLiteral("http://127.0.0.1:8787/");
    static inline const QString hostedRelayExample = QStringLiteral("https://relay.example.com/");

    // Opens a folder in the file manager; the desktop's own by default.
    using FolderOpener = std::function<bool(const QUrl&)>;

    explicit SettingsViewModel(QObject* parent = nullptr);

    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);
    AppState* app() const { return m_app; }
    void setApp(AppState* app);
    bool showsHostedRelayFields() const;

    const std::optional<ImproveSettings>& improve() const { return m_improve; }
    bool improveAutomatic() const { return m_improve && m_improve->automatic; }
    int improveCadenceIndex() const;
    bool improveBusy() const { return m_improveBusy; }
    const std::optional<QString>& improveError() const { return m_improveError; }
    QString improveErrorText() const { return m_improveError.value_or(QString()); }
    bool hasImproveError() const { return m_improveError.has_value(); }

    // Where relay.env and the rest of the application's data live.
    QString configurationFolder() const { return m_configurationFolder; }
    void setConfigurationFolder(const QString& folder) { m_configurationFolder = folder; }
    void setFolderOpener(FolderOpener opener) { m_openFolder = std::move(opener); }
    static QStringList cadenceChoices();
    static QVariantMap labels();

    // Reads the schedule from the relay; a failure keeps the empty state and says why.
    Q_INVOKABLE void loadImprove() { loadImproveNow(); }
    QCoro::Task<> loadImproveNow();
    // Changes one part of the schedule on the relay.
    Q_INVOKABLE void setImproveAutomatic(bool automatic) { setImprove(automatic, std::nullopt); }
    Q_INVOKABLE void setImproveCadenceIndex(int index);
    QCoro::Task<> setImproveNow(std::optional<bool> automatic, std::optional<qint64> cadenceHours);

    // Creates the configuration folder if need be and shows it in the file manager.
    Q_INVOKABLE bool openConfigurationFolder();
    // The folder picker's answer: a chosen folder becomes the terminals' start folder.
    // An empty answer (the picker closed without a choice) changes nothing.
    Q_INVOKABLE void applyChosenFolder(const QUrl& folder);
    // The queue again, with the address and token typed here.
    Q_INVOKABLE void reconnect();
    // Signs out, then asks the sheet to close.
    Q_INVOKABLE void signOut();

signals:
    void sourcesChanged();
    void improveChanged();
    void dismissRequested();

private:
    void setImprove(std::optional<bool> automatic, std::optional<qint64> hours) {
        setImproveNow(automatic, hours);
    }
    RelayClient* relayClient() const { return m_auth ? m_auth->client() : nullptr; }

    QPointer<AuthStore> m_auth;
    QPointer<AppState> m_app;
    std::optional<ImproveSettings> m_improve;
    bool m_improveBusy = false;
    std::optional<QString> m_improveError;
    QString m_configurationFolder;
    FolderOpener m_openFolder;
};
