import QtQuick
import Quillmere

// A small monospaced label over a value or a field.
Text {
    color: Theme.ink
    opacity: Theme.secondaryOpacity
    font.family: Theme.monoFamily
    font.pixelSize: Theme.labelSize
    font.letterSpacing: 1
}
