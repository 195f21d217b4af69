#pragma once

#include "QuillmereDesktop/common/QmlSingleton.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QWindow>
#include <QtQml/qqmlregistration.h>

#include <functional>
#include <memory>
#include <optional>

// The terminal drawer: a second, borderless window glued to the main window's left edge,
// made once and then only shown and hidden, so its two shells keep running (and recording)
// while it is out of sight. Made once by the application entry.
class TerminalDrawerController : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(bool isOpen READ isOpen NOTIFY isOpenChanged)
    Q_PROPERTY(QString toggleLabel READ toggleLabel NOTIFY isOpenChanged)
    Q_PROPERTY(QString toggleHelp READ toggleHelp CONSTANT)
    Q_PROPERTY(QString toggleShortcut READ toggleShortcut CONSTANT)

public:
    static TerminalDrawerController* create(QQmlEngine* qml, QJSEngine* js) {
        return QmlSingleton<TerminalDrawerController>::create(qml, js);
    }

    // Makes the drawer's window with its content; called only when there is none.
    using BuildContent = std::function<QWindow*()>;

    // No default constructor on purpose: QML would make a drawer of its own with it, instead
    // of asking `create` for the application's one.
    explicit TerminalDrawerController(QObject* parent);
    ~TerminalDrawerController() override;

    bool isOpen() const { return m_isOpen; }
    QWindow* mainWindow() const { return m_mainWindow; }
    QWindow* panel() const { return m_panel.get(); }
    const std::optional<QString>& sessionDirectory() const { return m_sessionDirectory; }
    void setSessionDirectory(std::optional<QString> directory);
    // How many times content was built, for tests of the drawer's one-time construction.
    int contentBuilds() const { return m_contentBuilds; }

    QString toggleLabel() const { return m_isOpen ? QStringLiteral("▶") : QStringLiteral("◀"); }
    static QString toggleHelp() { return QStringLiteral("Toggle terminal (Ctrl+`)"); }
    static QString toggleShortcut() { return QStringLiteral("Ctrl+`"); }

    // Shows the drawer, building its content first if there is no panel yet.
    void open(const BuildContent& buildContent);
    // Closes when open, opens otherwise.
    void toggle(const BuildContent& buildContent);
    // Ends both terminals and their sessions: the next open builds new ones.
    void discardSessions();

    // Lays the panel out against the main window again, and copies its on-top state.
    Q_INVOKABLE void followMainWindow();
    // The root view's window, once it exists.
    Q_INVOKABLE void setMainWindow(QWindow* window);

public slots:
    // Hides the drawer; the panel, its shells and their sessions stay.
    void close();

signals:
    void isOpenChanged();
    // The shells now run in another folder, or no longer run.
    void sessionDirectoryChanged();
    // The panel is about to be released, with its terminals (their sessions end).
    void panelDiscarding(QWindow* panel);

private:
    void layout();
    void setOpen(bool open);

    QPointer<QWindow> m_mainWindow;
    std::unique_ptr<QWindow> m_panel;
    std::optional<QString> m_sessionDirectory;
    QMetaObject::Connection m_moveX;
    QMetaObject::Connection m_moveY;
    QMetaObject::Connection m_resize;
    bool m_observing = false;
    bool m_isOpen = false;
    int m_contentBuilds = 0;
};
