import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// What waits, oldest first; a row opens its interrupt.
ColumnLayout {
    spacing: 8
    QueueViewModel {
        id: vm
        app: AppState
    }

    RowLayout {
        Layout.fillWidth: true
        PlainButton { text: vm.homeLabel; onClicked: vm.back() }
        Item { Layout.fillWidth: true }
    }
    BannerView { text: vm.banner; Layout.fillWidth: true }

    Text {
        visible: vm.isEmpty
        text: vm.emptyText
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
        color: Theme.ink
    }

    ListView {
        objectName: "queueList"
        Layout.fillWidth: true
        Layout.fillHeight: true
        clip: true
        spacing: 6
        model: vm
        delegate: Button {
            id: row
            required property string interruptId
            required property string title
            required property string subtitle
            width: ListView.view.width
            padding: 8
            onClicked: vm.select(interruptId)
            background: Rectangle {
                color: row.down ? Qt.rgba(0, 0, 0, 0.08) : Theme.paper
                border.color: Theme.rule
                border.width: 1
            }
            contentItem: Column {
                spacing: 2
                Text {
                    text: row.title
                    font.family: Theme.monoFamily
                    font.pixelSize: Theme.bodySize
                    font.bold: true
                    color: Theme.ink
                }
                Text {
                    text: row.subtitle
                    font.family: Theme.monoFamily
                    font.pixelSize: Theme.labelSize
                    color: Theme.ink
                    opacity: Theme.secondaryOpacity
                }
            }
        }
    }
}
