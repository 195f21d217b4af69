import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// Agent presets: the list with each preset's history, rollback and delete, and the editor
// in place of the list while it is open. Layout only: the rules are in the view-models.
ScrollView {
    id: view
    objectName: "presetManagementView"
    clip: true
    contentWidth: availableWidth

    PresetManagementViewModel {
        id: vm
        objectName: "presetManagementViewModel"
        auth: AuthStore
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

    // One child, so that the view scrolls the list or the editor, whichever is shown: a
    // scroll view sizes its content from a single child only.
    Column {
        width: view.availableWidth

        ColumnLayout {
            width: view.availableWidth
            spacing: 6
            visible: vm.editor === null

            LabelText { text: labels.subtitle }
            Body { text: labels.intro }
            ErrorLine { objectName: "presetError"; text: vm.errorMessage }
            PlainButton { objectName: "createPreset"; text: labels.create; onClicked: vm.openEditor("") }
            Body { visible: !vm.hasPresets && !vm.working; text: labels.empty; font.bold: true }
            Repeater {
                model: vm.cards
                delegate: OutlinedBox {
                    id: card
                    required property var modelData
                    Layout.fillWidth: true
                    ColumnLayout {
                        width: parent.width
                        RowLayout {
                            Layout.fillWidth: true
                            Body { text: modelData.reference + "  " + modelData.version; font.bold: true }
                        }
                        Body { text: modelData.summary }
                        RowLayout {
                            PlainButton { text: labels.edit; enabled: !vm.working; onClicked: vm.openEditor(modelData.slug) }
                            PlainButton { text: labels.delete; enabled: !vm.working; onClicked: vm.remove(modelData.slug) }
                        }
                        LabelText { text: labels.history }
                        Repeater {
                            model: modelData.history
                            delegate: RowLayout {
                                required property var modelData
                                Body { text: modelData.label; Layout.fillWidth: false }
                                PlainButton {
                                    visible: !modelData.active
                                    enabled: !vm.working
                                    text: modelData.action
                                    onClicked: vm.designate(card.modelData.slug, modelData.version)
                                }
                            }
                        }
                    }
                }
            }
        }

        Loader {
            width: view.availableWidth
            active: vm.editor !== null
            sourceComponent: PresetEditorView {
                editor: vm.editor
                onCancelled: vm.closeEditor()
            }
        }
    }
}
