import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The person's own API lanes: one card per lane with its actions, the form of a lane while
// one is open, and the notes on where keys live. Layout only: texts and rules come from
// ProviderSetupViewModel and ProviderEditorViewModel.
ScrollView {
    id: view
    objectName: "providerSetupView"
    clip: true
    contentWidth: availableWidth

    ProviderSetupViewModel {
        id: vm
        objectName: "providerSetupViewModel"
        auth: AuthStore
        store: ProviderConfigurationStore
    }
    readonly property var labels: vm.labels

    component Small: Text {
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }

    ColumnLayout {
        width: view.availableWidth - 8
        spacing: 10

        Small { text: view.labels.subtitle; font.bold: true }
        OutlinedBox {
            objectName: "providerMessage"
            visible: vm.message.length > 0 || vm.isApplying
            Layout.fillWidth: true
            ErrorLine { width: parent.width; text: vm.isApplying ? view.labels.applying : vm.message }
        }

        // The form, in place of the list while it is open.
        ProviderEditorView {
            visible: vm.editor !== null
            Layout.fillWidth: true
            editor: vm.editor
            onCancelled: vm.closeEditor()
        }

        ColumnLayout {
            visible: vm.editor === null
            Layout.fillWidth: true
            spacing: 8
            PlainButton {
                objectName: "addProvider"
                text: view.labels.add
                enabled: !vm.isApplying
                onClicked: vm.addProvider()
            }
            Small { objectName: "noProviders"; visible: !vm.hasProfiles; text: view.labels.empty }
            Repeater {
                model: vm.profileCards
                OutlinedBox {
                    required property var modelData
                    Layout.fillWidth: true
                    ColumnLayout {
                        width: parent.width
                        spacing: 2
                        RowLayout {
                            Layout.fillWidth: true
                            Text {
                                Layout.fillWidth: true
                                text: modelData.displayName + " · " + modelData.provider
                                font.family: Theme.monoFamily
                                font.pixelSize: Theme.bodySize
                                font.bold: true
                                color: Theme.ink
                                elide: Text.ElideRight
                            }
                            Small { visible: modelData.isZDR; text: view.labels.zdr; font.bold: true; Layout.fillWidth: false }
                        }
                        Small { text: modelData.protocolName + " · " + modelData.id }
                        Small { text: modelData.sizeText }
                        Small {
                            text: modelData.keyStored ? view.labels.keyStored : view.labels.keyMissing
                            opacity: Theme.secondaryOpacity
                        }
                        RowLayout {
                            PlainButton { text: view.labels.edit; enabled: !vm.isApplying; onClicked: vm.editProvider(modelData.id) }
                            PlainButton {
                                text: modelData.isProbing ? view.labels.testing : view.labels.test
                                busy: modelData.isProbing
                                enabled: vm.probingModel.length === 0
                                onClicked: vm.testProvider(modelData.id)
                            }
                            PlainButton { text: view.labels["delete"]; enabled: !vm.isApplying; onClicked: vm.deleteProvider(modelData.id) }
                        }
                        Small { visible: modelData.probeMessage.length > 0; text: modelData.probeMessage; font.bold: true }
                    }
                }
            }
        }

        RuleView { Layout.fillWidth: true }
        Small { text: view.labels.securityNote; opacity: Theme.secondaryOpacity }
        Small { text: view.labels.testingNote; opacity: Theme.secondaryOpacity }
    }
}
