#include "QuillmereDesktop/improve/ImproveViewModel.h"

#include "ImproveApply/GuideMerge.h"
#include "ImproveApply/GuideWriter.h"
#include "QuillmereDesktop/improve/ImproveCalls.h"

namespace {

const QString kOpen = QStringLiteral("open");
const QString kSnoozed = QStringLiteral("snoozed");
const QString kDismissed = QStringLiteral("dismissed");
const QString kRule = QStringLiteral("rule");
const QString kSkill = QStringLiteral("skill");

qint64 countOf(const std::map<QString, qint64>& counts, const QString& key) {
    const auto found = counts.find(key);
    return found == counts.end() ? 0 : found->second;
}

QString clipped(const QString& text, qsizetype limit) {
    if (text.size() <= limit)
        return text;
    return text.left(limit - 1).trimmed() + QStringLiteral("…");
}

} // namespace

ImproveViewModel::ImproveViewModel(QObject* parent) : QObject(parent) {}

QVariantMap ImproveViewModel::labels() {
    return {{"title", "improve"},
            {"subtitle", "CORRECTIONS · STEERING · FRUSTRATION"},
            {"evidence", "FROM YOUR OWN MESSAGES"},
            {"applied", "✓ APPLIED"},
            {"undo", "↺ UNDO"},
            {"dismiss", "✕ DISMISS"},
            {"snooze", "◷ SNOOZE 7D"},
            {"reopen", "↺ REOPEN"},
            {"apply", "✓ APPLY"}};
}

QString ImproveViewModel::shortDate(const QString& date) {
    QString text = date;
    text.remove(QLatin1Char('Z'));
    if (text.size() < 16)
        return text;
    return text.mid(5, 5) + QLatin1Char(' ') + text.mid(11, 5);
}

QString ImproveViewModel::readStateText(const ImproveProcessing& processing) {
    if (processing.sessions_pending == 1)
        return QStringLiteral("1 conversation not read yet.");
    if (processing.sessions_pending > 1)
        return QString::number(processing.sessions_pending) + QStringLiteral(" conversations not read yet.");
    if (processing.sessions_processed == 0)
        return QStringLiteral("No conversations read yet.");
    return QStringLiteral("All ") + QString::number(processing.sessions_processed) +
           QStringLiteral(" conversations read.");
}

void ImproveViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit authChanged();
}

void ImproveViewModel::setProjectRoot(const QString& root) {
    if (m_projectRoot == root)
        return;
    m_projectRoot = root;
    emit projectRootChanged();
}

QString ImproveViewModel::emptyText() {
    return QStringLiteral("Nothing recurring yet. A suggestion needs the same instruction in two different "
                          "conversations — one correction is an incident, not a pattern.");
}

QString ImproveViewModel::sectionHeader() const {
    if (!hasSuggestions())
        return {};
    return QString::number(m_suggestions->suggestions.size()) + QStringLiteral(" suggestions");
}

QString ImproveViewModel::countsLine() const {
    if (!m_suggestions)
        return {};
    const auto& counts = m_suggestions->counts;
    return QStringLiteral("%1 OPEN · %2 SNOOZED · %3 DISMISSED")
        .arg(countOf(counts, kOpen))
        .arg(countOf(counts, kSnoozed))
        .arg(countOf(counts, kDismissed));
}

QString ImproveViewModel::readState() const {
    return m_suggestions ? readStateText(m_suggestions->processing) : QString();
}

QString ImproveViewModel::scheduleLine() const {
    if (!m_suggestions)
        return {};
    const ImproveProcessing& processing = m_suggestions->processing;
    QString line = processing.automatic ? QStringLiteral("AUTOMATIC PROCESSING IS ON")
                                        : QStringLiteral("AUTOMATIC PROCESSING NOT ENABLED");
    if (processing.last_scan_at)
        line += QStringLiteral(" · LAST READ ") + shortDate(*processing.last_scan_at);
    return line;
}

QString ImproveViewModel::processLabel() const {
    return m_isProcessing ? QStringLiteral("READING…") : QStringLiteral("PROCESS NOW");
}

bool ImproveViewModel::showsDismissedToggle() const {
    return m_showDismissed || (m_suggestions && countOf(m_suggestions->counts, kDismissed) > 0);
}

QString ImproveViewModel::dismissedToggleLabel() const {
    if (m_showDismissed)
        return QStringLiteral("HIDE DISMISSED");
    const qint64 dismissed = m_suggestions ? countOf(m_suggestions->counts, kDismissed) : 0;
    return QString::number(dismissed) + QStringLiteral(" DISMISSED");
}

QVariantList ImproveViewModel::cards() const {
    QVariantList result;
    if (m_suggestions)
        for (const ImproveSuggestion& suggestion : m_suggestions->suggestions)
            result.append(card(suggestion));
    return result;
}

QVariantMap ImproveViewModel::card(const ImproveSuggestion& suggestion) const {
    QString statusMark;
    if (suggestion.status == kSnoozed)
        statusMark = suggestion.snoozed_until
                         ? QStringLiteral("SNOOZED UNTIL ") + shortDate(*suggestion.snoozed_until)
                         : QStringLiteral("SNOOZED");
    else if (suggestion.status == kDismissed)
        statusMark =
            suggestion.stale ? QStringLiteral("DISMISSED · NO RECENT EVIDENCE") : QStringLiteral("DISMISSED");
    QVariantList evidence;
    for (const ImproveEvidence& item : suggestion.evidence)
        evidence.append(QVariantMap{{"agent", item.agent.toUpper()},
                                    {"excerpt", clipped(item.excerpt, kEvidenceClip)},
                                    {"date", shortDate(item.observed_at)}});
    QVariantList applied;
    for (const ImproveApplication& application : suggestion.applications)
        if (!application.undone_at)
            applied.append(QVariantMap{{"id", application.id},
                                       {"path", application.path},
                                       {"date", shortDate(application.applied_at)}});
    const bool previewing = m_previewing.contains(suggestion.id);
    return {{"id", suggestion.id},
            {"title", suggestion.title},
            {"detail", suggestion.detail},
            {"kind", suggestion.kind.toUpper()},
            {"artifactMark",
             suggestion.artifact == kSkill ? QStringLiteral("+ SKILL") : QStringLiteral("~ RULE")},
            {"conversations", QString::number(suggestion.session_count) + QStringLiteral(" CONVOS")},
            {"statusMark", statusMark},
            {"dimmed", suggestion.status == kSnoozed || suggestion.status == kDismissed},
            {"isOpen", suggestion.status == kOpen},
            {"evidence", evidence},
            {"applications", applied},
            {"previewLabel", previewing ? QStringLiteral("◉ HIDE") : QStringLiteral("◎ PREVIEW")},
            {"previewing", previewing},
            {"preview", previewing ? previewOf(suggestion) : QVariantMap{}}};
}

// What the open preview of a card shows: the plan's error in place of everything, or the
// heading, the diff, the "already there" note and a reworded text.
QVariantMap ImproveViewModel::previewOf(const ImproveSuggestion& suggestion) const {
    if (const auto error = m_planErrors.find(suggestion.id); error != m_planErrors.end())
        return {{"error", error->second}};
    const auto found = m_pending.find(suggestion.id);
    if (found == m_pending.end())
        return {};
    const PendingApply& pending = found->second;
    QVariantMap preview{{"path", pending.target.path}, {"diff", pending.plan.diff}};
    if (pending.plan.alreadyPresent) {
        preview["heading"] = QStringLiteral("NOTHING TO ADD TO");
        preview["note"] =
            QStringLiteral("ALREADY THERE — THIS FILE ALREADY SAYS THIS, SO APPLYING CHANGES NOTHING");
    } else {
        preview["heading"] =
            pending.plan.createsFile ? QStringLiteral("WOULD CREATE") : QStringLiteral("WOULD ADD TO");
        preview["canApply"] = true;
    }
    if (pending.draft) {
        preview["draftHeading"] = QStringLiteral("REDRAFTED WORDING");
        preview["draftLine"] =
            pending.draft->title +
            (pending.draft->model ? QStringLiteral(" · ") + *pending.draft->model : QString());
        preview["draftNote"] = QStringLiteral("SHOWN, NOT WRITTEN — THE DIFF ABOVE IS WHAT APPLY WOULD USE");
    }
    // A skill is a file of its own and is never reworded.
    if (suggestion.artifact == kRule)
        preview["rewordLabel"] =
            pending.draft ? QStringLiteral("✎ REWORD AGAIN") : QStringLiteral("✎ REWORD");
    preview["drafting"] = m_draftingSuggestion == suggestion.id;
    return preview;
}

const ImproveSuggestion* ImproveViewModel::find(const QString& id) const {
    if (!m_suggestions)
        return nullptr;
    for (const ImproveSuggestion& suggestion : m_suggestions->suggestions)
        if (suggestion.id == id)
            return &suggestion;
    return nullptr;
}

void ImproveViewModel::setError(std::optional<QString> message) {
    m_errorMessage = std::move(message);
    emit changed();
}

void ImproveViewModel::preparePlan(const ImproveSuggestion& suggestion, const std::optional<QString>& body) {
    const QString id = suggestion.id;
    m_planErrors.erase(id);
    if (suggestion.targets.isEmpty()) {
        m_planErrors[id] = QStringLiteral("This suggestion names no file to write.");
        emit changed();
        return;
    }
    const ImproveTarget& target = suggestion.targets.first();
    auto planned = improve::GuideWriter::plan(m_projectRoot, target.path, target.artifact, suggestion.section,
                                              body.value_or(suggestion.body));
    if (!planned) {
        m_pending.erase(id);
        m_planErrors[id] = planned.error().message();
        emit changed();
        return;
    }
    std::optional<ImproveDraft> draft;
    if (const auto old = m_pending.find(id); old != m_pending.end())
        draft = old->second.draft;
    m_pending[id] = PendingApply{target, planned.value().url, planned.value().plan, std::move(draft)};
    emit changed();
}

void ImproveViewModel::load() {
    loadNow();
}
void ImproveViewModel::process() {
    processNow();
}
void ImproveViewModel::toggleDismissed() {
    toggleDismissedNow();
}
void ImproveViewModel::dismiss(const QString& id) {
    dismissNow(id);
}
void ImproveViewModel::snooze(const QString& id) {
    snoozeNow(id);
}
void ImproveViewModel::reopen(const QString& id) {
    reopenNow(id);
}
void ImproveViewModel::reword(const QString& id) {
    rewordNow(id);
}
void ImproveViewModel::apply(const QString& id) {
    applyNow(id);
}
void ImproveViewModel::undo(const QString& suggestionId, const QString& applicationId) {
    undoNow(suggestionId, applicationId);
}

void ImproveViewModel::togglePreview(const QString& id) {
    if (m_previewing.remove(id)) {
        m_pending.erase(id);
        m_planErrors.erase(id);
        emit changed();
        return;
    }
    const ImproveSuggestion* suggestion = find(id);
    if (!suggestion)
        return;
    m_previewing.insert(id);
    const ImproveSuggestion copy = *suggestion;
    preparePlan(copy, std::nullopt);
}

QCoro::Task<> ImproveViewModel::loadSuggestions() {
    RelayClient* relay = client();
    if (!relay) {
        setError(RelayClient::notSignedInMessage);
        co_return;
    }
    QPointer<ImproveViewModel> self(this);
    auto list = co_await improvecalls::suggestions(*relay, m_showDismissed, improvecalls::kListLimit);
    if (!self)
        co_return;
    if (!list) {
        setError(list.error().message);
        co_return;
    }
    m_suggestions = std::move(list).value();
    emit changed();
}

QCoro::Task<> ImproveViewModel::loadNow() {
    QPointer<ImproveViewModel> self(this);
    m_isLoading = true;
    setError(std::nullopt);
    co_await loadSuggestions();
    if (!self)
        co_return;
    m_isLoading = false;
    emit changed();
}

QCoro::Task<> ImproveViewModel::processNow() {
    RelayClient* relay = client();
    if (!relay || m_isProcessing)
        co_return;
    QPointer<ImproveViewModel> self(this);
    m_isProcessing = true;
    setError(std::nullopt);
    // The button never forces: a forced reading is for the relay's own maintenance.
    const auto scanned = co_await improvecalls::scan(*relay, false);
    if (!self)
        co_return;
    if (scanned)
        co_await loadSuggestions();
    else
        m_errorMessage = scanned.error().message;
    if (!self)
        co_return;
    m_isProcessing = false;
    emit changed();
}

QCoro::Task<> ImproveViewModel::toggleDismissedNow() {
    m_showDismissed = !m_showDismissed;
    emit changed();
    co_await loadNow();
}

QCoro::Task<> ImproveViewModel::dismissNow(QString id) {
    return changeStatus(std::move(id), StatusCall::dismiss);
}
QCoro::Task<> ImproveViewModel::snoozeNow(QString id) {
    return changeStatus(std::move(id), StatusCall::snooze);
}
QCoro::Task<> ImproveViewModel::reopenNow(QString id) {
    return changeStatus(std::move(id), StatusCall::reopen);
}

QCoro::Task<> ImproveViewModel::changeStatus(QString id, StatusCall call) {
    RelayClient* relay = client();
    if (!relay || m_busySuggestion)
        co_return;
    QPointer<ImproveViewModel> self(this);
    m_busySuggestion = id;
    setError(std::nullopt);
    Result<ImproveSuggestion> answer = Error{};
    switch (call) {
    case StatusCall::dismiss:
        answer = co_await improvecalls::dismiss(*relay, id);
        break;
    case StatusCall::snooze:
        answer = co_await improvecalls::snooze(*relay, id, improvecalls::kSnoozeDays);
        break;
    case StatusCall::reopen:
        answer = co_await improvecalls::reopen(*relay, id);
        break;
    }
    if (!self)
        co_return;
    if (answer)
        co_await loadSuggestions();
    else
        m_errorMessage = answer.error().message;
    if (!self)
        co_return;
    m_busySuggestion.reset();
    emit changed();
}

QCoro::Task<> ImproveViewModel::rewordNow(QString id) {
    RelayClient* relay = client();
    const ImproveSuggestion* found = find(id);
    // A skill is a whole file of the relay's making and is never reworded.
    if (!relay || !found || found->artifact != kRule || m_draftingSuggestion)
        co_return;
    QPointer<ImproveViewModel> self(this);
    m_draftingSuggestion = id;
    setError(std::nullopt);
    const auto draft = co_await improvecalls::draftWording(*relay, id);
    if (!self)
        co_return;
    // The list may have been loaded anew during the wait.
    const ImproveSuggestion* suggestion = find(id);
    if (!draft) {
        m_errorMessage = draft.error().message;
    } else if (suggestion) {
        const ImproveSuggestion copy = *suggestion;
        preparePlan(copy, draft.value().body);
        if (const auto pending = m_pending.find(id); pending != m_pending.end())
            pending->second.draft = draft.value();
    }
    m_draftingSuggestion.reset();
    emit changed();
}

QCoro::Task<> ImproveViewModel::applyNow(QString id) {
    RelayClient* relay = client();
    const auto found = m_pending.find(id);
    if (!relay || m_busySuggestion || found == m_pending.end() || found->second.plan.alreadyPresent)
        co_return;
    const PendingApply pending = found->second;
    QPointer<ImproveViewModel> self(this);
    m_busySuggestion = id;
    setError(std::nullopt);
    // The file is written first; the relay only records what already stands in the project.
    const auto written = improve::GuideWriter::apply(pending.url, pending.plan);
    if (!written) {
        m_busySuggestion.reset();
        setError(written.error().message());
        co_return;
    }
    const improve::GuideWriter::Applied& applied = written.value();
    ImproveApplyInput record{pending.target.agent, pending.target.path,   applied.resolvedPath,
                             applied.insertedText, applied.contentSHA256, applied.createdFile};
    const auto recorded = co_await improvecalls::apply(*relay, id, std::move(record));
    if (!self)
        co_return;
    if (!recorded) {
        // No rollback: the text has reached the project and only its record is missing; a
        // new preview then finds it already there.
        m_busySuggestion.reset();
        setError(recorded.error().message);
        co_return;
    }
    m_previewing.remove(id);
    m_pending.erase(id);
    co_await loadSuggestions();
    if (!self)
        co_return;
    m_busySuggestion.reset();
    emit changed();
}

QCoro::Task<> ImproveViewModel::undoNow(QString suggestionId, QString applicationId) {
    RelayClient* relay = client();
    const ImproveSuggestion* suggestion = find(suggestionId);
    if (!relay || !suggestion || m_busySuggestion)
        co_return;
    std::optional<ImproveApplication> application;
    for (const ImproveApplication& candidate : suggestion->applications)
        if (candidate.id == applicationId)
            application = candidate;
    if (!application)
        co_return;
    QPointer<ImproveViewModel> self(this);
    m_busySuggestion = suggestionId;
    setError(std::nullopt);
    // The place is worked out anew from the relative path, so the undo acts on the project
    // selected now rather than on the one the write went to.
    const auto url = improve::GuideMerge::resolve(m_projectRoot, application->path);
    if (!url) {
        m_busySuggestion.reset();
        setError(url.error().message());
        co_return;
    }
    const auto undone =
        improve::GuideWriter::undo(url.value(), application->artifact, application->inserted_text,
                                   suggestion->section, application->content_sha256);
    if (!undone) {
        m_busySuggestion.reset();
        setError(undone.error().message());
        co_return;
    }
    const auto recorded = co_await improvecalls::undo(*relay, application->id);
    if (!self)
        co_return;
    if (recorded)
        co_await loadSuggestions();
    else
        m_errorMessage = recorded.error().message;
    if (!self)
        co_return;
    m_busySuggestion.reset();
    emit changed();
}
