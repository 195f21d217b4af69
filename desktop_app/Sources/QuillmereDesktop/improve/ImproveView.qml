import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The improve suggestions: how far the reading has got, then one card per suggestion with
// its evidence, its applied writes and, once previewed, the exact change to the file.
// Layout only: every text and rule is in the view-model.
ScrollView {
    id: view
    objectName: "improveView"
    clip: true
    contentWidth: availableWidth

    ImproveViewModel {
        id: vm
        objectName: "improveViewModel"
        auth: AuthStore
        projectRoot: AppState.terminalWorkingDirectory
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

        LabelText { text: labels.subtitle }
        Body { objectName: "improveReadState"; text: vm.readState }
        LabelText { text: vm.scheduleLine; Layout.fillWidth: true; wrapMode: Text.Wrap }
        RowLayout {
            PlainButton {
                objectName: "improveProcess"
                text: vm.processLabel
                busy: vm.isProcessing
                enabled: !vm.isProcessing
                onClicked: vm.process()
            }
            PlainButton {
                objectName: "improveDismissedToggle"
                visible: vm.showsDismissedToggle
                text: vm.dismissedToggleLabel
                onClicked: vm.toggleDismissed()
            }
        }
        LabelText { text: vm.countsLine }
        ErrorLine { objectName: "improveError"; text: vm.errorMessage }
        BusyIndicator { visible: vm.isLoading; running: vm.isLoading }
        Body { visible: !vm.hasSuggestions && !vm.isLoading; text: vm.emptyText }
        BannerView { visible: vm.hasSuggestions; Layout.fillWidth: true; text: vm.sectionHeader }

        Repeater {
            objectName: "improveCards"
            model: vm.cards
            delegate: OutlinedBox {
                id: card
                required property var modelData
                Layout.fillWidth: true
                opacity: modelData.dimmed ? Theme.secondaryOpacity : 1
                ColumnLayout {
                    width: parent.width
                    spacing: 4
                    RowLayout {
                        Layout.fillWidth: true
                        LabelText { text: card.modelData.artifactMark }
                        LabelText { text: card.modelData.kind }
                        LabelText { text: card.modelData.conversations }
                        Item { Layout.fillWidth: true }
                        LabelText { text: card.modelData.statusMark }
                    }
                    Body { text: card.modelData.title; font.bold: true }
                    Body { text: card.modelData.detail }
                    LabelText { text: labels.evidence }
                    Repeater {
                        model: card.modelData.evidence
                        delegate: Body {
                            required property var modelData
                            text: "“" + modelData.excerpt + "” — " + modelData.agent
                            font.pixelSize: Theme.labelSize
                        }
                    }
                    Repeater {
                        model: card.modelData.applications
                        delegate: RowLayout {
                            required property var modelData
                            Body { text: labels.applied + " " + modelData.path + " " + modelData.date; Layout.fillWidth: true }
                            PlainButton {
                                text: labels.undo
                                enabled: !vm.busy
                                onClicked: vm.undo(card.modelData.id, modelData.id)
                            }
                        }
                    }
                    Flow {
                        Layout.fillWidth: true
                        spacing: 6
                        PlainButton {
                            text: card.modelData.previewLabel
                            enabled: !vm.busy
                            onClicked: vm.togglePreview(card.modelData.id)
                        }
                        PlainButton {
                            visible: card.modelData.isOpen
                            text: labels.dismiss
                            enabled: !vm.busy
                            onClicked: vm.dismiss(card.modelData.id)
                        }
                        PlainButton {
                            visible: card.modelData.isOpen
                            text: labels.snooze
                            enabled: !vm.busy
                            onClicked: vm.snooze(card.modelData.id)
                        }
                        PlainButton {
                            visible: !card.modelData.isOpen
                            text: labels.reopen
                            enabled: !vm.busy
                            onClicked: vm.reopen(card.modelData.id)
                        }
                    }
                    // The preview: the plan's error, or what apply would write.
                    ColumnLayout {
                        readonly property var preview: card.modelData.preview
                        visible: card.modelData.previewing
                        Layout.fillWidth: true
                        spacing: 4
                        Body { visible: !!parent.preview.error; text: parent.preview.error || ""; font.bold: true }
                        LabelText { visible: !!parent.preview.heading; text: (parent.preview.heading || "") + " " + (parent.preview.path || "") }
                        Body {
                            visible: !!parent.preview.diff
                            text: parent.preview.diff || ""
                            font.pixelSize: Theme.labelSize
                            wrapMode: Text.WrapAnywhere
                        }
                        Body { visible: !!parent.preview.note; text: parent.preview.note || ""; font.pixelSize: Theme.labelSize }
                        LabelText { visible: !!parent.preview.draftHeading; text: parent.preview.draftHeading || "" }
                        Body { visible: !!parent.preview.draftLine; text: parent.preview.draftLine || "" }
                        LabelText { visible: !!parent.preview.draftNote; text: parent.preview.draftNote || ""; Layout.fillWidth: true; wrapMode: Text.Wrap }
                        RowLayout {
                            PlainButton {
                                visible: !!parent.parent.preview.canApply
                                text: labels.apply
                                enabled: !vm.busy
                                onClicked: vm.apply(card.modelData.id)
                            }
                            PlainButton {
                                visible: !!parent.parent.preview.rewordLabel
                                text: parent.parent.preview.rewordLabel || ""
                                busy: !!parent.parent.preview.drafting
                                enabled: !vm.busy && !parent.parent.preview.drafting
                                onClicked: vm.reword(card.modelData.id)
                            }
                        }
                    }
                }
            }
        }
    }
}
