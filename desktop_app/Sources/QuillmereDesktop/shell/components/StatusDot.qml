import QtQuick
import Quillmere

// "ONLINE" or "OFFLINE" with a dot; the two states swap ink and paper.
Rectangle {
    id: dot
    property bool online: false
    readonly property string word: online ? "ONLINE" : "OFFLINE"
    implicitWidth: row.implicitWidth + 10
    implicitHeight: row.implicitHeight + 4
    color: online ? Theme.ink : Theme.paper
    border.color: Theme.ink
    border.width: 1
    Row {
        id: row
        anchors.centerIn: parent
        spacing: 4
        Rectangle {
            width: 6; height: 6; radius: 3
            anchors.verticalCenter: parent.verticalCenter
            color: dot.online ? Theme.paper : Theme.ink
        }
        Text {
            text: dot.word
            color: dot.online ? Theme.paper : Theme.ink
            font.family: Theme.monoFamily
            font.pixelSize: Theme.labelSize
            font.bold: true
        }
    }
}
