import QtQuick
import Quillmere
import QtQuick.Layouts

// A section heading across the width, with a rule under it.
ColumnLayout {
    property string text
    spacing: 2
    Text {
        text: parent.text
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        font.bold: true
        font.letterSpacing: 1
        font.capitalization: Font.AllUppercase
    }
    RuleView { Layout.fillWidth: true }
}
