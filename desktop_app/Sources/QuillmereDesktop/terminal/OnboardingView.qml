import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The first-run sheet: what is missing of the two CLIs, the way to the terminal drawer,
// and a refresh. Layout only: texts and states come from OnboardingViewModel.
ColumnLayout {
    id: view
    objectName: "onboardingView"
    spacing: 10
    signal closeRequested()
    signal openTerminalRequested()

    OnboardingViewModel {
        id: vm
        objectName: "onboardingViewModel"
        cli: CLIStatusStore
        auth: AuthStore
        Component.onCompleted: appear()
    }
    readonly property var labels: vm.labels

    component StatusRow: RowLayout {
        property string name
        property string status
        property bool connected
        Layout.fillWidth: true
        Text {
            text: name
            color: Theme.ink
            font.family: Theme.monoFamily
            font.pixelSize: Theme.bodySize
            Layout.fillWidth: true
        }
        // A filled mark for a connected tool, a hollow one otherwise.
        Rectangle {
            width: 8; height: 8; radius: 4
            color: connected ? Theme.ink : Theme.paper
            border.color: Theme.ink
            border.width: 1
        }
        Text {
            text: status
            color: Theme.ink
            font.family: Theme.monoFamily
            font.pixelSize: Theme.labelSize
            font.bold: true
        }
    }

    RowLayout {
        Layout.fillWidth: true
        Text {
            text: labels.heading
            color: Theme.ink
            font.family: Theme.monoFamily
            font.pixelSize: Theme.titleSize
            font.bold: true
            Layout.fillWidth: true
        }
        PlainButton {
            objectName: "onboardingClose"
            text: labels.close
            onClicked: view.closeRequested()
        }
    }
    RuleView { Layout.fillWidth: true }
    Text {
        text: labels.intro
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    StatusRow {
        objectName: "claudeRow"
        name: labels.claude
        status: vm.claudeStatus
        connected: vm.claudeConnected
    }
    StatusRow {
        objectName: "codexRow"
        name: labels.codex
        status: vm.codexStatus
        connected: vm.codexConnected
    }
    PlainButton {
        objectName: "openTerminal"
        text: labels.openTerminal
        onClicked: view.openTerminalRequested()
    }
    PlainButton {
        objectName: "refreshStatus"
        text: vm.refreshLabel
        busy: vm.isRefreshing
        enabled: !vm.isRefreshing
        onClicked: vm.refresh()
    }
    Item { Layout.fillHeight: true }
}
