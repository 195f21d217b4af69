import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The usage classifiers with their coverage and the recent taggings, and the editor in
// place of the list while it is open. Layout only: the rules are in the view-models.
ScrollView {
    id: view
    objectName: "classifierManagementView"
    clip: true
    contentWidth: availableWidth

    ClassifierManagementViewModel {
        id: vm
        objectName: "classifierManagementViewModel"
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

    ColumnLayout {
        width: view.availableWidth - 8
        spacing: 6
        visible: vm.editor === null

        LabelText { text: labels.subtitle }
        Body { text: labels.intro; font.pixelSize: Theme.labelSize }
        ErrorLine { objectName: "classifierError"; text: vm.errorMessage }
        PlainButton { objectName: "createClassifier"; text: labels.create; onClicked: vm.openEditor("") }
        Body { visible: !vm.hasClassifiers && !vm.working; text: labels.empty; font.bold: true }
        Repeater {
            model: vm.cards
            delegate: OutlinedBox {
                required property var modelData
                Layout.fillWidth: true
                ColumnLayout {
                    width: parent.width
                    RowLayout {
                        Layout.fillWidth: true
                        Body { text: modelData.name; font.bold: true }
                        LabelText { text: modelData.inactive; visible: modelData.inactive.length > 0 }
                    }
                    LabelText { text: modelData.model + " · " + modelData.dimensions + " · " + modelData.sample }
                    LabelText { text: modelData.coverage }
                    RowLayout {
                        PlainButton { text: labels.edit; enabled: !vm.working; onClicked: vm.openEditor(modelData.id) }
                        PlainButton { text: labels.delete; enabled: !vm.working; onClicked: vm.remove(modelData.id) }
                    }
                }
            }
        }
        BannerView { Layout.fillWidth: true; text: labels.activity }
        Repeater {
            model: vm.activityRows
            delegate: RowLayout {
                required property var modelData
                Layout.fillWidth: true
                Body { text: modelData.name; Layout.fillWidth: false; font.pixelSize: Theme.labelSize }
                LabelText { text: modelData.status }
                Body { text: modelData.detail; font.pixelSize: Theme.labelSize }
            }
        }
    }

    Loader {
        width: view.availableWidth - 8
        active: vm.editor !== null
        sourceComponent: ClassifierEditorView {
            editor: vm.editor
            onCancelled: vm.closeEditor()
        }
    }
}
