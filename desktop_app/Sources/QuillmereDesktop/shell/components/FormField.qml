import QtQuick
import Quillmere
import QtQuick.Controls.Basic

// A plain, outlined text field in the palette.
TextField {
    font.family: Theme.monoFamily
    font.pixelSize: Theme.bodySize
    color: Theme.ink
    placeholderTextColor: Qt.rgba(0, 0, 0, 0.4)
    selectByMouse: true
    background: Rectangle {
        color: Theme.paper
        border.color: Theme.rule
        border.width: 1
    }
}
