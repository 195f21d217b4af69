#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/routing/GatewayRecords.h"
#include "QuillmereDesktop/routing/ProviderConfigurationStore.h"
#include "QuillmereDesktop/routing/ProviderEditorViewModel.h"

#include <QObject>
#include <QPointer>
#include <QVariantList>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <chrono>
#include <map>
#include <optional>

// The person's own API lanes: list, add, edit, delete and test them, and hand the result to
// the managed relay by restarting it, which is the only way its inventory changes.
class ProviderSetupViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY authChanged)
    Q_PROPERTY(ProviderConfigurationStore* store READ store WRITE setStore NOTIFY storeChanged)
    Q_PROPERTY(bool isApplying READ isApplying NOTIFY busyChanged)
    Q_PROPERTY(QString probingModel READ probingModelText NOTIFY busyChanged)
    Q_PROPERTY(QString message READ messageText NOTIFY messageChanged)
    Q_PROPERTY(QVariantList profileCards READ profileCards NOTIFY cardsChanged)
    Q_PROPERTY(bool hasProfiles READ hasProfiles NOTIFY cardsChanged)
    Q_PROPERTY(ProviderEditorViewModel* editor READ editor NOTIFY editorChanged)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    // After a restart, how often and how far apart the relay's health is asked.
    static constexpr int defaultHealthPolls = 30;
    static constexpr std::chrono::milliseconds defaultHealthPollInterval{150};

    static inline const QString appliedMessage =
        QStringLiteral("Provider inventory applied to the managed relay.");
    static inline const QString notReadyMessage =
        QStringLiteral("The local relay did not become ready after restart.");

    static QVariantMap labels();
    // "Connected · 12ms · $0.000004".
    static QString probeText(const ProviderProbeResult& result);
    // "128000 CONTEXT · $1.500 / $6.000 PER 1M".
    static QString sizeText(const ProviderProfile& profile);

    explicit ProviderSetupViewModel(QObject* parent = nullptr);

    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);
    ProviderConfigurationStore* store() const { return m_store; }
    void setStore(ProviderConfigurationStore* store);
    // Shorter waits for tests.
    void setHealthPolling(int polls, std::chrono::milliseconds interval) {
        m_healthPolls = polls;
        m_healthPollInterval = interval;
    }

    bool isApplying() const { return m_isApplying; }
    const std::optional<QString>& probingModel() const { return m_probingModel; }
    QString probingModelText() const { return m_probingModel.value_or(QString()); }
    const std::optional<QString>& message() const { return m_message; }
    QString messageText() const { return m_message.value_or(QString()); }
    const std::map<QString, QString>& probeMessages() const { return m_probeMessages; }
    QVariantList profileCards() const;
    bool hasProfiles() const { return m_store && !m_store->profiles().isEmpty(); }
    ProviderEditorViewModel* editor() const { return m_editor; }

    // "ADD PROVIDER MODEL": an empty form.
    Q_INVOKABLE void addProvider();
    // "EDIT": the form of that lane.
    Q_INVOKABLE void editProvider(const QString& laneId);
    Q_INVOKABLE void closeEditor();
    // "DELETE": removes the lane and its key, then applies.
    Q_INVOKABLE void deleteProvider(const QString& laneId);
    // "TEST 1 TOKEN": one real request to the lane alone.
    Q_INVOKABLE void testProvider(const QString& laneId);
    // Restarts the managed relay with the inventory and waits for it to answer.
    Q_INVOKABLE void applyConfiguration();

    QCoro::Task<> deleteNow(QString laneId);
    QCoro::Task<> testNow(QString laneId);
    QCoro::Task<> applyNow();

signals:
    void authChanged();
    void storeChanged();
    void busyChanged();
    void messageChanged();
    void cardsChanged();
    void editorChanged();
    // The form saved a lane; the screen applies next.
    void editorSaved();

private:
    void setMessage(std::optional<QString> message);
    void openEditor(std::optional<ProviderProfile> profile);
    std::optional<ProviderProfile> profile(const QString& laneId) const;
    // Which lanes have a key stored, asked of the secret store whenever the lanes change.
    QCoro::Task<> refreshStoredKeys();
    RelayClient* relayClient() const { return m_auth ? m_auth->client() : nullptr; }

    QPointer<AuthStore> m_auth;
    QPointer<ProviderConfigurationStore> m_store;
    QPointer<ProviderEditorViewModel> m_editor;
    int m_healthPolls = defaultHealthPolls;
    std::chrono::milliseconds m_healthPollInterval = defaultHealthPollInterval;
    bool m_isApplying = false;
    std::optional<QString> m_probingModel;
    std::optional<QString> m_message;
    std::map<QString, QString> m_probeMessages;
    std::map<QString, bool> m_keyStored;
};
