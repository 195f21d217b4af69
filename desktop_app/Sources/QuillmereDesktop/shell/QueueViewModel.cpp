#include "QuillmereDesktop/shell/QueueViewModel.h"

#include "QuillmereDesktop/shell/Formatting.h"

#include <algorithm>

QueueViewModel::QueueViewModel(QObject* parent) : QAbstractListModel(parent) {
    m_now = m_clock();
    m_ticker.setInterval(defaultAgeRefresh);
    connect(&m_ticker, &QTimer::timeout, this, &QueueViewModel::tick);
    m_ticker.start();
}

void QueueViewModel::setApp(AppState* app) {
    if (m_app == app)
        return;
    if (m_app)
        m_app->disconnect(this);
    m_app = app;
    if (m_app)
        connect(m_app, &AppState::snapshotChanged, this, &QueueViewModel::rebuild);
    rebuild();
    emit appChanged();
}

void QueueViewModel::rebuild() {
    beginResetModel();
    m_now = m_clock();
    m_rows = m_app ? m_app->snapshot().interrupts : QList<Interrupt>{};
    std::stable_sort(m_rows.begin(), m_rows.end(),
                     [](const Interrupt& a, const Interrupt& b) { return a.raisedAt < b.raisedAt; });
    endResetModel();
    emit rowsChanged();
}

void QueueViewModel::tick() {
    // Only the ages move on a tick; the rows stay as they are.
    m_now = m_clock();
    if (!m_rows.isEmpty())
        emit dataChanged(index(0), index(int(m_rows.size()) - 1), {SubtitleRole});
}

QString QueueViewModel::banner() const {
    return QStringLiteral("needs input %1").arg(m_rows.size());
}

QString QueueViewModel::subtitle(const Interrupt& interrupt) const {
    QString line = wire::rawValue(interrupt.kind).toUpper();
    if (interrupt.actionSlug)
        line += QStringLiteral(" \u2197");
    return line + QStringLiteral("   ") + formatting::duration(interrupt.raisedAt.secsTo(m_now));
}

int QueueViewModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : int(m_rows.size());
}

QVariant QueueViewModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= m_rows.size())
        return {};
    const Interrupt& interrupt = m_rows.at(index.row());
    switch (role) {
    case IdRole:
        return interrupt.id;
    case TitleRole:
        return interrupt.runName.toUpper();
    case SubtitleRole:
        return subtitle(interrupt);
    default:
        return {};
    }
}

QHash<int, QByteArray> QueueViewModel::roleNames() const {
    return {{IdRole, "interruptId"}, {TitleRole, "title"}, {SubtitleRole, "subtitle"}};
}

void QueueViewModel::select(const QString& interruptId) {
    if (!m_app)
        return;
    m_app->setSelectedInterruptId(interruptId);
    m_app->setScreen(AppState::Screen::item);
}

void QueueViewModel::back() {
    if (m_app)
        m_app->back();
}
