#include "QuillmereDesktop/routing/ClassifierManagementViewModel.h"

#include "QuillmereDesktop/routing/ClassifierCalls.h"

#include <cmath>

namespace {

qint64 coverageOf(const UsageClassifier& classifier, const QString& status) {
    const auto found = classifier.coverage.find(status);
    return found == classifier.coverage.end() ? 0 : found->second;
}

} // namespace

ClassifierManagementViewModel::ClassifierManagementViewModel(QObject* parent) : QObject(parent) {}

QVariantMap ClassifierManagementViewModel::labels() {
    return {
        {"title", "usage classifiers"},
        {"subtitle", "ASYNC · ZERO REQUEST LATENCY · CONTENT-FREE TAGS"},
        {"intro",
         "Classifiers sample completed API generations and tag them against your taxonomy using a small "
         "structured-output model. The original response is never delayed. Only dimension/value tags and "
         "failure status are retained; classifier transcripts stay in memory and tool schemas are reduced "
         "to names."},
        {"empty", "NO CLASSIFIERS · ADD TASK FAMILY, DIFFICULTY, AUDIENCE, OR COST-CENTER VISIBILITY"},
        {"create", "CREATE CLASSIFIER"},
        {"edit", "EDIT"},
        {"delete", "DELETE"},
        {"activity", "recent activity"}};
}

QStringList ClassifierManagementViewModel::structuredModelIDs(const RouterCatalog& catalog) {
    QStringList ids;
    for (const RouterModel& model : catalog.models)
        if (model.channel == QStringLiteral("api") &&
            model.capabilities.contains(QStringLiteral("structured_output")))
            ids.append(model.id);
    return ids;
}

QVariantMap ClassifierManagementViewModel::card(const UsageClassifier& classifier) {
    const QString coverage = QStringLiteral("%1 TAGGED · %2 PENDING · %3 FAILED")
                                 .arg(coverageOf(classifier, QStringLiteral("succeeded")))
                                 .arg(coverageOf(classifier, QStringLiteral("pending")))
                                 .arg(coverageOf(classifier, QStringLiteral("failed")));
    return {
        {"id", classifier.id},
        {"name", classifier.name},
        {"model", classifier.model},
        {"dimensions", QString::number(classifier.dimensions.size()) + QStringLiteral(" DIMENSIONS")},
        {"sample", QString::number(std::lround(classifier.sampling_rate * 100)) + QStringLiteral("% SAMPLE")},
        {"coverage", coverage},
        {"inactive", classifier.active ? QString() : QStringLiteral("INACTIVE")}};
}

QVariantMap ClassifierManagementViewModel::activityRow(const ClassificationActivity& activity) {
    QStringList tags;
    for (const auto& [key, value] : activity.tags)
        tags.append(key + QLatin1Char('=') + value);
    QString detail = tags.join(QStringLiteral(" · "));
    if (tags.isEmpty())
        detail = activity.status == QStringLiteral("pending") ? QStringLiteral("WAITING")
                                                              : activity.error_code.value_or(QString());
    return {{"name", activity.classifier_name}, {"status", activity.status.toUpper()}, {"detail", detail}};
}

void ClassifierManagementViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit authChanged();
}

QVariantList ClassifierManagementViewModel::cards() const {
    QVariantList result;
    for (const UsageClassifier& classifier : m_classifiers)
        result.append(card(classifier));
    return result;
}

QVariantList ClassifierManagementViewModel::activityRows() const {
    QVariantList result;
    for (const ClassificationActivity& row : m_activity)
        result.append(activityRow(row));
    return result;
}

void ClassifierManagementViewModel::setWorking(bool working) {
    if (m_working == working)
        return;
    m_working = working;
    emit workingChanged();
}

void ClassifierManagementViewModel::setError(std::optional<QString> message) {
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    emit errorChanged();
}

void ClassifierManagementViewModel::load() {
    loadNow();
}
void ClassifierManagementViewModel::remove(const QString& id) {
    removeNow(id);
}

void ClassifierManagementViewModel::openEditor(const QString& id) {
    std::optional<UsageClassifier> classifier;
    for (const UsageClassifier& candidate : m_classifiers)
        if (candidate.id == id)
            classifier = candidate;
    closeEditor();
    m_editor = new ClassifierEditorViewModel(m_auth, classifier, m_modelIDs, this);
    connect(m_editor, &ClassifierEditorViewModel::saved, this, [this] {
        closeEditor();
        load();
    });
    emit editorChanged();
}

void ClassifierManagementViewModel::closeEditor() {
    if (!m_editor)
        return;
    m_editor->deleteLater();
    m_editor = nullptr;
    emit editorChanged();
}

QCoro::Task<> ClassifierManagementViewModel::loadNow() {
    RelayClient* relay = client();
    if (!relay)
        co_return;
    QPointer<ClassifierManagementViewModel> self(this);
    setWorking(true);
    // The three reads run at once.
    auto classifiersRead = classifiercalls::list(*relay);
    auto activityRead = classifiercalls::activity(*relay);
    auto catalogRead = relay->get<RouterCatalog>(QStringLiteral("v1/router/catalog"));
    const auto classifiers = co_await std::move(classifiersRead);
    const auto activity = co_await std::move(activityRead);
    const auto catalog = co_await std::move(catalogRead);
    if (!self)
        co_return;
    setWorking(false);
    for (const QString* failure :
         {classifiers ? nullptr : &classifiers.error().message,
          activity ? nullptr : &activity.error().message, catalog ? nullptr : &catalog.error().message})
        if (failure) {
            setError(*failure);
            co_return;
        }
    setError(std::nullopt);
    m_classifiers = classifiers.value();
    m_activity = activity.value();
    m_modelIDs = structuredModelIDs(catalog.value());
    emit dataChanged();
}

QCoro::Task<> ClassifierManagementViewModel::removeNow(QString id) {
    RelayClient* relay = client();
    if (!relay || m_working)
        co_return;
    QPointer<ClassifierManagementViewModel> self(this);
    setWorking(true);
    const Result<void> removed = co_await classifiercalls::remove(*relay, id);
    if (!self)
        co_return;
    setWorking(false);
    if (!removed) {
        setError(removed.error().message);
        co_return;
    }
    co_await loadNow();
}
