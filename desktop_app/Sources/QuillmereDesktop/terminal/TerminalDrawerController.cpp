#include "QuillmereDesktop/terminal/TerminalDrawerController.h"

#include "QuillmereDesktop/terminal/DrawerLayout.h"

#include <QScreen>

TerminalDrawerController::TerminalDrawerController(QObject* parent) : QObject(parent) {}

TerminalDrawerController::~TerminalDrawerController() {
    if (m_panel)
        emit panelDiscarding(m_panel.get());
}

void TerminalDrawerController::setMainWindow(QWindow* window) {
    if (m_mainWindow == window)
        return;
    if (m_observing) {
        disconnect(m_moveX);
        disconnect(m_moveY);
        disconnect(m_resize);
        m_observing = false;
    }
    m_mainWindow = window;
}

void TerminalDrawerController::open(const BuildContent& buildContent) {
    if (!m_mainWindow)
        return;
    if (!m_panel) {
        QWindow* made = buildContent ? buildContent() : nullptr;
        ++m_contentBuilds;
        if (!made)
            return;
        m_panel.reset(made);
        m_panel->setFlag(Qt::FramelessWindowHint, true);
        m_panel->setFlag(Qt::Window, true);
    }
    layout();
    m_panel->show();
    m_panel->raise();
    // The drawer takes the keyboard: its terminal is what the person is about to type into.
    m_panel->requestActivate();
    setOpen(true);
    // The main window's moves are followed from the first opening on, for good.
    if (!m_observing) {
        m_observing = true;
        m_moveX =
            connect(m_mainWindow, &QWindow::xChanged, this, &TerminalDrawerController::followMainWindow);
        m_moveY =
            connect(m_mainWindow, &QWindow::yChanged, this, &TerminalDrawerController::followMainWindow);
        m_resize =
            connect(m_mainWindow, &QWindow::heightChanged, this, &TerminalDrawerController::followMainWindow);
    }
}

void TerminalDrawerController::toggle(const BuildContent& buildContent) {
    if (m_isOpen)
        close();
    else
        open(buildContent);
}

void TerminalDrawerController::close() {
    if (m_panel)
        m_panel->hide();
    setOpen(false);
}

void TerminalDrawerController::discardSessions() {
    if (m_panel) {
        m_panel->hide();
        emit panelDiscarding(m_panel.get());
        // Released after the current event, so that a button inside it may finish its click.
        m_panel.release()->deleteLater();
    }
    m_sessionDirectory.reset();
    emit sessionDirectoryChanged();
    setOpen(false);
}

void TerminalDrawerController::followMainWindow() {
    if (m_panel)
        layout();
}

void TerminalDrawerController::layout() {
    if (!m_mainWindow || !m_panel)
        return;
    QScreen* screen = m_mainWindow->screen();
    const std::optional<QRect> available =
        screen ? std::optional<QRect>(screen->availableGeometry()) : std::nullopt;
    const QRect frame = drawerLayout::frame(m_mainWindow->frameGeometry(), available);
    if (m_panel->geometry() != frame)
        m_panel->setGeometry(frame);
    // A main window kept above the others takes its drawer along.
    const bool onTop = m_mainWindow->flags().testFlag(Qt::WindowStaysOnTopHint);
    if (m_panel->flags().testFlag(Qt::WindowStaysOnTopHint) != onTop)
        m_panel->setFlag(Qt::WindowStaysOnTopHint, onTop);
}

void TerminalDrawerController::setOpen(bool open) {
    if (m_isOpen == open)
        return;
    m_isOpen = open;
    emit isOpenChanged();
}

void TerminalDrawerController::setSessionDirectory(std::optional<QString> directory) {
    if (m_sessionDirectory == directory)
        return;
    m_sessionDirectory = std::move(directory);
    emit sessionDirectoryChanged();
}
