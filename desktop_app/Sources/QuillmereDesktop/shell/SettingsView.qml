import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Dialogs
import QtQuick.Layouts
import Quillmere

// The settings sheet: relay, interrupt queue, window, improve loop, then the way to the
// CLIs, the terminals' start folder and sign-out. Layout only: texts, the schedule and the
// actions come from SettingsViewModel; the rest binds straight to the stores.
ScrollView {
    id: view
    objectName: "settingsView"
    clip: true
    contentWidth: availableWidth

    SettingsViewModel {
        id: vm
        objectName: "settingsViewModel"
        auth: AuthStore
        app: AppState
        Component.onCompleted: loadImprove()
        onDismissRequested: RootController.showSettings = false
    }
    readonly property var labels: vm.labels

    component Small: Text {
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    component Toggle: CheckBox {
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
    }

    ColumnLayout {
        width: view.availableWidth - 8
        spacing: 8

        BannerView { Layout.fillWidth: true; text: labels.relaySection }
        FormField {
            objectName: "relayURLField"
            Layout.fillWidth: true
            text: AuthStore.relayURLString
            placeholderText: labels.relayPlaceholder
            onTextEdited: AuthStore.relayURLString = text
        }
        Small { text: labels.relayNote }
        Small { text: labels.relayEnv; font.bold: true }
        PlainButton {
            objectName: "openConfigurationFolder"
            text: labels.openFolder
            onClicked: vm.openConfigurationFolder()
        }
        Small { text: labels.relayEnvNote }
        PlainButton {
            objectName: "configureProviders"
            text: labels.providers
            onClicked: RootController.showProviderSetup = true
        }
        PlainButton {
            objectName: "manageGatewayKeys"
            text: labels.gatewayKeys
            onClicked: RootController.showGatewayAccess = true
        }
        PlainButton {
            objectName: "manageClassifiers"
            text: "Manage Usage Classifiers…"
            onClicked: RootController.showClassifiers = true
        }
        PlainButton {
            objectName: "managePresets"
            text: labels.presets
            onClicked: RootController.showPresets = true
        }

        BannerView { Layout.fillWidth: true; text: labels.queueSection }
        Toggle {
            objectName: "demoToggle"
            text: labels.demo
            checked: AppState.useMock
            onToggled: AppState.useMock = checked
        }
        ColumnLayout {
            objectName: "hostedRelayFields"
            Layout.fillWidth: true
            visible: vm.showsHostedRelayFields
            spacing: 6
            Small { text: labels.hostedNote }
            LabeledField {
                Layout.fillWidth: true
                fieldObjectName: "baseURLField"
                label: labels.baseURL
                hint: labels.baseURLPlaceholder
                text: AppState.baseURLString
                onEdited: (text) => AppState.baseURLString = text
            }
            LabeledField {
                Layout.fillWidth: true
                fieldObjectName: "tokenField"
                label: labels.token
                hint: labels.tokenPlaceholder
                echoMode: TextInput.Password
                text: AppState.token
                onEdited: (text) => AppState.token = text
            }
            PlainButton {
                objectName: "reconnect"
                text: labels.reconnect
                onClicked: vm.reconnect()
            }
        }

        BannerView { Layout.fillWidth: true; text: labels.windowSection }
        Toggle {
            objectName: "alwaysOnTopToggle"
            text: labels.alwaysOnTop
            checked: AppState.alwaysOnTop
            onToggled: AppState.alwaysOnTop = checked
        }
        Toggle {
            objectName: "notificationsToggle"
            text: DesktopNotifier.settingLabel
            checked: DesktopNotifier.enabled
            onToggled: DesktopNotifier.enabled = checked
        }

        BannerView { Layout.fillWidth: true; text: labels.improveSection }
        Small { text: labels.improveNote }
        Toggle {
            objectName: "improveAutomaticToggle"
            text: labels.improveAutomatic
            enabled: !vm.improveBusy
            checked: vm.improveAutomatic
            onToggled: vm.setImproveAutomatic(checked)
        }
        ComboBox {
            objectName: "improveCadencePicker"
            Layout.fillWidth: true
            enabled: !vm.improveBusy
            font.family: Theme.monoFamily
            font.pixelSize: Theme.bodySize
            model: vm.cadenceChoices
            currentIndex: vm.improveCadenceIndex
            displayText: currentIndex < 0 ? "" : currentText
            onActivated: (index) => vm.setImproveCadenceIndex(index)
            background: Rectangle {
                implicitHeight: 28
                color: Theme.paper
                border.color: Theme.rule
                border.width: 1
            }
        }
        ErrorLine { objectName: "improveError"; text: vm.improveError }

        RuleView { Layout.fillWidth: true }
        PlainButton {
            objectName: "connectCLIs"
            text: labels.connectCLIs
            onClicked: RootController.showOnboarding = true
        }
        LabelText { text: labels.workingDirectory }
        RowLayout {
            Layout.fillWidth: true
            FormField {
                objectName: "workingDirectoryField"
                Layout.fillWidth: true
                text: AppState.terminalWorkingDirectory
                placeholderText: labels.workingDirectoryPlaceholder
                onTextEdited: AppState.terminalWorkingDirectory = text
            }
            PlainButton {
                objectName: "chooseFolder"
                text: labels.chooseFolder
                onClicked: folderDialog.open()
            }
        }
        Small { text: labels.workingDirectoryNote }
        PlainButton {
            objectName: "signOut"
            text: labels.signOut
            onClicked: vm.signOut()
        }
    }

    FolderDialog {
        id: folderDialog
        objectName: "workingDirectoryDialog"
        currentFolder: "file://" + AppState.terminalWorkingDirectory
        // Closing the panel without a choice leaves the folder as it is.
        onAccepted: vm.applyChosenFolder(selectedFolder)
    }
}
