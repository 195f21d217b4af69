#include "QuillmereDesktop/shell/TrayIcon.h"

#include <QAction>
#include <QCoreApplication>
#include <QMenu>
#include <QPainter>
#include <QSystemTrayIcon>

namespace {
// The drawn icon's size; the tray scales it.
constexpr int drawnIconSize = 64;
} // namespace

TrayIcon::TrayIcon(AppState& app, std::function<QWindow*()> window, QObject* parent)
    : QObject(parent), m_app(&app), m_window(std::move(window)), m_menu(std::make_unique<QMenu>()) {
    m_toggle = m_menu->addAction(hideLabel(), this, &TrayIcon::toggleWindow);
    m_menu->addSeparator();
    m_menu->addAction(quitLabel(), this, &TrayIcon::quit);
    // The label follows the window, whoever showed or hid it.
    connect(m_menu.get(), &QMenu::aboutToShow, this, &TrayIcon::updateMenu);
    connect(m_app, &AppState::snapshotChanged, this, &TrayIcon::updateTooltip);
    updateTooltip();
}

TrayIcon::~TrayIcon() = default;

bool TrayIcon::available() {
    return QSystemTrayIcon::isSystemTrayAvailable();
}

QIcon TrayIcon::icon() {
    QPixmap drawn(drawnIconSize, drawnIconSize);
    drawn.fill(Qt::transparent);
    QPainter painter(&drawn);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(Qt::black);
    painter.setPen(Qt::NoPen);
    painter.drawRoundedRect(QRectF(2, 2, drawnIconSize - 4, drawnIconSize - 4), 10, 10);
    QFont font(QStringLiteral("DejaVu Sans Mono"));
    font.setBold(true);
    font.setPixelSize(drawnIconSize * 2 / 3);
    painter.setFont(font);
    painter.setPen(Qt::white);
    painter.drawText(drawn.rect(), Qt::AlignCenter, QStringLiteral("Q"));
    painter.end();
    return QIcon::fromTheme(QStringLiteral("quillmere"), QIcon(drawn));
}

QString TrayIcon::tooltipFor(int waiting) {
    if (waiting <= 0)
        return QStringLiteral("Quillmere — nothing waiting");
    if (waiting == 1)
        return QStringLiteral("Quillmere — 1 interrupt waiting");
    return QStringLiteral("Quillmere — %1 interrupts waiting").arg(waiting);
}

bool TrayIcon::show() {
    if (!available())
        return false;
    if (!m_tray) {
        m_tray = new QSystemTrayIcon(icon(), this);
        m_tray->setContextMenu(m_menu.get());
        m_tray->setToolTip(m_tooltip);
        // A click on the icon itself does what the first menu entry does.
        connect(m_tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
            if (reason == QSystemTrayIcon::Trigger)
                toggleWindow();
        });
    }
    m_tray->show();
    return true;
}

bool TrayIcon::isShown() const {
    return m_tray && m_tray->isVisible();
}

QRect TrayIcon::iconGeometry() const {
    return m_tray ? m_tray->geometry() : QRect();
}

QString TrayIcon::toggleLabel() const {
    return m_toggle->text();
}

void TrayIcon::toggleWindow() {
    QWindow* window = m_window ? m_window() : nullptr;
    if (!window)
        return;
    const bool showing = window->isVisible() && window->visibility() != QWindow::Minimized;
    if (showing) {
        window->hide();
    } else {
        window->showNormal();
        window->raise();
        window->requestActivate();
    }
    updateMenu();
}

void TrayIcon::quit() {
    // A quit event, which the application's quit sequence catches like any other quit.
    QCoreApplication::postEvent(QCoreApplication::instance(), new QEvent(QEvent::Quit));
}

void TrayIcon::updateTooltip() {
    m_tooltip = tooltipFor(m_app ? int(m_app->snapshot().interrupts.size()) : 0);
    if (m_tray)
        m_tray->setToolTip(m_tooltip);
}

void TrayIcon::updateMenu() {
    QWindow* window = m_window ? m_window() : nullptr;
    const bool showing = window && window->isVisible() && window->visibility() != QWindow::Minimized;
    m_toggle->setText(showing ? hideLabel() : showLabel());
}
