#include "QuillmereDesktop/routing/ClassifierEditorViewModel.h"

#include "QuillmereDesktop/routing/ClassifierCalls.h"

#include <cmath>

ClassifierEditorViewModel::ClassifierEditorViewModel(AuthStore* auth,
                                                     std::optional<UsageClassifier> classifier,
                                                     QStringList modelIDs, QObject* parent)
    : QObject(parent), m_auth(auth), m_modelIDs(std::move(modelIDs)) {
    if (!classifier) {
        // A worked example the person can keep or change.
        m_name = QStringLiteral("Agent complexity");
        m_model = m_modelIDs.isEmpty() ? QString() : m_modelIDs.first();
        m_prompt = QStringLiteral("Classify the work being requested, not the person asking.");
        m_drafts = {{m_nextUid++, "difficulty_tier", "Difficulty", "trivial, standard, expert"},
                    {m_nextUid++, "task_family", "Task family", "coding, analysis, planning, research"}};
        return;
    }
    m_id = classifier->id;
    m_name = classifier->name;
    m_model = classifier->model;
    m_samplingRate = classifier->sampling_rate;
    m_prompt = classifier->prompt;
    m_active = classifier->active;
    for (const ClassifierDimension& dimension : classifier->dimensions)
        m_drafts.append(
            {m_nextUid++, dimension.key, dimension.label, dimension.values.join(QStringLiteral(", "))});
}

QVariantMap ClassifierEditorViewModel::labels() {
    return {{"title", "create classifier"},
            {"name", "NAME"},
            {"modelHeading", "classifier model"},
            {"model", "Classifier model"},
            {"instructions", "classification instructions"},
            {"active", "ACTIVE"},
            {"key", "KEY"},
            {"keyHint", "task_family"},
            {"label", "Task family"},
            {"values", "VALUES (COMMA-SEPARATED)"},
            {"valuesHint", "coding, analysis, planning"},
            {"remove", "REMOVE"},
            {"add", "ADD DIMENSION"},
            {"save", "SAVE CLASSIFIER"},
            {"cancel", "CANCEL"}};
}

QString ClassifierEditorViewModel::samplingTextFor(double rate) {
    return QStringLiteral("sample ") + QString::number(std::lround(rate * 100)) +
           QStringLiteral("% of generations");
}

QList<ClassifierDimension>
ClassifierEditorViewModel::dimensionsFrom(const QList<ClassifierDimensionDraft>& drafts) {
    QList<ClassifierDimension> dimensions;
    for (const ClassifierDimensionDraft& draft : drafts) {
        QStringList values;
        for (const QString& part : draft.values.split(QLatin1Char(',')))
            if (const QString value = part.trimmed(); !value.isEmpty())
                values.append(value);
        dimensions.append({draft.key.trimmed().toLower(), draft.label.trimmed(), values});
    }
    return dimensions;
}

bool ClassifierEditorViewModel::isValid(const QString& name, const QList<ClassifierDimension>& dimensions) {
    if (name.isEmpty() || dimensions.isEmpty())
        return false;
    return std::all_of(dimensions.begin(), dimensions.end(), [](const ClassifierDimension& dimension) {
        return !dimension.key.isEmpty() && !dimension.label.isEmpty() && dimension.values.size() >= 2;
    });
}

QVariantList ClassifierEditorViewModel::dimensionRows() const {
    QVariantList rows;
    for (const ClassifierDimensionDraft& draft : m_drafts)
        rows.append(QVariantMap{
            {"uid", draft.uid}, {"key", draft.key}, {"label", draft.label}, {"values", draft.values}});
    return rows;
}

QString ClassifierEditorViewModel::dimensionsHeading() const {
    return QStringLiteral("dimensions ") + QString::number(m_drafts.size()) + QStringLiteral("/") +
           QString::number(kMaxDimensions);
}

void ClassifierEditorViewModel::setName(const QString& value) {
    m_name = value;
    emit formChanged();
}
void ClassifierEditorViewModel::setModel(const QString& value) {
    m_model = value;
    emit formChanged();
}
void ClassifierEditorViewModel::setSamplingRate(double value) {
    m_samplingRate = std::clamp(value, 0.0, 1.0);
    emit formChanged();
}
void ClassifierEditorViewModel::setPrompt(const QString& value) {
    m_prompt = value;
    emit formChanged();
}
void ClassifierEditorViewModel::setActive(bool value) {
    m_active = value;
    emit formChanged();
}

void ClassifierEditorViewModel::setDimensionField(int index, const QString& field, const QString& text) {
    if (index < 0 || index >= m_drafts.size())
        return;
    ClassifierDimensionDraft& draft = m_drafts[index];
    if (field == QStringLiteral("key"))
        draft.key = text;
    else if (field == QStringLiteral("label"))
        draft.label = text;
    else if (field == QStringLiteral("values"))
        draft.values = text;
    // No change signal: the row's own field already shows the text, and rebuilding the rows
    // under the cursor would reset it.
}

void ClassifierEditorViewModel::addDimension() {
    if (!canAddDimension())
        return;
    m_drafts.append({m_nextUid++, {}, {}, {}});
    emit dimensionsChanged();
}

void ClassifierEditorViewModel::removeDimension(int index) {
    if (index < 0 || index >= m_drafts.size())
        return;
    m_drafts.removeAt(index);
    emit dimensionsChanged();
}

void ClassifierEditorViewModel::setError(std::optional<QString> message) {
    m_errorMessage = std::move(message);
    emit errorChanged();
}

void ClassifierEditorViewModel::save() {
    saveNow();
}

QCoro::Task<> ClassifierEditorViewModel::saveNow() {
    const QString name = m_name.trimmed();
    const QList<ClassifierDimension> dimensions = dimensionsFrom(m_drafts);
    if (!isValid(name, dimensions)) {
        setError(invalidMessage);
        co_return;
    }
    RelayClient* relay = m_auth ? m_auth->client() : nullptr;
    if (!relay || m_saving)
        co_return;
    QPointer<ClassifierEditorViewModel> self(this);
    m_saving = true;
    emit savingChanged();
    ClassifierInput input{name, m_model, m_samplingRate, m_prompt.trimmed(), dimensions, m_active};
    const auto answer = co_await classifiercalls::save(*relay, m_id, std::move(input));
    if (!self)
        co_return;
    m_saving = false;
    emit savingChanged();
    if (!answer) {
        setError(answer.error().message);
        co_return;
    }
    setError(std::nullopt);
    emit saved();
}
