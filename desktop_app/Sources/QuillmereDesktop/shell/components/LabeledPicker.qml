import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// A small label over a drop-down of texts; `display` may show each choice differently.
ColumnLayout {
    id: picker
    property alias label: pickerLabel.text
    property var model: []
    property var display: function(value) { return value }
    property string value
    signal picked(string value)
    spacing: 2
    LabelText { id: pickerLabel }
    ComboBox {
        Layout.fillWidth: true
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
        model: picker.model.map(picker.display)
        currentIndex: Math.max(0, picker.model.indexOf(picker.value))
        onActivated: function(index) { picker.picked(picker.model[index]) }
        background: Rectangle {
            implicitHeight: 28
            color: Theme.paper
            border.color: Theme.rule
            border.width: 1
        }
    }
}
