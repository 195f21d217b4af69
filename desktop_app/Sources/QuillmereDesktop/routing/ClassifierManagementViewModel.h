#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/routing/ClassifierEditorViewModel.h"
#include "QuillmereDesktop/routing/ClassifierRecords.h"
#include "QuillmereDesktop/routing/RouterRecords.h"

#include <QObject>
#include <QPointer>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <optional>

// The usage classifiers: a card per classifier with its coverage, the recent taggings, and
// the editor for a new classifier or an existing one.
class ClassifierManagementViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY authChanged)
    Q_PROPERTY(QVariantList cards READ cards NOTIFY dataChanged)
    Q_PROPERTY(QVariantList activityRows READ activityRows NOTIFY dataChanged)
    Q_PROPERTY(bool hasClassifiers READ hasClassifiers NOTIFY dataChanged)
    Q_PROPERTY(bool working READ working NOTIFY workingChanged)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY errorChanged)
    Q_PROPERTY(ClassifierEditorViewModel* editor READ editor NOTIFY editorChanged)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    explicit ClassifierManagementViewModel(QObject* parent = nullptr);

    static QVariantMap labels();
    // The models a classifier can use: API lanes that answer in a fixed, structured form.
    static QStringList structuredModelIDs(const RouterCatalog& catalog);
    static QVariantMap card(const UsageClassifier& classifier);
    static QVariantMap activityRow(const ClassificationActivity& activity);

    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);
    const QList<UsageClassifier>& classifiers() const { return m_classifiers; }
    const QList<ClassificationActivity>& activity() const { return m_activity; }
    const QStringList& modelIDs() const { return m_modelIDs; }
    QVariantList cards() const;
    QVariantList activityRows() const;
    bool hasClassifiers() const { return !m_classifiers.isEmpty(); }
    bool working() const { return m_working; }
    QString errorText() const { return m_errorMessage.value_or(QString()); }
    ClassifierEditorViewModel* editor() const { return m_editor; }

    Q_INVOKABLE void load();
    Q_INVOKABLE void remove(const QString& id);
    // Opens the editor: for a new classifier with an empty id, else for that classifier.
    Q_INVOKABLE void openEditor(const QString& id);
    Q_INVOKABLE void closeEditor();

    QCoro::Task<> loadNow();
    QCoro::Task<> removeNow(QString id);

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
    QList<UsageClassifier> m_classifiers;
    QList<ClassificationActivity> m_activity;
    QStringList m_modelIDs;
    bool m_working = false;
    std::optional<QString> m_errorMessage;
    QPointer<ClassifierEditorViewModel> m_editor;
};
