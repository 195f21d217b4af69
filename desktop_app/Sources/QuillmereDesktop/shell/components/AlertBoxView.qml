import QtQuick
import Quillmere
import QtQuick.Controls.Basic
import QtQuick.Layouts

// A line that demands attention; pressing it runs its action, if it has one.
Button {
    id: box
    property bool caret: false
    signal invoked()
    onClicked: invoked()
    padding: Theme.spacing
    background: Rectangle {
        color: box.down ? Qt.rgba(0, 0, 0, 0.08) : Theme.paper
        border.color: Theme.ink
        border.width: 2
    }
    contentItem: RowLayout {
        spacing: Theme.spacing
        Text {
            Layout.fillWidth: true
            text: box.text
            color: Theme.ink
            font.family: Theme.monoFamily
            font.pixelSize: Theme.bodySize
            font.bold: true
            wrapMode: Text.Wrap
        }
        CaretShape { visible: box.caret }
    }
}
