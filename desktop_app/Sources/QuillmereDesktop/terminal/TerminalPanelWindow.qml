import QtQuick
import QtQuick.Window
import Quillmere

// The drawer's own window: borderless, beside the main window, taking the keyboard.
Window {
    id: drawerWindow
    required property TerminalPanelViewModel panel
    flags: Qt.Window | Qt.FramelessWindowHint
    title: "Quillmere terminal"
    color: Theme.paper
    TerminalPanelView {
        anchors.fill: parent
        panel: drawerWindow.panel
    }
}
