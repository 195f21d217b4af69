#pragma once

#include "QuillmereDesktop/queue/AppState.h"

#include <QAbstractListModel>
#include <QDateTime>
#include <QPointer>
#include <QTimer>
#include <QtQml/qqmlregistration.h>

#include <chrono>
#include <functional>

// The queue screen: what waits, oldest first, with ages that tick every second.
class QueueViewModel : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AppState* app READ app WRITE setApp NOTIFY appChanged)
    Q_PROPERTY(QString banner READ banner NOTIFY rowsChanged)
    Q_PROPERTY(bool isEmpty READ isEmpty NOTIFY rowsChanged)
    Q_PROPERTY(QString homeLabel READ homeLabel CONSTANT)
    Q_PROPERTY(QString emptyText READ emptyText CONSTANT)

public:
    enum Role { IdRole = Qt::UserRole + 1, TitleRole, SubtitleRole };
    Q_ENUM(Role)

    static constexpr std::chrono::milliseconds defaultAgeRefresh{1000};
    static QString homeLabel() { return QStringLiteral("\u2039 HOME"); }
    static QString emptyText() { return QStringLiteral("Queue is empty."); }

    explicit QueueViewModel(QObject* parent = nullptr);

    AppState* app() const { return m_app; }
    void setApp(AppState* app);
    // For tests: the clock that gives "now", and how often the ages refresh.
    void setClock(std::function<QDateTime()> clock) { m_clock = std::move(clock); }
    void setAgeRefresh(std::chrono::milliseconds interval) { m_ticker.setInterval(interval); }

    QString banner() const;
    bool isEmpty() const { return m_rows.isEmpty(); }
    // The interrupts in the order shown: by when they were raised, earliest first, stable.
    const QList<Interrupt>& orderedInterrupts() const { return m_rows; }
    QString subtitle(const Interrupt& interrupt) const;

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    Q_INVOKABLE void select(const QString& interruptId);
    Q_INVOKABLE void back();

signals:
    void appChanged();
    void rowsChanged();

private:
    void rebuild();
    void tick();

    QPointer<AppState> m_app;
    QList<Interrupt> m_rows;
    QDateTime m_now;
    std::function<QDateTime()> m_clock = [] { return QDateTime::currentDateTimeUtc(); };
    QTimer m_ticker;
};
