import QtQuick
import QtQuick.Window
import Quillmere

// The one window of the application.
Window {
    width: 320
    height: 480
    visible: true
    title: "Quillmere"
    color: Theme.paper
    RootView { anchors.fill: parent }
}
