#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/routing/GatewayRecords.h"
#include "QuillmereDesktop/routing/RouterRecords.h"

#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QUrl>
#include <QVariantList>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <map>
#include <optional>

// One content filter as the person types it.
struct ContentFilterDraft {
    int identity = 0;
    QString name;
    QString pattern;
    QString action = QStringLiteral("block");
};

// The create form as the person filled it in; every number is still text.
struct GatewayKeyForm {
    QString name = QStringLiteral("Local SDK");
    QString limit;
    QString resetInterval = QStringLiteral("lifetime");
    QString requestsPerMinute = QStringLiteral("60");
    QString tokensPerMinute = QStringLiteral("100000");
    QString expiry = QStringLiteral("90");
    QStringList selectedModels;
    QStringList selectedProviders;
    QStringList enforceZDRGroups;
    QList<ContentFilterDraft> contentFilters;
};

// The gateway's keys: create one with its limits and guardrails, see the secret once, list
// and revoke, and the endpoint other programs call with it. The relay enforces all of it;
// this screen validates the form, previews which lanes a key could reach, and shows.
class GatewayAccessViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY authChanged)
    // The form.
    Q_PROPERTY(QString name READ name WRITE setName NOTIFY formChanged)
    Q_PROPERTY(QString limit READ limit WRITE setLimit NOTIFY formChanged)
    Q_PROPERTY(QString resetInterval READ resetInterval WRITE setResetInterval NOTIFY formChanged)
    Q_PROPERTY(QString requestsPerMinute READ requestsPerMinute WRITE setRequestsPerMinute NOTIFY formChanged)
    Q_PROPERTY(QString tokensPerMinute READ tokensPerMinute WRITE setTokensPerMinute NOTIFY formChanged)
    Q_PROPERTY(QString expiry READ expiry WRITE setExpiry NOTIFY formChanged)
    Q_PROPERTY(QStringList selectedModels READ selectedModels NOTIFY formChanged)
    Q_PROPERTY(QStringList selectedProviders READ selectedProviders NOTIFY formChanged)
    Q_PROPERTY(QStringList enforceZDRGroups READ enforceZDRGroups NOTIFY formChanged)
    Q_PROPERTY(QVariantList contentFilters READ contentFilterRows NOTIFY formChanged)
    Q_PROPERTY(bool guardrailsExpanded READ guardrailsExpanded WRITE setGuardrailsExpanded NOTIFY formChanged)
    Q_PROPERTY(QString guardrailsHeader READ guardrailsHeader NOTIFY formChanged)
    Q_PROPERTY(QString eligibilityText READ eligibilityText NOTIFY formChanged)
    Q_PROPERTY(QStringList modelChoices READ modelChoices NOTIFY dataChanged)
    Q_PROPERTY(QStringList providerChoices READ providerChoices NOTIFY dataChanged)
    // Work under way, its failure, and the secret on show.
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY busyChanged)
    Q_PROPERTY(bool isCreating READ isCreating NOTIFY busyChanged)
    Q_PROPERTY(QString createButtonLabel READ createButtonLabel NOTIFY busyChanged)
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY errorChanged)
    Q_PROPERTY(QString createdSecret READ createdSecretText NOTIFY secretChanged)
    Q_PROPERTY(bool hasCreatedSecret READ hasCreatedSecret NOTIFY secretChanged)
    Q_PROPERTY(bool confirmingRevoke READ confirmingRevoke NOTIFY revokeChanged)
    // The keys and the endpoint.
    Q_PROPERTY(QString keysHeader READ keysHeader NOTIFY dataChanged)
    Q_PROPERTY(QVariantList keyRows READ keyRows NOTIFY dataChanged)
    Q_PROPERTY(QString gatewayBaseURL READ gatewayBaseURLText NOTIFY authChanged)
    Q_PROPERTY(QString openAISample READ openAISample NOTIFY authChanged)
    Q_PROPERTY(QString anthropicSample READ anthropicSample NOTIFY authChanged)
    // Fixed texts and choices.
    Q_PROPERTY(QStringList expiries READ expiries CONSTANT)
    Q_PROPERTY(QStringList resetIntervals READ resetIntervals CONSTANT)
    Q_PROPERTY(QStringList zdrGroups READ zdrGroups CONSTANT)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    static constexpr qint64 maximumRequestsPerMinute = 1000000;
    static constexpr qint64 maximumTokensPerMinute = 1000000000;

    static inline const QString limitMessage =
        QStringLiteral("Spend limit must be a positive number or left blank.");
    static inline const QString requestsMessage =
        QStringLiteral("Requests per minute must be a positive integer up to 1,000,000 or left blank.");
    static inline const QString tokensMessage =
        QStringLiteral("Tokens per minute must be a positive integer up to 1,000,000,000 or left blank.");
    static inline const QString filterIncompleteMessage =
        QStringLiteral("Every content filter needs a name and regex pattern.");
    static inline const QString filterNamesMessage = QStringLiteral("Content filter names must be unique.");

    static const QStringList& expiries();
    static const QStringList& resetIntervals();
    static const QStringList& zdrGroups();
    static QVariantMap labels();

    explicit GatewayAccessViewModel(QObject* parent = nullptr);

    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);

    // The pure rules, for tests and for the actions below.
    // A limit of whole units: nothing (no limit) for blank text, a value from 1 to `maximum`,
    // or an error for anything else.
    struct Count {
        bool valid = false;
        std::optional<qint64> value;
    };
    static Count positiveInteger(const QString& text, qint64 maximum);
    // The first failure of the create form's validation, in its fixed order, or nothing.
    static std::optional<QString> validate(const GatewayKeyForm& form);
    // The create request; only call for a form that validates.
    static GatewayAPIKeyInput inputOf(const GatewayKeyForm& form);
    // Which zero-data-retention group a lane falls in: plain substring tests in a fixed order.
    static QString guardrailGroup(const RouterModel& model);
    // The API lanes a key with the form's guardrails could reach.
    static QList<RouterModel> eligibleModels(const QList<RouterModel>& apiModels,
                                             const std::map<QString, RouterAdapter>& adapters,
                                             const GatewayKeyForm& form);
    static QString usageText(const GatewayAPIKey& key);
    static QString rateLimitText(const GatewayAPIKey& key);
    static QString guardrailText(const GatewayAPIKey& key);
    static QString auditText(const GatewayAPIKey& key);
    static QString lastUsedText(const GatewayAPIKey& key);
    // The relay's base URL with "v1" appended after a slash.
    static QString gatewayBaseURL(const QUrl& relayBase);
    static QString openAISample(const QString& baseURL);
    static QString anthropicSample(const QString& baseURL);

    const GatewayKeyForm& form() const { return m_form; }
    const QList<GatewayAPIKey>& keys() const { return m_keys; }
    QList<RouterModel> apiModels() const;
    const std::optional<QString>& createdSecret() const { return m_createdSecret; }
    const std::optional<GatewayAPIKey>& keyToRevoke() const { return m_keyToRevoke; }

    QString name() const { return m_form.name; }
    void setName(const QString& value) { change(m_form.name, value); }
    QString limit() const { return m_form.limit; }
    void setLimit(const QString& value) { change(m_form.limit, value); }
    QString resetInterval() const { return m_form.resetInterval; }
    void setResetInterval(const QString& value) { change(m_form.resetInterval, value); }
    QString requestsPerMinute() const { return m_form.requestsPerMinute; }
    void setRequestsPerMinute(const QString& value) { change(m_form.requestsPerMinute, value); }
    QString tokensPerMinute() const { return m_form.tokensPerMinute; }
    void setTokensPerMinute(const QString& value) { change(m_form.tokensPerMinute, value); }
    QString expiry() const { return m_form.expiry; }
    void setExpiry(const QString& value) { change(m_form.expiry, value); }
    QStringList selectedModels() const { return m_form.selectedModels; }
    QStringList selectedProviders() const { return m_form.selectedProviders; }
    QStringList enforceZDRGroups() const { return m_form.enforceZDRGroups; }
    QVariantList contentFilterRows() const;
    bool guardrailsExpanded() const { return m_guardrailsExpanded; }
    void setGuardrailsExpanded(bool value);
    QString guardrailsHeader() const;
    QString eligibilityText() const;
    QStringList modelChoices() const;
    QStringList providerChoices() const;

    bool isLoading() const { return m_isLoading; }
    bool isCreating() const { return m_isCreating; }
    QString createButtonLabel() const;
    QString errorMessage() const { return m_errorMessage.value_or(QString()); }
    QString createdSecretText() const { return m_createdSecret.value_or(QString()); }
    bool hasCreatedSecret() const { return m_createdSecret.has_value(); }
    bool confirmingRevoke() const { return m_keyToRevoke.has_value(); }

    QString keysHeader() const;
    QVariantList keyRows() const;
    QString gatewayBaseURLText() const;
    QString openAISample() const { return openAISample(gatewayBaseURLText()); }
    QString anthropicSample() const { return anthropicSample(gatewayBaseURLText()); }

    // Choice grids: each toggles one value in its set.
    Q_INVOKABLE void toggleModel(const QString& id) { toggle(m_form.selectedModels, id); }
    Q_INVOKABLE void toggleProvider(const QString& id) { toggle(m_form.selectedProviders, id); }
    Q_INVOKABLE void toggleZDRGroup(const QString& group) { toggle(m_form.enforceZDRGroups, group); }
    // Content filters: a new one blocks; each is edited by its place in the list.
    Q_INVOKABLE void addFilter();
    Q_INVOKABLE void removeFilter(int index);
    Q_INVOKABLE void setFilterName(int index, const QString& value);
    Q_INVOKABLE void setFilterPattern(int index, const QString& value);
    Q_INVOKABLE void setFilterAction(int index, const QString& value);

    // Reads the keys and the catalog at once.
    Q_INVOKABLE void load();
    // Validates, creates the key, shows its secret, clears the guardrails and reads again.
    Q_INVOKABLE void create();
    // "REVOKE" on an active key: asks for confirmation first.
    Q_INVOKABLE void requestRevoke(const QString& keyId);
    Q_INVOKABLE void cancelRevoke();
    // "Revoke" in the confirmation.
    Q_INVOKABLE void confirmRevoke();
    // "I HAVE SAVED IT": the secret leaves the screen for good.
    Q_INVOKABLE void dismissSecret();
    Q_INVOKABLE void copyToClipboard(const QString& text) const;

    QCoro::Task<> loadNow();
    QCoro::Task<> createNow();
    QCoro::Task<> confirmRevokeNow();

signals:
    void authChanged();
    void formChanged();
    void busyChanged();
    void errorChanged();
    void dataChanged();
    void secretChanged();
    void revokeChanged();

private:
    template <class T> void change(T& field, const T& value) {
        if (field == value)
            return;
        field = value;
        emit formChanged();
    }
    void toggle(QStringList& set, const QString& value);
    void editFilter(int index, QString ContentFilterDraft::*member, const QString& value);
    void setError(std::optional<QString> message);
    void setBusy(bool& flag, bool value);
    // Asked afresh after every wait: signing out or moving the relay replaces the client.
    RelayClient* relayClient() const { return m_auth ? m_auth->client() : nullptr; }

    QPointer<AuthStore> m_auth;
    GatewayKeyForm m_form;
    int m_nextFilterIdentity = 1;
    bool m_guardrailsExpanded = false;
    QList<GatewayAPIKey> m_keys;
    QList<RouterModel> m_availableModels;
    std::map<QString, RouterAdapter> m_adapters;
    std::optional<QString> m_createdSecret;
    bool m_isLoading = false;
    bool m_isCreating = false;
    std::optional<QString> m_errorMessage;
    std::optional<GatewayAPIKey> m_keyToRevoke;
};
