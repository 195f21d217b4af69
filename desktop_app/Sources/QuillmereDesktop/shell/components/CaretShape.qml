import QtQuick
import Quillmere
import QtQuick.Shapes

// A small caret pointing right.
Shape {
    implicitWidth: 6
    implicitHeight: 10
    ShapePath {
        strokeColor: Theme.ink
        strokeWidth: 1.5
        fillColor: "transparent"
        startX: 0; startY: 0
        PathLine { x: 6; y: 5 }
        PathLine { x: 0; y: 10 }
    }
}
