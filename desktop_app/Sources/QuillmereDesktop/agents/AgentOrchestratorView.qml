import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The orchestrator: the composer (lane, preset, permission boundary, prompt, context) and
// the list of runs with their output. Layout only: AgentOrchestratorViewModel decides.
RowLayout {
    id: view
    objectName: "agentOrchestratorView"
    spacing: 12

    AgentOrchestratorViewModel {
        id: vm
        objectName: "agentOrchestratorViewModel"
        app: AppState
        auth: AuthStore
        cli: CLIStatusStore
        store: AgentRunStore
        Component.onCompleted: load()
    }
    readonly property var labels: vm.labels

    component Body: Text {
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    component Note: Text {
        color: Theme.ink
        opacity: Theme.secondaryOpacity
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }

    ColumnLayout {
        // The composer keeps a fixed width; the run list takes the rest.
        Layout.preferredWidth: 360
        Layout.maximumWidth: 360
        Layout.fillWidth: false
        Layout.fillHeight: true
        spacing: 6
        LabelText { objectName: "activeLine"; text: vm.activeLine }
        LabelText { text: labels.lane }
        ComboBox {
            objectName: "lanePicker"
            Layout.fillWidth: true
            model: vm.lanes
            textRole: "label"
            valueRole: "value"
            font.family: Theme.monoFamily
            currentIndex: Math.max(0, indexOfValue(vm.selectedLane))
            onActivated: vm.selectedLane = currentValue
        }
        Note { text: vm.laneExplanation }
        LabelText { visible: vm.selectedLane === "api"; text: labels.preset }
        ComboBox {
            objectName: "presetPicker"
            visible: vm.selectedLane === "api"
            Layout.fillWidth: true
            model: vm.presetOptions
            textRole: "label"
            valueRole: "value"
            font.family: Theme.monoFamily
            currentIndex: Math.max(0, indexOfValue(vm.selectedPreset))
            onActivated: vm.selectedPreset = currentValue
        }
        Note { visible: vm.selectedLane === "api"; text: vm.presetNote }
        LabelText { text: labels.safety }
        ComboBox {
            objectName: "safetyPicker"
            Layout.fillWidth: true
            enabled: vm.selectedLane !== "api"
            model: vm.safeties
            font.family: Theme.monoFamily
            currentIndex: Math.max(0, model.indexOf(vm.safety))
            onActivated: vm.safety = currentText
        }
        Note { text: vm.safetyNote }
        TextArea {
            objectName: "promptEditor"
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.minimumHeight: 120
            wrapMode: TextEdit.Wrap
            text: vm.prompt
            font.family: Theme.monoFamily
            font.pixelSize: Theme.bodySize
            background: Rectangle { border.color: Theme.rule; border.width: 1; color: Theme.paper }
            onTextChanged: if (text !== vm.prompt) vm.prompt = text
        }
        CheckBox {
            objectName: "includeContext"
            text: labels.includeContext
            checked: vm.includeContext
            onToggled: vm.includeContext = checked
        }
        PlainButton {
            objectName: "launchButton"
            text: vm.launchLabel
            enabled: vm.canLaunch
            busy: vm.isPreparing
            onClicked: vm.launch()
        }
        Body { visible: vm.atLimit; text: labels.limit }
        ErrorLine { objectName: "orchestratorError"; text: vm.errorMessage }
    }

    RuleView { Layout.fillHeight: true; implicitWidth: 1 }

    ColumnLayout {
        Layout.fillWidth: true
        Layout.minimumWidth: 400
        Layout.fillHeight: true
        Text {
            objectName: "runsHeading"
            text: vm.runsHeading
            font.family: Theme.monoFamily
            font.pixelSize: Theme.bodySize
            font.bold: true
            color: Theme.ink
        }
        Body { visible: vm.runCards.length === 0; text: labels.noRuns }
        ListView {
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            spacing: 8
            model: vm.runCards
            delegate: OutlinedBox {
                required property var modelData
                width: ListView.view.width
                ColumnLayout {
                    width: parent.width
                    RowLayout {
                        Layout.fillWidth: true
                        Rectangle {
                            implicitWidth: 10
                            implicitHeight: 10
                            radius: 5
                            border.color: Theme.ink
                            color: modelData.filled ? Theme.ink : Theme.paper
                        }
                        Body { text: modelData.title; Layout.fillWidth: true }
                        LabelText { text: modelData.status }
                        PlainButton {
                            visible: modelData.canCancel
                            text: labels.cancel
                            onClicked: vm.cancel(modelData.id)
                        }
                    }
                    RowLayout {
                        visible: modelData.working
                        BusyIndicator { running: modelData.working; implicitWidth: 14; implicitHeight: 14 }
                        LabelText { text: labels.working }
                    }
                    LabelText { visible: modelData.output.length > 0; text: modelData.outputHeading }
                    TextEdit {
                        visible: modelData.output.length > 0
                        Layout.fillWidth: true
                        readOnly: true
                        selectByMouse: true
                        wrapMode: TextEdit.Wrap
                        text: modelData.output
                        font.family: Theme.monoFamily
                        font.pixelSize: Theme.labelSize
                        color: Theme.ink
                    }
                    PlainButton {
                        visible: modelData.output.length > 0
                        text: labels.copy
                        onClicked: vm.copyOutput(modelData.id)
                    }
                }
            }
        }
    }
}
