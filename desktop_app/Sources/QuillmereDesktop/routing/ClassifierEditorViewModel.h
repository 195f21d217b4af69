#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/routing/ClassifierRecords.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <optional>

// One dimension as the form holds it: free text, made into a dimension only on saving.
struct ClassifierDimensionDraft {
    // Identity in the form, so that removing one row leaves the others' fields alone.
    int uid = 0;
    QString key;
    QString label;
    QString values;
};

// The classifier form: a new classifier with a worked example, or an existing one. Saving
// validates first and sends nothing while anything is missing.
class ClassifierEditorViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the classifier list")
    Q_PROPERTY(QString name READ name WRITE setName NOTIFY formChanged)
    Q_PROPERTY(QString model READ model WRITE setModel NOTIFY formChanged)
    Q_PROPERTY(double samplingRate READ samplingRate WRITE setSamplingRate NOTIFY formChanged)
    Q_PROPERTY(QString samplingText READ samplingText NOTIFY formChanged)
    Q_PROPERTY(QString prompt READ prompt WRITE setPrompt NOTIFY formChanged)
    Q_PROPERTY(bool active READ active WRITE setActive NOTIFY formChanged)
    Q_PROPERTY(QVariantList dimensions READ dimensionRows NOTIFY dimensionsChanged)
    Q_PROPERTY(QString dimensionsHeading READ dimensionsHeading NOTIFY dimensionsChanged)
    Q_PROPERTY(bool canAddDimension READ canAddDimension NOTIFY dimensionsChanged)
    Q_PROPERTY(QStringList modelIDs READ modelIDs CONSTANT)
    Q_PROPERTY(bool saving READ saving NOTIFY savingChanged)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY errorChanged)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    // The most dimensions one classifier may have.
    static constexpr int kMaxDimensions = 8;
    static inline const QString invalidMessage =
        QStringLiteral("Name and dimensions with at least two values are required.");

    ClassifierEditorViewModel(AuthStore* auth, std::optional<UsageClassifier> classifier,
                              QStringList modelIDs, QObject* parent = nullptr);

    static QVariantMap labels();
    // "sample N% of generations" for a fraction.
    static QString samplingTextFor(double rate);
    // The drafts as dimensions: keys trimmed and lower-cased, labels trimmed, values split
    // at commas with empty parts dropped.
    static QList<ClassifierDimension> dimensionsFrom(const QList<ClassifierDimensionDraft>& drafts);
    // Whether the name and dimensions can be sent.
    static bool isValid(const QString& name, const QList<ClassifierDimension>& dimensions);

    QString name() const { return m_name; }
    QString model() const { return m_model; }
    double samplingRate() const { return m_samplingRate; }
    QString samplingText() const { return samplingTextFor(m_samplingRate); }
    QString prompt() const { return m_prompt; }
    bool active() const { return m_active; }
    const QList<ClassifierDimensionDraft>& drafts() const { return m_drafts; }
    QVariantList dimensionRows() const;
    QString dimensionsHeading() const;
    bool canAddDimension() const { return m_drafts.size() < kMaxDimensions; }
    const QStringList& modelIDs() const { return m_modelIDs; }
    bool saving() const { return m_saving; }
    QString errorText() const { return m_errorMessage.value_or(QString()); }
    const std::optional<QString>& classifierID() const { return m_id; }

    void setName(const QString& value);
    void setModel(const QString& value);
    void setSamplingRate(double value);
    void setPrompt(const QString& value);
    void setActive(bool value);
    // Sets "key", "label" or "values" of the draft at index.
    Q_INVOKABLE void setDimensionField(int index, const QString& field, const QString& text);
    Q_INVOKABLE void addDimension();
    Q_INVOKABLE void removeDimension(int index);
    Q_INVOKABLE void save();
    QCoro::Task<> saveNow();

signals:
    void formChanged();
    void dimensionsChanged();
    void savingChanged();
    void errorChanged();
    // The relay has the classifier; the list reloads and the form closes.
    void saved();

private:
    void setError(std::optional<QString> message);

    QPointer<AuthStore> m_auth;
    std::optional<QString> m_id;
    QStringList m_modelIDs;
    QString m_name;
    QString m_model;
    double m_samplingRate = 1.0;
    QString m_prompt;
    bool m_active = true;
    QList<ClassifierDimensionDraft> m_drafts;
    int m_nextUid = 0;
    bool m_saving = false;
    std::optional<QString> m_errorMessage;
};
