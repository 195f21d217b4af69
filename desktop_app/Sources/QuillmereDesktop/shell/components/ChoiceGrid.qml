import QtQuick
import QtQuick.Layouts
import Quillmere

// A grid of toggles, one per choice, inverted while chosen; an empty grid says so.
ColumnLayout {
    id: grid
    property var choices: []
    property var chosen: []
    property string emptyText: "NO CONFIGURED VALUES"
    property var display: function(value) { return value.toUpperCase() }
    signal toggled(string value)
    spacing: 4
    Text {
        visible: grid.choices.length === 0
        text: grid.emptyText
        color: Theme.ink
        opacity: Theme.secondaryOpacity
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
    }
    Flow {
        Layout.fillWidth: true
        spacing: 4
        Repeater {
            model: grid.choices
            PlainButton {
                required property string modelData
                text: grid.display(modelData)
                selected: grid.chosen.indexOf(modelData) >= 0
                onClicked: grid.toggled(modelData)
            }
        }
    }
}
