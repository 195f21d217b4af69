import QtQuick
import Quillmere

// Its content inside a thin border.
Rectangle {
    default property alias content: inner.data
    property int padding: Theme.spacing
    color: "transparent"
    border.color: Theme.rule
    border.width: 1
    implicitWidth: inner.childrenRect.width + 2 * padding
    implicitHeight: inner.childrenRect.height + 2 * padding
    Item {
        id: inner
        x: parent.padding
        y: parent.padding
        width: parent.width - 2 * parent.padding
        height: childrenRect.height
    }
}
