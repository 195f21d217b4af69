#include "QuillmereDesktop/context/ProjectContextViewModel.h"

#include "QuillmereDesktop/agents/Graphemes.h"
#include "QuillmereDesktop/context/ProjectStore.h"

#include <QClipboard>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QStringDecoder>

namespace {

const QString fileSourcePrefix = QStringLiteral("file:");

// Text as a person counts it: user-perceived characters, not code units.
QString charsText(const QString& text) {
    return QString::number(graphemes::count(text)) + QStringLiteral(" CHARS");
}

std::optional<LocalGuide> readGuide(const QString& root, const QString& relativePath) {
    const QFileInfo info(QDir(root).filePath(relativePath));
    if (!info.isFile() || info.size() > ProjectContextViewModel::maxGuideBytes)
        return std::nullopt;
    QFile file(info.filePath());
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    // Read one byte past the limit, in case the file grew since its size was read.
    const QByteArray bytes = file.read(ProjectContextViewModel::maxGuideBytes + 1);
    if (bytes.isEmpty() || bytes.size() > ProjectContextViewModel::maxGuideBytes)
        return std::nullopt;
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(bytes);
    if (decoder.hasError() || text.isEmpty())
        return std::nullopt;
    return LocalGuide{relativePath, text};
}

} // namespace

const QStringList& ProjectContextViewModel::guidePaths() {
    static const QStringList paths{"AGENTS.md",
                                   "CLAUDE.md",
                                   "README.md",
                                   "README",
                                   ".github/copilot-instructions.md",
                                   "docs/architecture.md",
                                   "docs/roadmap.md"};
    return paths;
}

QList<LocalGuide> ProjectContextViewModel::detectGuides(const QString& root) {
    QList<LocalGuide> guides;
    for (const QString& path : guidePaths())
        if (auto guide = readGuide(root, path))
            guides.append(std::move(*guide));
    return guides;
}

bool ProjectContextViewModel::isSynced(const LocalGuide& guide, const QList<ProjectContextItem>& items) {
    const QString source = fileSourcePrefix + guide.relativePath;
    return std::any_of(items.begin(), items.end(), [&](const ProjectContextItem& item) {
        return item.source == source && item.content == guide.content;
    });
}

int ProjectContextViewModel::syncedGuideCount(const QList<LocalGuide>& guides,
                                              const QList<ProjectContextItem>& items) {
    return int(std::count_if(guides.begin(), guides.end(),
                             [&](const LocalGuide& guide) { return isSynced(guide, items); }));
}

QVariantMap ProjectContextViewModel::labels() {
    return {{"title", "project context"},
            {"close", "✕"},
            {"explicit",
             "CONTEXT IS EXPLICIT, PROJECT-SCOPED, EXPORTABLE THROUGH THE API, AND DELETABLE HERE. "
             "OPENING THIS PANEL DOES NOT SAVE DETECTED FILES."},
            {"guidesHeading", "detected project guides"},
            {"sync", "SYNC PROJECT GUIDES"},
            {"noGuides",
             "No AGENTS.md, CLAUDE.md, README, or architecture guide was found at this project root."},
            {"noItems", "Nothing durable has been saved for this project."},
            {"delete", "DELETE"},
            {"noteHeading", "add explicit memory"},
            {"noteTitleHint", "Title — e.g. Testing convention"},
            {"add", "ADD TO PROJECT CONTEXT"},
            {"packHeading", "context pack preview"},
            {"queryHint", "What is the agent working on?"},
            {"build", "BUILD"},
            {"copy", "COPY PACK"},
            {"noMatch", "No matching context."},
            {"confirmTitle", "Delete context item?"},
            {"confirmMessage", "This removes the item from the shared project context store."},
            {"confirmDelete", "Delete"},
            {"confirmCancel", "Cancel"}};
}

ProjectContextViewModel::ProjectContextViewModel(QObject* parent) : QObject(parent) {}

void ProjectContextViewModel::setApp(AppState* app) {
    if (m_app == app)
        return;
    m_app = app;
    emit sourcesChanged();
}

void ProjectContextViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit sourcesChanged();
}

void ProjectContextViewModel::setQuery(const QString& query) {
    if (m_query == query)
        return;
    m_query = query;
    emit formChanged();
}

void ProjectContextViewModel::setNoteTitle(const QString& title) {
    if (m_noteTitle == title)
        return;
    m_noteTitle = title;
    emit formChanged();
}

void ProjectContextViewModel::setNoteContent(const QString& content) {
    if (m_noteContent == content)
        return;
    m_noteContent = content;
    emit formChanged();
}

bool ProjectContextViewModel::canAddNote() const {
    return !m_noteTitle.trimmed().isEmpty() && !m_noteContent.trimmed().isEmpty();
}

QString ProjectContextViewModel::syncedCountLine() const {
    return QStringLiteral("%1/%2 SYNCED")
        .arg(syncedGuideCount(m_localGuides, m_items))
        .arg(m_localGuides.size());
}

QVariantList ProjectContextViewModel::guideRows() const {
    QVariantList rows;
    for (const LocalGuide& guide : m_localGuides)
        rows.append(QVariantMap{{"path", guide.relativePath},
                                {"chars", charsText(guide.content)},
                                {"synced", isSynced(guide, m_items)}});
    return rows;
}

QString ProjectContextViewModel::itemsHeading() const {
    return QStringLiteral("shared items ") + QString::number(m_items.size());
}

QVariantList ProjectContextViewModel::itemRows() const {
    QVariantList rows;
    for (const ProjectContextItem& item : m_items)
        rows.append(QVariantMap{{"id", item.id}, {"title", item.title.toUpper()}, {"content", item.content}});
    return rows;
}

QString ProjectContextViewModel::packCountLine() const {
    return m_pack ? QString::number(m_pack->character_count) + QStringLiteral(" CHARS") : QString();
}

QString ProjectContextViewModel::packText() const {
    if (!m_pack)
        return {};
    return m_pack->content.isEmpty() ? labels().value("noMatch").toString() : m_pack->content;
}

void ProjectContextViewModel::setError(std::optional<QString> message) {
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    emit errorChanged();
}

void ProjectContextViewModel::setWorking(bool working) {
    if (m_isWorking == working)
        return;
    m_isWorking = working;
    emit busyChanged();
}

void ProjectContextViewModel::load() {
    loadNow();
}
void ProjectContextViewModel::syncGuides() {
    syncGuidesNow();
}
void ProjectContextViewModel::addNote() {
    addNoteNow();
}
void ProjectContextViewModel::buildPack() {
    buildPackNow();
}
void ProjectContextViewModel::deletePendingItem() {
    deletePendingItemNow();
}

void ProjectContextViewModel::requestDelete(const QString& itemId) {
    for (const ProjectContextItem& item : m_items)
        if (item.id == itemId) {
            m_pendingDelete = item;
            emit pendingDeleteChanged();
            return;
        }
}

void ProjectContextViewModel::cancelDelete() {
    m_pendingDelete.reset();
    emit pendingDeleteChanged();
}

void ProjectContextViewModel::copyPack() const {
    if (m_pack)
        QGuiApplication::clipboard()->setText(m_pack->content);
}

QCoro::Task<> ProjectContextViewModel::loadNow() {
    QPointer<ProjectContextViewModel> self(this);
    m_isLoading = true;
    emit busyChanged();
    setError(std::nullopt);
    // The guides are read from disk first: they show even without the relay.
    const QString root = workingDirectory();
    m_localGuides = detectGuides(root);
    emit dataChanged();
    if (RelayClient* relay = client()) {
        const Result<MereProject> project =
            co_await relay->upsertProject(ProjectStore::lastPathComponent(root), root);
        if (!self)
            co_return;
        if (project) {
            m_project = project.value();
            co_await reloadItemsAndPack();
            if (!self)
                co_return;
        } else {
            setError(project.error().message);
        }
    }
    m_isLoading = false;
    emit busyChanged();
}

QCoro::Task<> ProjectContextViewModel::reloadItemsAndPack() {
    RelayClient* relay = client();
    if (!m_project || !relay)
        co_return;
    QPointer<ProjectContextViewModel> self(this);
    const QString projectId = m_project->id;
    const Result<QList<ProjectContextItem>> items = co_await relay->contextItems(projectId);
    if (!self)
        co_return;
    if (!items) {
        setError(items.error().message);
        co_return;
    }
    m_items = items.value();
    emit dataChanged();
    relay = client();
    if (!relay)
        co_return;
    const Result<ContextPack> pack = co_await relay->contextPack(projectId, m_query, characterBudget);
    if (!self)
        co_return;
    if (!pack) {
        setError(pack.error().message);
        co_return;
    }
    m_pack = pack.value();
    emit dataChanged();
}

QCoro::Task<> ProjectContextViewModel::syncGuidesNow() {
    if (!m_project)
        co_return;
    QPointer<ProjectContextViewModel> self(this);
    setWorking(true);
    setError(std::nullopt);
    const QString projectId = m_project->id;
    const QList<LocalGuide> guides = m_localGuides;
    const QList<ProjectContextItem> items = m_items;
    std::optional<QString> failure;
    for (const LocalGuide& guide : guides) {
        RelayClient* relay = client();
        if (isSynced(guide, items) || !relay)
            continue;
        const Result<ProjectContextItem> saved = co_await relay->saveContext(
            projectId, guide.relativePath, guide.content, fileSourcePrefix + guide.relativePath);
        if (!self)
            co_return;
        if (!saved) {
            failure = saved.error().message;
            break;
        }
    }
    co_await reloadItemsAndPack();
    if (!self)
        co_return;
    if (failure)
        setError(failure);
    setWorking(false);
}

QCoro::Task<> ProjectContextViewModel::addNoteNow() {
    RelayClient* relay = client();
    if (!m_project || !relay)
        co_return;
    QPointer<ProjectContextViewModel> self(this);
    const QString title = m_noteTitle.trimmed();
    const QString content = m_noteContent.trimmed();
    setWorking(true);
    const Result<ProjectContextItem> saved =
        co_await relay->saveContext(m_project->id, title, content, QString());
    if (!self)
        co_return;
    if (saved) {
        m_noteTitle.clear();
        m_noteContent.clear();
        emit formChanged();
        co_await reloadItemsAndPack();
        if (!self)
            co_return;
    } else {
        setError(saved.error().message);
    }
    setWorking(false);
}

QCoro::Task<> ProjectContextViewModel::buildPackNow() {
    RelayClient* relay = client();
    if (!m_project || !relay)
        co_return;
    QPointer<ProjectContextViewModel> self(this);
    setWorking(true);
    const Result<ContextPack> pack = co_await relay->contextPack(m_project->id, m_query, characterBudget);
    if (!self)
        co_return;
    if (pack) {
        m_pack = pack.value();
        emit dataChanged();
    } else {
        setError(pack.error().message);
    }
    setWorking(false);
}

QCoro::Task<> ProjectContextViewModel::deletePendingItemNow() {
    const std::optional<ProjectContextItem> item = m_pendingDelete;
    m_pendingDelete.reset();
    emit pendingDeleteChanged();
    RelayClient* relay = client();
    if (!item || !m_project || !relay)
        co_return;
    QPointer<ProjectContextViewModel> self(this);
    setWorking(true);
    const Result<void> deleted = co_await relay->deleteContext(m_project->id, item->id);
    if (!self)
        co_return;
    if (deleted)
        co_await reloadItemsAndPack();
    else
        setError(deleted.error().message);
    if (!self)
        co_return;
    setWorking(false);
}
