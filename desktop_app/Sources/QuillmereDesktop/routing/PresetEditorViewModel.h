#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/routing/PresetForm.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <optional>

// The preset editor: a new preset, or the next version of one, started from its designated
// version. Validation stops at the first failure and sends nothing.
class PresetEditorViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the preset list")
    Q_PROPERTY(QString slug READ slug WRITE setSlug NOTIFY formChanged)
    Q_PROPERTY(bool slugLocked READ slugLocked CONSTANT)
    Q_PROPERTY(QString model READ model WRITE setModel NOTIFY formChanged)
    Q_PROPERTY(QString fallbacks READ fallbacks WRITE setFallbacks NOTIFY formChanged)
    Q_PROPERTY(QString serviceTier READ serviceTier WRITE setServiceTier NOTIFY formChanged)
    Q_PROPERTY(QString providerSort READ providerSort WRITE setProviderSort NOTIFY formChanged)
    Q_PROPERTY(QString systemPrompt READ systemPrompt WRITE setSystemPrompt NOTIFY formChanged)
    Q_PROPERTY(QString maxTokens READ maxTokens WRITE setMaxTokens NOTIFY formChanged)
    Q_PROPERTY(QString temperature READ temperature WRITE setTemperature NOTIFY formChanged)
    Q_PROPERTY(QString topP READ topP WRITE setTopP NOTIFY formChanged)
    Q_PROPERTY(bool contextCompression READ contextCompression WRITE setContextCompression NOTIFY formChanged)
    Q_PROPERTY(bool responseHealing READ responseHealing WRITE setResponseHealing NOTIFY formChanged)
    Q_PROPERTY(QString responseFormat READ responseFormat WRITE setResponseFormat NOTIFY formChanged)
    Q_PROPERTY(QStringList modelIDs READ modelIDs CONSTANT)
    Q_PROPERTY(QString title READ title CONSTANT)
    Q_PROPERTY(QString saveLabel READ saveLabel CONSTANT)
    Q_PROPERTY(bool saving READ saving NOTIFY savingChanged)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY errorChanged)
    Q_PROPERTY(QStringList serviceTiers READ serviceTiers CONSTANT)
    Q_PROPERTY(QStringList providerSorts READ providerSorts CONSTANT)
    Q_PROPERTY(QStringList responseFormats READ responseFormats CONSTANT)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    PresetEditorViewModel(AuthStore* auth, std::optional<InferencePreset> preset, QStringList modelIDs,
                          QObject* parent = nullptr);

    static QVariantMap labels();
    static QStringList serviceTiers() { return presetform::serviceTiers(); }
    static QStringList providerSorts() { return presetform::providerSorts(); }
    static QStringList responseFormats() { return presetform::responseFormats(); }

    const PresetForm& form() const { return m_form; }
    QString slug() const { return m_form.slug; }
    bool slugLocked() const { return m_preset.has_value(); }
    QString model() const { return m_form.model; }
    QString fallbacks() const { return m_form.fallbacks; }
    QString serviceTier() const { return m_form.serviceTier; }
    QString providerSort() const { return m_form.providerSort; }
    QString systemPrompt() const { return m_form.systemPrompt; }
    QString maxTokens() const { return m_form.maxTokens; }
    QString temperature() const { return m_form.temperature; }
    QString topP() const { return m_form.topP; }
    bool contextCompression() const { return m_form.contextCompression; }
    bool responseHealing() const { return m_form.responseHealing; }
    QString responseFormat() const { return m_form.responseFormat; }
    void setSlug(const QString& value);
    void setModel(const QString& value);
    void setFallbacks(const QString& value);
    void setServiceTier(const QString& value);
    void setProviderSort(const QString& value);
    void setSystemPrompt(const QString& value);
    void setMaxTokens(const QString& value);
    void setTemperature(const QString& value);
    void setTopP(const QString& value);
    void setContextCompression(bool value);
    void setResponseHealing(bool value);
    void setResponseFormat(const QString& value);
    const QStringList& modelIDs() const { return m_modelIDs; }
    QString title() const;
    QString saveLabel() const;
    bool saving() const { return m_saving; }
    QString errorText() const { return m_errorMessage.value_or(QString()); }

    Q_INVOKABLE void save();
    QCoro::Task<> saveNow();

signals:
    void formChanged();
    void savingChanged();
    void errorChanged();
    // The relay kept the new version: the list reloads and the form closes.
    void saved();

private:
    template <class T> void setField(T PresetForm::*field, const T& value);
    void setError(std::optional<QString> message);

    QPointer<AuthStore> m_auth;
    std::optional<InferencePreset> m_preset;
    QStringList m_modelIDs;
    PresetForm m_form;
    bool m_saving = false;
    std::optional<QString> m_errorMessage;
};
