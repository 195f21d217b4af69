import QtQuick
import QtQuick.Controls.Basic
import Quillmere

// One of the top bar's panel buttons: a symbol that opens a sheet, with its help as a
// tool tip and a keyboard shortcut that works anywhere in the main window.
PlainButton {
    id: button
    property string help: ""
    property string shortcut: ""
    padding: 3
    ToolTip.visible: hovered && help.length > 0
    ToolTip.text: shortcut.length > 0 ? help + " (" + shortcut + ")" : help
    Shortcut {
        sequence: button.shortcut
        enabled: button.shortcut.length > 0 && button.enabled && button.visible
        onActivated: button.clicked()
    }
}
