#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/context/ProjectRecords.h"
#include "QuillmereDesktop/queue/AppState.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <optional>

// The project context screen: guide files found at the project root (listed only, saved
// only by the button), the items saved on the relay, a new note, and a preview of the pack
// an agent would get. Nothing enters the store by itself.
class ProjectContextViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AppState* app READ app WRITE setApp NOTIFY sourcesChanged)
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY sourcesChanged)
    Q_PROPERTY(QString query READ query WRITE setQuery NOTIFY formChanged)
    Q_PROPERTY(QString noteTitle READ noteTitle WRITE setNoteTitle NOTIFY formChanged)
    Q_PROPERTY(QString noteContent READ noteContent WRITE setNoteContent NOTIFY formChanged)
    Q_PROPERTY(bool canAddNote READ canAddNote NOTIFY formChanged)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY busyChanged)
    Q_PROPERTY(bool isWorking READ isWorking NOTIFY busyChanged)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY errorChanged)
    Q_PROPERTY(QString syncedCountLine READ syncedCountLine NOTIFY dataChanged)
    Q_PROPERTY(QVariantList guideRows READ guideRows NOTIFY dataChanged)
    Q_PROPERTY(QString itemsHeading READ itemsHeading NOTIFY dataChanged)
    Q_PROPERTY(QVariantList itemRows READ itemRows NOTIFY dataChanged)
    Q_PROPERTY(bool hasPack READ hasPack NOTIFY dataChanged)
    Q_PROPERTY(QString packCountLine READ packCountLine NOTIFY dataChanged)
    Q_PROPERTY(QString packText READ packText NOTIFY dataChanged)
    Q_PROPERTY(bool confirmingDelete READ confirmingDelete NOTIFY pendingDeleteChanged)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    // Every pack the application asks for has this budget of characters.
    static constexpr qint64 characterBudget = 24000;
    // Larger guide files are not offered at all: they are read on the main thread.
    static constexpr qint64 maxGuideBytes = 100000;
    static inline const QString defaultQuery = QStringLiteral("current project work");

    // The candidates, relative to the project root, in the order they are listed.
    static const QStringList& guidePaths();
    // The guides present at `root`: readable, not larger than the limit, valid UTF-8, not empty.
    static QList<LocalGuide> detectGuides(const QString& root);
    // A guide counts as synced when an item has its source and exactly its text.
    static bool isSynced(const LocalGuide& guide, const QList<ProjectContextItem>& items);
    static int syncedGuideCount(const QList<LocalGuide>& guides, const QList<ProjectContextItem>& items);
    static QVariantMap labels();

    explicit ProjectContextViewModel(QObject* parent = nullptr);

    AppState* app() const { return m_app; }
    void setApp(AppState* app);
    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);

    const QString& query() const { return m_query; }
    void setQuery(const QString& query);
    const QString& noteTitle() const { return m_noteTitle; }
    void setNoteTitle(const QString& title);
    const QString& noteContent() const { return m_noteContent; }
    void setNoteContent(const QString& content);
    bool canAddNote() const;
    bool isLoading() const { return m_isLoading; }
    bool isWorking() const { return m_isWorking; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }
    QString errorText() const { return m_errorMessage.value_or(QString()); }

    const std::optional<MereProject>& project() const { return m_project; }
    const QList<ProjectContextItem>& items() const { return m_items; }
    const QList<LocalGuide>& localGuides() const { return m_localGuides; }
    const std::optional<ContextPack>& pack() const { return m_pack; }
    const std::optional<ProjectContextItem>& pendingDelete() const { return m_pendingDelete; }

    QString syncedCountLine() const;
    QVariantList guideRows() const;
    QString itemsHeading() const;
    QVariantList itemRows() const;
    bool hasPack() const { return m_pack.has_value(); }
    QString packCountLine() const;
    QString packText() const;
    bool confirmingDelete() const { return m_pendingDelete.has_value(); }

    Q_INVOKABLE void load();
    Q_INVOKABLE void syncGuides();
    Q_INVOKABLE void addNote();
    Q_INVOKABLE void buildPack();
    Q_INVOKABLE void requestDelete(const QString& itemId);
    Q_INVOKABLE void cancelDelete();
    Q_INVOKABLE void deletePendingItem();
    Q_INVOKABLE void copyPack() const;

    QCoro::Task<> loadNow();
    QCoro::Task<> syncGuidesNow();
    QCoro::Task<> addNoteNow();
    QCoro::Task<> buildPackNow();
    QCoro::Task<> deletePendingItemNow();

signals:
    void sourcesChanged();
    void formChanged();
    void busyChanged();
    void errorChanged();
    void dataChanged();
    void pendingDeleteChanged();

private:
    RelayClient* client() const { return m_auth ? m_auth->client() : nullptr; }
    QString workingDirectory() const { return m_app ? m_app->terminalWorkingDirectory() : QString(); }
    // Items, then the pack for the present query; the first failure is shown, what was
    // read stays.
    QCoro::Task<> reloadItemsAndPack();
    void setError(std::optional<QString> message);
    void setWorking(bool working);

    QPointer<AppState> m_app;
    QPointer<AuthStore> m_auth;
    std::optional<MereProject> m_project;
    QList<ProjectContextItem> m_items;
    QList<LocalGuide> m_localGuides;
    QString m_query = defaultQuery;
    std::optional<ContextPack> m_pack;
    QString m_noteTitle;
    QString m_noteContent;
    bool m_isLoading = false;
    bool m_isWorking = false;
    std::optional<QString> m_errorMessage;
    std::optional<ProjectContextItem> m_pendingDelete;
};
