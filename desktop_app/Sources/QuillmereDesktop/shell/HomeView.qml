import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// Is anything waiting for me? Counters, what needs input, suggestions, usage.
ColumnLayout {
    id: home
    spacing: 10
    HomeViewModel {
        id: vm
        app: AppState
        cli: CLIStatusStore
    }

    RowLayout {
        spacing: 24
        Counter { value: vm.running; label: vm.runningLabel }
        Counter { value: vm.done; label: vm.doneLabel }
    }

    Text {
        visible: !vm.hasInterrupts
        text: vm.nothingWaiting
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
        color: Theme.ink
    }
    AlertBoxView {
        objectName: "needInputAlert"
        visible: vm.hasInterrupts
        Layout.fillWidth: true
        text: vm.needInputText
        caret: true
        onInvoked: vm.openQueue()
    }
    OutlinedBox {
        visible: vm.hasInterrupts
        Layout.fillWidth: true
        ColumnLayout {
            width: parent.width
            spacing: 4
            Repeater {
                model: vm.rows
                delegate: Text {
                    required property string modelData
                    text: modelData
                    font.family: Theme.monoFamily
                    font.pixelSize: Theme.bodySize
                    color: Theme.ink
                }
            }
            PlainButton { text: vm.openQueueLabel; onClicked: vm.openQueue() }
        }
    }

    // Open suggestions lead to the improve sheet.
    PlainButton {
        objectName: "suggestionsButton"
        visible: vm.showsSuggestions
        text: vm.suggestionText
        onClicked: RootController.showImprove = true
    }
    Text {
        visible: vm.showsConnectPrompt
        text: vm.connectPrompt
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        color: Theme.ink
        opacity: Theme.secondaryOpacity
    }

    BannerView { text: vm.usageBanner; Layout.fillWidth: true }
    UsageRow { name: vm.claudeName; value: vm.claudeUsageText; Layout.fillWidth: true }
    UsageRow { name: vm.codexName; value: vm.codexUsageText; Layout.fillWidth: true }
    Item { Layout.fillHeight: true }

    component Counter: Column {
        property int value
        property string label
        Text {
            text: parent.value
            font.family: Theme.monoFamily
            font.pixelSize: 28
            font.bold: true
            color: Theme.ink
        }
        LabelText { text: parent.label }
    }

    component UsageRow: RowLayout {
        property string name
        property string value
        Text {
            text: parent.name
            font.family: Theme.monoFamily
            font.pixelSize: Theme.labelSize
            font.bold: true
            color: Theme.ink
        }
        Item { Layout.fillWidth: true }
        Text {
            text: parent.value
            font.family: Theme.monoFamily
            font.pixelSize: Theme.labelSize
            color: Theme.ink
        }
    }
}
