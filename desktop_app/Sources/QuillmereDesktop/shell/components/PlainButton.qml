import QtQuick
import Quillmere
import QtQuick.Controls.Basic
import QtQuick.Layouts

// A flat button in the palette: outlined, monospaced, inverted while pressed.
Button {
    id: button
    property bool busy: false
    // Shown inverted, as a chosen tab is.
    property bool selected: false
    padding: 6
    font.family: Theme.monoFamily
    font.pixelSize: Theme.bodySize
    background: Rectangle {
        color: button.down || button.selected ? Theme.ink : Theme.paper
        border.color: Theme.rule
        border.width: 1
        opacity: button.enabled ? 1 : 0.4
    }
    contentItem: RowLayout {
        spacing: 6
        BusyIndicator {
            visible: button.busy
            running: button.busy
            implicitWidth: 14
            implicitHeight: 14
        }
        Text {
            text: button.text
            font: button.font
            color: button.down || button.selected ? Theme.paper : Theme.ink
            opacity: button.enabled ? 1 : 0.6
        }
    }
}
