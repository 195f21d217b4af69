#pragma once

#include "QuillmereDesktop/queue/AppState.h"

#include <QObject>
#include <QPointer>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include <functional>

// One interrupt with all its context, and the ways to answer it.
class ItemViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AppState* app READ app WRITE setApp NOTIFY appChanged)
    Q_PROPERTY(bool hasSelection READ hasSelection NOTIFY changed)
    Q_PROPERTY(QString kindWord READ kindWord NOTIFY changed)
    Q_PROPERTY(QString title READ title NOTIFY changed)
    Q_PROPERTY(QString prompt READ prompt NOTIFY changed)
    Q_PROPERTY(QVariantList contextRows READ contextRows NOTIFY changed)
    Q_PROPERTY(bool runsRealAction READ runsRealAction NOTIFY changed)
    Q_PROPERTY(QString actionLine READ actionLine NOTIFY changed)
    Q_PROPERTY(QString targetLine READ targetLine NOTIFY changed)
    Q_PROPERTY(QString detail READ detail NOTIFY changed)
    Q_PROPERTY(QStringList options READ options NOTIFY changed)
    Q_PROPERTY(bool showsReplyBox READ showsReplyBox NOTIFY changed)
    Q_PROPERTY(QString replyText READ replyText WRITE setReplyText NOTIFY replyTextChanged)
    Q_PROPERTY(bool canSend READ canSend NOTIFY replyTextChanged)
    Q_PROPERTY(QString nothingSelected READ nothingSelected CONSTANT)
    Q_PROPERTY(QString queueLabel READ queueLabel CONSTANT)
    Q_PROPERTY(QString contextBanner READ contextBanner CONSTANT)
    Q_PROPERTY(QString realActionBanner READ realActionBanner CONSTANT)
    Q_PROPERTY(QString detailBanner READ detailBanner CONSTANT)
    Q_PROPERTY(QString replyHeading READ replyHeading CONSTANT)
    Q_PROPERTY(QString replyPlaceholder READ replyPlaceholder CONSTANT)
    Q_PROPERTY(QString sendLabel READ sendLabel CONSTANT)

public:
    static QString nothingSelected() { return QStringLiteral("Nothing selected."); }
    static QString queueLabel() { return QStringLiteral("\u2039 QUEUE"); }
    static QString contextBanner() { return QStringLiteral("request context"); }
    static QString realActionBanner() { return QStringLiteral("! runs a real action"); }
    static QString detailBanner() { return QStringLiteral("detail"); }
    static QString replyHeading() { return QStringLiteral("or write a reply"); }
    static QString replyPlaceholder() { return QStringLiteral("Type a reply\u2026"); }
    static QString sendLabel() { return QStringLiteral("SEND"); }
    static QString notSupplied() { return QStringLiteral("NOT SUPPLIED"); }
    // The option an agent's notice offers when it waits in a terminal the queue cannot answer
    // for; the hook that raises the notice spells it the same way.
    static QString openTheDrawerOption() { return QStringLiteral("Open the drawer"); }

    explicit ItemViewModel(QObject* parent = nullptr);

    AppState* app() const { return m_app; }
    void setApp(AppState* app);
    // For tests: the clock that stamps verdicts.
    void setClock(std::function<QDateTime()> clock) { m_clock = std::move(clock); }

    bool hasSelection() const { return m_app && m_app->selectedInterrupt().has_value(); }
    QString kindWord() const;
    QString title() const;
    QString prompt() const;
    // Label, value and whether it was supplied, one map per row, in screen order.
    QVariantList contextRows() const;
    bool runsRealAction() const;
    QString actionLine() const;
    QString targetLine() const;
    QString detail() const;
    QStringList options() const;
    bool showsReplyBox() const;
    const QString& replyText() const { return m_replyText; }
    void setReplyText(const QString& text);
    bool canSend() const { return !m_replyText.trimmed().isEmpty(); }

    // "github · GITHUB_DELETE_A_REFERENCE", or the slug alone, or "an external action".
    static QString actionLine(const Interrupt& interrupt);
    // The verdict an option button gives: "approve" and "reject" in any case, else a reply.
    static Verdict verdictForOption(const QString& option, const QDateTime& now);

    Q_INVOKABLE void chooseOption(int index);
    Q_INVOKABLE void sendReply();
    Q_INVOKABLE void back();

signals:
    void appChanged();
    void changed();
    void replyTextChanged();
    // The person chose to go to the agent's terminals in the drawer.
    void drawerRequested();

private:
    std::optional<Interrupt> current() const { return m_app ? m_app->selectedInterrupt() : std::nullopt; }

    QPointer<AppState> m_app;
    QString m_replyText;
    std::function<QDateTime()> m_clock = [] { return QDateTime::currentDateTimeUtc(); };
};
