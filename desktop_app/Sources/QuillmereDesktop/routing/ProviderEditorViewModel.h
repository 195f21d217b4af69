#pragma once

#include "QuillmereDesktop/routing/ProviderConfigurationStore.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <optional>

// The form of one lane, new or edited. Numbers stay text until the save; the key is never
// shown back, and the name of its variable is fixed when the form opens.
class ProviderEditorViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Opened by the provider setup screen.")
    Q_PROPERTY(QString modelID READ modelID WRITE setModelID NOTIFY formChanged)
    Q_PROPERTY(QString routingModel READ routingModel WRITE setRoutingModel NOTIFY formChanged)
    Q_PROPERTY(QString serviceTier READ serviceTier WRITE setServiceTier NOTIFY formChanged)
    Q_PROPERTY(QString provider READ provider WRITE setProvider NOTIFY formChanged)
    Q_PROPERTY(QString displayName READ displayName WRITE setDisplayName NOTIFY formChanged)
    Q_PROPERTY(QString upstreamModel READ upstreamModel WRITE setUpstreamModel NOTIFY formChanged)
    Q_PROPERTY(QString protocolName READ protocolName WRITE setProtocolName NOTIFY formChanged)
    Q_PROPERTY(QString endpoint READ endpoint WRITE setEndpoint NOTIFY formChanged)
    Q_PROPERTY(QString apiKey READ apiKey WRITE setApiKey NOTIFY formChanged)
    Q_PROPERTY(QString contextWindow READ contextWindow WRITE setContextWindow NOTIFY formChanged)
    Q_PROPERTY(QString latency READ latency WRITE setLatency NOTIFY formChanged)
    Q_PROPERTY(QString inputCost READ inputCost WRITE setInputCost NOTIFY formChanged)
    Q_PROPERTY(QString outputCost READ outputCost WRITE setOutputCost NOTIFY formChanged)
    Q_PROPERTY(int quality READ quality WRITE setQuality NOTIFY formChanged)
    Q_PROPERTY(QStringList capabilities READ capabilities NOTIFY formChanged)
    Q_PROPERTY(bool isZDR READ isZDR WRITE setIsZDR NOTIFY formChanged)
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY errorChanged)
    Q_PROPERTY(bool isNew READ isNew CONSTANT)
    Q_PROPERTY(QString credentialEnvironment READ credentialEnvironment CONSTANT)
    Q_PROPERTY(QString keyHint READ keyHint CONSTANT)
    Q_PROPERTY(QString qualityText READ qualityText NOTIFY formChanged)
    Q_PROPERTY(QStringList capabilityOptions READ capabilityOptions CONSTANT)
    Q_PROPERTY(QStringList protocols READ protocols CONSTANT)
    Q_PROPERTY(QStringList serviceTiers READ serviceTiers CONSTANT)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    // Where the quality slider starts for a new lane: a middling lane until measured.
    static constexpr int defaultQuality = 70;
    static inline const QString defaultContextWindow = QStringLiteral("128000");
    static inline const QString defaultLatency = QStringLiteral("1000");
    static inline const QString numericMessage =
        QStringLiteral("Context, latency, and prices must be numeric.");

    static const QStringList& capabilityOptions();
    static const QStringList& protocols();
    static const QStringList& serviceTiers();
    static QVariantMap labels();
    // A fresh variable name for a new lane's key: unique, and valid by the inventory's rule.
    static QString newCredentialEnvironment();

    // A form for `original`, or for a new lane without one.
    ProviderEditorViewModel(ProviderConfigurationStore* store, std::optional<ProviderProfile> original,
                            QObject* parent = nullptr);

    QString modelID() const { return m_modelID; }
    void setModelID(const QString& v) { change(m_modelID, v); }
    QString routingModel() const { return m_routingModel; }
    void setRoutingModel(const QString& v) { change(m_routingModel, v); }
    QString serviceTier() const { return m_serviceTier; }
    void setServiceTier(const QString& v) { change(m_serviceTier, v); }
    QString provider() const { return m_provider; }
    void setProvider(const QString& v) { change(m_provider, v); }
    QString displayName() const { return m_displayName; }
    void setDisplayName(const QString& v) { change(m_displayName, v); }
    QString upstreamModel() const { return m_upstreamModel; }
    void setUpstreamModel(const QString& v) { change(m_upstreamModel, v); }
    QString protocolName() const { return wire::rawValue(m_protocol); }
    // A change of protocol puts that protocol's standard endpoint in the field.
    void setProtocolName(const QString& raw);
    QString endpoint() const { return m_endpoint; }
    void setEndpoint(const QString& v) { change(m_endpoint, v); }
    QString apiKey() const { return m_apiKey; }
    void setApiKey(const QString& v) { change(m_apiKey, v); }
    QString contextWindow() const { return m_contextWindow; }
    void setContextWindow(const QString& v) { change(m_contextWindow, v); }
    QString latency() const { return m_latency; }
    void setLatency(const QString& v) { change(m_latency, v); }
    QString inputCost() const { return m_inputCost; }
    void setInputCost(const QString& v) { change(m_inputCost, v); }
    QString outputCost() const { return m_outputCost; }
    void setOutputCost(const QString& v) { change(m_outputCost, v); }
    int quality() const { return m_quality; }
    void setQuality(int v) { change(m_quality, v); }
    QStringList capabilities() const { return m_capabilities; }
    bool isZDR() const { return m_isZDR; }
    void setIsZDR(bool v) { change(m_isZDR, v); }
    QString errorMessage() const { return m_errorMessage.value_or(QString()); }
    bool isNew() const { return !m_original.has_value(); }
    QString credentialEnvironment() const { return m_credentialEnvironment; }
    QString keyHint() const;
    QString qualityText() const;

    Q_INVOKABLE void toggleCapability(const QString& capability);
    // Parses the numbers, builds the lane and saves it with the key; on success `saved`.
    Q_INVOKABLE void save();
    QCoro::Task<> saveNow();

signals:
    void formChanged();
    void errorChanged();
    // The lane is stored: the form closes and the relay gets the new inventory.
    void saved();

private:
    template <class T> void change(T& field, const T& value) {
        if (field == value)
            return;
        field = value;
        emit formChanged();
    }
    void setError(std::optional<QString> message);

    QPointer<ProviderConfigurationStore> m_store;
    std::optional<ProviderProfile> m_original;
    QString m_credentialEnvironment;
    QString m_modelID;
    QString m_routingModel;
    QString m_serviceTier = QStringLiteral("default");
    QString m_provider;
    QString m_displayName;
    QString m_upstreamModel;
    GatewayProtocol m_protocol = GatewayProtocol::openAIResponses;
    QString m_endpoint;
    QString m_apiKey;
    QString m_contextWindow = defaultContextWindow;
    QString m_latency = defaultLatency;
    QString m_inputCost;
    QString m_outputCost;
    int m_quality = defaultQuality;
    QStringList m_capabilities{QStringLiteral("reasoning"), QStringLiteral("long_context")};
    bool m_isZDR = false;
    std::optional<QString> m_errorMessage;
    bool m_isSaving = false;
};
