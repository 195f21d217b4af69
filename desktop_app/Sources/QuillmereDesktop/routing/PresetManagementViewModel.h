#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/routing/PresetEditorViewModel.h"
#include "QuillmereDesktop/routing/PresetRecords.h"

#include <QObject>
#include <QPointer>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <optional>

// The list of agent presets: a card per preset with its history, rollback by designating
// an older version, delete, and the editor for a new preset or a new version.
class PresetManagementViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY authChanged)
    Q_PROPERTY(QVariantList cards READ cards NOTIFY dataChanged)
    Q_PROPERTY(bool hasPresets READ hasPresets NOTIFY dataChanged)
    Q_PROPERTY(bool working READ working NOTIFY workingChanged)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY errorChanged)
    Q_PROPERTY(PresetEditorViewModel* editor READ editor NOTIFY editorChanged)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    explicit PresetManagementViewModel(QObject* parent = nullptr);

    static QVariantMap labels();
    // A card's one-line summary: model ("AUTO" when none), tier, fallbacks and healing.
    static QString summary(const PresetVersion& version);
    // The card as the screen shows it.
    static QVariantMap card(const InferencePreset& preset);

    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);
    const QList<InferencePreset>& presets() const { return m_presets; }
    const QStringList& modelIDs() const { return m_modelIDs; }
    QVariantList cards() const;
    bool hasPresets() const { return !m_presets.isEmpty(); }
    bool working() const { return m_working; }
    QString errorText() const { return m_errorMessage.value_or(QString()); }
    PresetEditorViewModel* editor() const { return m_editor; }

    Q_INVOKABLE void load();
    Q_INVOKABLE void designate(const QString& slug, qint64 version);
    Q_INVOKABLE void remove(const QString& slug);
    // Opens the editor: for a new preset with an empty slug, else for the preset's next version.
    Q_INVOKABLE void openEditor(const QString& slug);
    Q_INVOKABLE void closeEditor();

    QCoro::Task<> loadNow();
    QCoro::Task<> designateNow(QString slug, qint64 version);
    QCoro::Task<> removeNow(QString slug);

signals:
    void authChanged();
    void dataChanged();
    void workingChanged();
    void errorChanged();
    void editorChanged();

private:
    RelayClient* client() const { return m_auth ? m_auth->client() : nullptr; }
    void setWorking(bool working);
    void setError(std::optional<QString> message);

    QPointer<AuthStore> m_auth;
    QList<InferencePreset> m_presets;
    QStringList m_modelIDs;
    bool m_working = false;
    std::optional<QString> m_errorMessage;
    QPointer<PresetEditorViewModel> m_editor;
};
