#pragma once

#include "ImproveApply/Plan.h"
#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/improve/ImproveRecords.h"

#include <QObject>
#include <QPointer>
#include <QSet>
#include <QVariantList>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <map>
#include <optional>

// A plan on show, bound to the file it was made for. A reworded text lives only here: it is
// forgotten when the preview closes.
struct PendingApply {
    ImproveTarget target;
    QString url;
    improve::GuideMerge::Plan plan;
    std::optional<ImproveDraft> draft;
};

// The improve suggestions screen: the relay finds, words and keeps the suggestions; this
// shows them, previews the exact change to the project's file, writes it, tells the relay
// afterwards, and takes it out again. Every file operation runs here, on the main thread.
class ImproveViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY authChanged)
    // The project every file path is relative to: the terminals' working folder.
    Q_PROPERTY(QString projectRoot READ projectRoot WRITE setProjectRoot NOTIFY projectRootChanged)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)
    Q_PROPERTY(QVariantList cards READ cards NOTIFY changed)
    Q_PROPERTY(bool hasSuggestions READ hasSuggestions NOTIFY changed)
    Q_PROPERTY(QString emptyText READ emptyText CONSTANT)
    Q_PROPERTY(QString sectionHeader READ sectionHeader NOTIFY changed)
    Q_PROPERTY(QString countsLine READ countsLine NOTIFY changed)
    Q_PROPERTY(QString readState READ readState NOTIFY changed)
    Q_PROPERTY(QString scheduleLine READ scheduleLine NOTIFY changed)
    Q_PROPERTY(QString processLabel READ processLabel NOTIFY changed)
    Q_PROPERTY(bool showsDismissedToggle READ showsDismissedToggle NOTIFY changed)
    Q_PROPERTY(QString dismissedToggleLabel READ dismissedToggleLabel NOTIFY changed)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY changed)
    Q_PROPERTY(bool isProcessing READ isProcessing NOTIFY changed)
    Q_PROPERTY(bool busy READ busy NOTIFY changed)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY changed)

public:
    // Longest excerpt of the person's words shown on a card, in characters.
    static constexpr qsizetype kEvidenceClip = 240;

    explicit ImproveViewModel(QObject* parent = nullptr);

    static QVariantMap labels();
    // A date string in the short form "MM-DD HH:MM"; a short string is shown whole.
    static QString shortDate(const QString& date);
    // The reading status line from the processing state.
    static QString readStateText(const ImproveProcessing& processing);

    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);
    const QString& projectRoot() const { return m_projectRoot; }
    void setProjectRoot(const QString& root);

    QVariantList cards() const;
    bool hasSuggestions() const { return m_suggestions && !m_suggestions->suggestions.isEmpty(); }
    static QString emptyText();
    QString sectionHeader() const;
    QString countsLine() const;
    QString readState() const;
    QString scheduleLine() const;
    QString processLabel() const;
    bool showsDismissedToggle() const;
    QString dismissedToggleLabel() const;
    bool isLoading() const { return m_isLoading; }
    bool isProcessing() const { return m_isProcessing; }
    bool busy() const { return m_busySuggestion.has_value(); }
    QString errorText() const { return m_errorMessage.value_or(QString()); }

    // The state as the tests read it.
    const std::optional<ImproveSuggestionList>& suggestions() const { return m_suggestions; }
    bool showDismissed() const { return m_showDismissed; }
    const QSet<QString>& previewing() const { return m_previewing; }
    const std::map<QString, PendingApply>& pending() const { return m_pending; }
    const std::map<QString, QString>& planErrors() const { return m_planErrors; }
    const std::optional<QString>& busySuggestion() const { return m_busySuggestion; }
    const std::optional<QString>& draftingSuggestion() const { return m_draftingSuggestion; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }
    // One card, as `cards` has it.
    QVariantMap card(const ImproveSuggestion& suggestion) const;

    Q_INVOKABLE void load();
    Q_INVOKABLE void process();
    Q_INVOKABLE void toggleDismissed();
    Q_INVOKABLE void dismiss(const QString& id);
    Q_INVOKABLE void snooze(const QString& id);
    Q_INVOKABLE void reopen(const QString& id);
    Q_INVOKABLE void togglePreview(const QString& id);
    Q_INVOKABLE void reword(const QString& id);
    Q_INVOKABLE void apply(const QString& id);
    Q_INVOKABLE void undo(const QString& suggestionId, const QString& applicationId);

    QCoro::Task<> loadNow();
    QCoro::Task<> processNow();
    QCoro::Task<> toggleDismissedNow();
    QCoro::Task<> dismissNow(QString id);
    QCoro::Task<> snoozeNow(QString id);
    QCoro::Task<> reopenNow(QString id);
    QCoro::Task<> rewordNow(QString id);
    QCoro::Task<> applyNow(QString id);
    QCoro::Task<> undoNow(QString suggestionId, QString applicationId);

    // Plans the write of a suggestion, or of a reworded text for it, against the file as it
    // stands now; a failure stands on the card.
    void preparePlan(const ImproveSuggestion& suggestion, const std::optional<QString>& body);

signals:
    void authChanged();
    void projectRootChanged();
    void changed();

private:
    enum class StatusCall { dismiss, snooze, reopen };

    RelayClient* client() const { return m_auth ? m_auth->client() : nullptr; }
    const ImproveSuggestion* find(const QString& id) const;
    QCoro::Task<> loadSuggestions();
    QCoro::Task<> changeStatus(QString id, StatusCall call);
    QVariantMap previewOf(const ImproveSuggestion& suggestion) const;
    void setError(std::optional<QString> message);

    QPointer<AuthStore> m_auth;
    QString m_projectRoot;
    std::optional<ImproveSuggestionList> m_suggestions;
    bool m_showDismissed = false;
    QSet<QString> m_previewing;
    std::map<QString, PendingApply> m_pending;
    std::map<QString, QString> m_planErrors;
    std::optional<QString> m_busySuggestion;
    std::optional<QString> m_draftingSuggestion;
    bool m_isLoading = false;
    bool m_isProcessing = false;
    std::optional<QString> m_errorMessage;
};
