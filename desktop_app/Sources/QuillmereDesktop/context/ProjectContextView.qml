import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The project context screen: detected guides, saved items, a new note and the pack
// preview. Layout only: every text, rule and relay call is in ProjectContextViewModel.
ScrollView {
    id: view
    objectName: "projectContextView"
    clip: true
    contentWidth: availableWidth

    ProjectContextViewModel {
        id: vm
        objectName: "projectContextViewModel"
        app: AppState
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
    component Heading: Text {
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
        font.bold: true
        Layout.topMargin: 8
    }

    ColumnLayout {
        width: view.availableWidth
        spacing: 6

        Body { objectName: "explicitNote"; text: labels.explicit; font.pixelSize: Theme.labelSize }
        ErrorLine { objectName: "contextError"; text: vm.errorMessage }

        RowLayout {
            Layout.fillWidth: true
            Heading { text: labels.guidesHeading }
            Item { Layout.fillWidth: true }
            LabelText { objectName: "syncedCount"; text: vm.syncedCountLine }
        }
        Body { visible: vm.guideRows.length === 0; text: labels.noGuides }
        Repeater {
            model: vm.guideRows
            delegate: RowLayout {
                required property var modelData
                Layout.fillWidth: true
                Body { text: (modelData.synced ? "✓ " : "○ ") + modelData.path; Layout.fillWidth: true }
                LabelText { text: modelData.chars }
            }
        }
        PlainButton {
            objectName: "syncGuides"
            text: labels.sync
            enabled: !vm.isWorking && !vm.isLoading && vm.guideRows.length > 0
            busy: vm.isWorking
            onClicked: vm.syncGuides()
        }

        RuleView { Layout.fillWidth: true }
        Heading { objectName: "itemsHeading"; text: vm.itemsHeading }
        Body { visible: vm.itemRows.length === 0; text: labels.noItems }
        Repeater {
            model: vm.itemRows
            delegate: OutlinedBox {
                required property var modelData
                Layout.fillWidth: true
                ColumnLayout {
                    width: parent.width
                    RowLayout {
                        Layout.fillWidth: true
                        Body { text: modelData.title; font.bold: true; Layout.fillWidth: true }
                        PlainButton { text: labels.delete; onClicked: vm.requestDelete(modelData.id) }
                    }
                    Body { text: modelData.content; maximumLineCount: 6; elide: Text.ElideRight }
                }
            }
        }

        RuleView { Layout.fillWidth: true }
        Heading { text: labels.noteHeading }
        TextField {
            objectName: "noteTitle"
            Layout.fillWidth: true
            placeholderText: labels.noteTitleHint
            text: vm.noteTitle
            font.family: Theme.monoFamily
            font.pixelSize: Theme.bodySize
            onTextEdited: vm.noteTitle = text
        }
        TextArea {
            objectName: "noteContent"
            Layout.fillWidth: true
            Layout.preferredHeight: 80
            text: vm.noteContent
            wrapMode: TextEdit.Wrap
            font.family: Theme.monoFamily
            font.pixelSize: Theme.bodySize
            background: Rectangle { border.color: Theme.rule; border.width: 1; color: Theme.paper }
            onTextChanged: if (text !== vm.noteContent) vm.noteContent = text
        }
        PlainButton {
            objectName: "addNote"
            text: labels.add
            enabled: vm.canAddNote && !vm.isWorking && !vm.isLoading
            onClicked: vm.addNote()
        }

        RuleView { Layout.fillWidth: true }
        Heading { text: labels.packHeading }
        RowLayout {
            Layout.fillWidth: true
            TextField {
                objectName: "packQuery"
                Layout.fillWidth: true
                placeholderText: labels.queryHint
                text: vm.query
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                onTextEdited: vm.query = text
            }
            PlainButton { objectName: "buildPack"; text: labels.build; enabled: !vm.isWorking; onClicked: vm.buildPack() }
        }
        RowLayout {
            visible: vm.hasPack
            LabelText { objectName: "packCount"; text: vm.packCountLine }
            PlainButton { objectName: "copyPack"; text: labels.copy; onClicked: vm.copyPack() }
        }
        Body {
            objectName: "packText"
            visible: vm.hasPack
            text: vm.packText
            textFormat: Text.PlainText
        }
    }

    Dialog {
        objectName: "deleteConfirmation"
        anchors.centerIn: parent
        width: Math.min(360, view.width - 24)
        modal: true
        visible: vm.confirmingDelete
        title: labels.confirmTitle
        closePolicy: Popup.NoAutoClose
        // The message wraps to the dialog's width, which is fixed above, so no size depends on itself.
        contentItem: Item {
            implicitHeight: message.implicitHeight
            Text {
                id: message
                width: parent.width
                text: labels.confirmMessage
                wrapMode: Text.Wrap
                color: Theme.ink
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
            }
        }
        footer: RowLayout {
            PlainButton { objectName: "confirmDelete"; text: labels.confirmDelete; onClicked: vm.deletePendingItem() }
            PlainButton { objectName: "cancelDelete"; text: labels.confirmCancel; onClicked: vm.cancelDelete() }
        }
    }
}
