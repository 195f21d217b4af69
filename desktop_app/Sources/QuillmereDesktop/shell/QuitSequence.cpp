#include "QuillmereDesktop/shell/QuitSequence.h"

#include <QCoreApplication>
#include <QEvent>
#include <QPointer>

QuitSequence::QuitSequence(std::function<void()> stopAtOnce, std::function<QCoro::Task<>()> stopAndWait,
                           QObject* parent)
    : QObject(parent), m_stopAtOnce(std::move(stopAtOnce)), m_stopAndWait(std::move(stopAndWait)) {
    if (QCoreApplication* application = QCoreApplication::instance())
        application->installEventFilter(this);
}

QuitSequence::~QuitSequence() {
    if (QCoreApplication* application = QCoreApplication::instance())
        application->removeEventFilter(this);
}

bool QuitSequence::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::Quit || watched != QCoreApplication::instance())
        return false;
    // The first request starts the sequence; further ones change nothing while it runs.
    if (!m_running) {
        m_running = true;
        run();
    }
    event->ignore();
    return true;
}

QCoro::Task<> QuitSequence::run() {
    QPointer<QuitSequence> self(this);
    if (m_stopAtOnce)
        m_stopAtOnce();
    if (m_stopAndWait)
        co_await m_stopAndWait();
    // Leaving the event loop directly: a quit request would only come back here.
    if (self)
        QCoreApplication::exit(0);
}
