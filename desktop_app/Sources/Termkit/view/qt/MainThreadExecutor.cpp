#include "Termkit/view/qt/MainThreadExecutor.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>

namespace termkit {

MainThreadExecutor::MainThreadExecutor() {
    if (QCoreApplication* app = QCoreApplication::instance())
        m_context.moveToThread(app->thread());
}

MainThreadExecutor::~MainThreadExecutor() = default;

void MainThreadExecutor::post(std::function<void()> work) {
    QMetaObject::invokeMethod(&m_context, std::move(work), Qt::QueuedConnection);
}

MainThreadExecutor& MainThreadExecutor::shared() {
    static MainThreadExecutor executor;
    return executor;
}

} // namespace termkit
