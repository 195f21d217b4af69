import QtQuick
import Quillmere

// A thin horizontal line.
Rectangle {
    implicitHeight: 1
    color: Theme.rule
}
