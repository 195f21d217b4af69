import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Dialogs
import QtQuick.Layouts
import Quillmere

// The working-folder picker: the relay's projects, "Choose Folder…", and the line that says
// the drawer's shells still run in another folder. Layout only: ProjectPickerViewModel
// decides every text and action.
ColumnLayout {
    id: picker
    spacing: 2
    // Given by the root view: new shells in the present folder.
    signal restartTerminals()

    ProjectPickerViewModel {
        id: vm
        objectName: "projectPickerViewModel"
        app: AppState
        auth: AuthStore
        store: ProjectStore
        drawer: TerminalDrawerController
        Component.onCompleted: load()
    }

    RowLayout {
        spacing: 6
        LabelText { text: vm.labels.project }
        PlainButton {
            id: menuButton
            objectName: "projectMenuButton"
            Layout.maximumWidth: 220
            text: vm.currentLabel
            contentItem: Text {
                text: menuButton.text + " ▾"
                font: menuButton.font
                color: Theme.ink
                elide: Text.ElideMiddle
                maximumLineCount: 1
            }
            onClicked: menu.open()
        }
    }

    Popup {
        id: menu
        objectName: "projectMenu"
        y: menuButton.y + menuButton.height + 4
        width: 280
        padding: 6
        background: Rectangle { color: Theme.paper; border.color: Theme.rule; border.width: 1 }
        contentItem: ColumnLayout {
            spacing: 2
            Text {
                visible: !vm.hasProjects
                text: vm.labels.noProjects
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                color: Theme.ink
                opacity: Theme.secondaryOpacity
            }
            ListView {
                objectName: "projectRows"
                visible: vm.hasProjects
                Layout.fillWidth: true
                Layout.preferredHeight: Math.min(count, vm.visibleRows) * 22
                clip: true
                model: vm.rows
                ScrollBar.vertical: ScrollBar {}
                delegate: ItemDelegate {
                    required property var modelData
                    width: ListView.view.width
                    height: 22
                    padding: 2
                    contentItem: Text {
                        text: modelData.label
                        font.family: Theme.monoFamily
                        font.pixelSize: Theme.bodySize
                        color: Theme.ink
                        elide: Text.ElideRight
                    }
                    onClicked: { menu.close(); vm.select(modelData.path) }
                }
            }
            RuleView { Layout.fillWidth: true }
            PlainButton {
                objectName: "chooseFolder"
                Layout.fillWidth: true
                text: vm.labels.chooseFolder
                onClicked: { menu.close(); folderDialog.open() }
            }
        }
    }

    RowLayout {
        visible: vm.terminalNotice.length > 0
        spacing: 6
        Text {
            objectName: "terminalNotice"
            text: vm.terminalNotice
            font.family: Theme.monoFamily
            font.pixelSize: Theme.labelSize
            color: Theme.ink
        }
        PlainButton {
            objectName: "restartHere"
            text: vm.labels.restart
            ToolTip.text: vm.labels.restartHelp
            ToolTip.visible: hovered
            ToolTip.delay: 500
            onClicked: picker.restartTerminals()
        }
    }

    FolderDialog {
        id: folderDialog
        title: vm.labels.dialogMessage
        acceptLabel: vm.labels.dialogAccept
        currentFolder: "file://" + vm.workingDirectory
        onAccepted: vm.folderChosen(selectedFolder)
    }
}
