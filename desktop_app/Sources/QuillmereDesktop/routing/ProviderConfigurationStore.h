#pragma once

#include "QuillmereDesktop/Auth/SecretStore.h"
#include "QuillmereDesktop/common/QmlSingleton.h"
#include "QuillmereDesktop/common/Result.h"
#include "QuillmereDesktop/routing/ProviderProfile.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <map>

// The person's own API lanes: the inventory file "providers.json" in the per-user data
// folder, each lane's key in the secret store under "provider_credential_" and its id.
// The managed relay gets both at every launch, as environment variables; the file only
// ever names those variables, so no secret lands in a file the app writes.
class ProviderConfigurationStore : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
public:
    // QML sees the one instance the application made.
    static ProviderConfigurationStore* create(QQmlEngine* qml, QJSEngine* js) {
        return QmlSingleton<ProviderConfigurationStore>::create(qml, js);
    }

    static inline const QString fileName = QStringLiteral("providers.json");
    static inline const QString accountPrefix = QStringLiteral("provider_credential_");
    static inline const QString modelsVariable = QStringLiteral("ROUTER_MODELS_JSON");

    static inline const QString requiredMessage =
        QStringLiteral("Lane id, client model, provider, display name, and upstream model are required.");
    static inline const QString tierMessage =
        QStringLiteral("Service tier must be default, flex, or priority.");
    static inline const QString endpointMessage = QStringLiteral("Endpoint must be an absolute HTTP(S) URL.");
    static inline const QString httpsMessage =
        QStringLiteral("Provider endpoints must use HTTPS unless they are loopback-only.");
    static inline const QString environmentNameMessage =
        QStringLiteral("Credential environment name is invalid.");
    static inline const QString sizeMessage =
        QStringLiteral("Context window must be positive and latency cannot be negative.");
    static inline const QString priceMessage =
        QStringLiteral("Model prices must be finite and non-negative.");
    static inline const QString qualityMessage = QStringLiteral("Quality must be between 0 and 100.");
    static inline const QString dataPolicyMessage = QStringLiteral("Data policy must be standard or zdr.");
    static inline const QString duplicateMessage =
        QStringLiteral("Provider inventory contains duplicate model ids.");
    static inline const QString keyRefusedMessage =
        QStringLiteral("The system keyring refused the provider credential.");
    static inline const QString keyRequiredMessage =
        QStringLiteral("An API key is required the first time this provider is saved.");
    static inline const QString deleteRefusedMessage =
        QStringLiteral("The system keyring refused to delete the provider credential.");
    static inline const QString encodingMessage = QStringLiteral("Provider inventory could not be encoded.");

    // `supportDirectory` is the per-user data folder of the application ("…/Quillmere");
    // the store starts with whatever the file holds, or empty if it cannot be read.
    ProviderConfigurationStore(QString supportDirectory, SecretStore& secrets, QObject* parent = nullptr);

    // The per-user data folder of this installation: $XDG_DATA_HOME/Quillmere.
    static QString systemSupportDirectory();
    // The secret store account of a lane's key.
    static QString account(const QString& laneId) { return accountPrefix + laneId; }
    // The first rule the profile breaks, in the fixed order, or success.
    static Result<void> validate(const ProviderProfile& profile);

    const QList<ProviderProfile>& profiles() const { return m_profiles; }

    // The file's lanes, every one validated, ids unique; none when there is no file.
    Result<QList<ProviderProfile>> readProfiles() const;
    // Adds or replaces the lane with this id. A key that is not blank replaces the stored
    // one; without one, a key must already be stored. The key is stored before the file.
    QCoro::Task<Result<void>> save(ProviderProfile profile, std::optional<QString> apiKey);
    // Removes the lane and its key.
    QCoro::Task<Result<void>> remove(ProviderProfile profile);
    // Writes the list, pretty-printed with sorted keys, atomically and readable only by the user.
    Result<void> writeProfiles(const QList<ProviderProfile>& profiles) const;
    // Where the file lives; creates its folder.
    Result<QString> profilesURL() const;
    // The managed relay's inventory variables, read afresh from the file and the secret
    // store: ROUTER_MODELS_JSON and each lane's key under its variable. Empty with no file.
    QCoro::Task<Result<std::map<QString, QString>>> managedInventoryEnvironment() const;
    // Whether a key is stored for the lane.
    QCoro::Task<bool> hasStoredKey(QString laneId) const;

signals:
    void profilesChanged();

private:
    QString filePath() const;
    void setProfiles(QList<ProviderProfile> profiles);

    QString m_supportDirectory;
    SecretStore& m_secrets;
    QList<ProviderProfile> m_profiles;
};
