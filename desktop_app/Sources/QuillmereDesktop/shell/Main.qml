import QtQuick
import QtQuick.Window

Window {
    width: 320
    height: 480
    visible: true
    title: "Quillmere"
}
