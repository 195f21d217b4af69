import QtQuick
import Quillmere
import QtQuick.Window

// Keeps its window above the others while `alwaysOnTop` is true, and reports the window
// (the drawer is laid out against it).
Item {
    id: configurator
    property bool alwaysOnTop: true
    signal resolved(var window)
    visible: false
    readonly property var window: Window.window

    function apply() {
        if (!window)
            return
        const base = window.flags & ~Qt.WindowStaysOnTopHint
        window.flags = alwaysOnTop ? (base | Qt.WindowStaysOnTopHint) : base
        // The drawer floats with its main window.
        TerminalDrawerController.followMainWindow()
    }
    onWindowChanged: { apply(); if (window) resolved(window) }
    onAlwaysOnTopChanged: apply()
    Component.onCompleted: { apply(); if (window) resolved(window) }
}
