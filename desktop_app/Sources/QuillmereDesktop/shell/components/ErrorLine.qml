import QtQuick
import Quillmere
import QtQuick.Layouts

// One line of error text, shown only when there is an error.
Text {
    visible: text.length > 0
    Layout.fillWidth: true
    wrapMode: Text.Wrap
    color: Theme.ink
    font.family: Theme.monoFamily
    font.pixelSize: Theme.bodySize
    font.bold: true
}
