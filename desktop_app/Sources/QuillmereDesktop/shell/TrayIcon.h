#pragma once

#include "QuillmereDesktop/queue/AppState.h"

#include <QIcon>
#include <QObject>
#include <QPointer>
#include <QWindow>

#include <functional>
#include <memory>

class QAction;
class QMenu;
class QSystemTrayIcon;

// The icon in the desktop's tray: its tooltip counts the waiting interrupts, and its menu
// shows or hides the window and quits. Where the desktop has no tray there is no icon,
// and the window is the only way in.
class TrayIcon : public QObject {
    Q_OBJECT

public:
    // Finds the window when it is needed: it is made after the tray.
    TrayIcon(AppState& app, std::function<QWindow*()> window, QObject* parent = nullptr);
    ~TrayIcon() override;

    // Whether this desktop shows tray icons at all.
    static bool available();
    // The icon of the tray and the window: the installed theme's, else one drawn here.
    static QIcon icon();
    static QString tooltipFor(int waiting);
    static QString showLabel() { return QStringLiteral("Show Quillmere"); }
    static QString hideLabel() { return QStringLiteral("Hide Quillmere"); }
    static QString quitLabel() { return QStringLiteral("Quit"); }

    // Puts the icon in the tray where there is one; false where there is none.
    bool show();
    bool isShown() const;
    // Where the tray drew the icon, on the screen; empty until a tray has taken it.
    QRect iconGeometry() const;
    QString tooltip() const { return m_tooltip; }
    QMenu* menu() const { return m_menu.get(); }
    // The first menu entry's text: what pressing it will do to the window.
    QString toggleLabel() const;

    // Shows a hidden or minimised window, or hides a visible one.
    void toggleWindow();
    // Asks the application to quit, through its usual quit sequence.
    static void quit();

private:
    void updateTooltip();
    void updateMenu();

    QPointer<AppState> m_app;
    std::function<QWindow*()> m_window;
    std::unique_ptr<QMenu> m_menu;
    QAction* m_toggle = nullptr;
    QSystemTrayIcon* m_tray = nullptr;
    QString m_tooltip;
};
