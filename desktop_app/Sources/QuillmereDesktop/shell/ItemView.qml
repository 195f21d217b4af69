import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// One interrupt with all its context, and the answers it offers.
Item {
    ItemViewModel {
        id: vm
        app: AppState
        onDrawerRequested: RootController.openTerminal()
    }

    Text {
        anchors.centerIn: parent
        visible: !vm.hasSelection
        text: vm.nothingSelected
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
        color: Theme.ink
    }

    Flickable {
        anchors.fill: parent
        visible: vm.hasSelection
        contentHeight: column.implicitHeight
        clip: true

        ColumnLayout {
            id: column
            width: parent.width
            spacing: 8

            RowLayout {
                Layout.fillWidth: true
                PlainButton { text: vm.queueLabel; onClicked: vm.back() }
                Item { Layout.fillWidth: true }
                LabelText { text: vm.kindWord }
            }
            Text {
                text: vm.title
                font.family: Theme.monoFamily
                font.pixelSize: Theme.titleSize
                font.bold: true
                color: Theme.ink
                Layout.fillWidth: true
                wrapMode: Text.Wrap
            }
            Text {
                text: vm.prompt
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                color: Theme.ink
                Layout.fillWidth: true
                wrapMode: Text.Wrap
            }

            BannerView { text: vm.contextBanner; Layout.fillWidth: true }
            GridLayout {
                Layout.fillWidth: true
                columns: 2
                columnSpacing: 8
                rowSpacing: 3
                Repeater {
                    model: vm.contextRows
                    delegate: LabelText {
                        required property var modelData
                        required property int index
                        Layout.row: index
                        Layout.column: 0
                        Layout.alignment: Qt.AlignTop
                        text: modelData.label
                    }
                }
                Repeater {
                    model: vm.contextRows
                    delegate: Text {
                        required property var modelData
                        required property int index
                        Layout.row: index
                        Layout.column: 1
                        Layout.fillWidth: true
                        text: modelData.value
                        opacity: modelData.supplied ? 1 : Theme.notSuppliedOpacity
                        font.family: Theme.monoFamily
                        font.pixelSize: Theme.labelSize
                        color: Theme.ink
                        wrapMode: Text.Wrap
                    }
                }
            }

            BannerView { visible: vm.runsRealAction; text: vm.realActionBanner; Layout.fillWidth: true }
            Text {
                visible: vm.runsRealAction
                text: vm.actionLine
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                font.bold: true
                color: Theme.ink
                Layout.fillWidth: true
                wrapMode: Text.WrapAtWordBoundaryOrAnywhere
            }
            Text {
                visible: vm.runsRealAction && vm.targetLine.length > 0
                text: vm.targetLine
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                color: Theme.ink
            }

            BannerView { visible: vm.detail.length > 0; text: vm.detailBanner; Layout.fillWidth: true }
            Text {
                visible: vm.detail.length > 0
                text: vm.detail
                font.family: Theme.monoFamily
                font.pixelSize: Theme.labelSize
                color: Theme.ink
                Layout.fillWidth: true
                wrapMode: Text.WrapAtWordBoundaryOrAnywhere
            }

            Flow {
                Layout.fillWidth: true
                spacing: 6
                Repeater {
                    model: vm.options
                    delegate: PlainButton {
                        required property string modelData
                        required property int index
                        text: modelData
                        onClicked: vm.chooseOption(index)
                    }
                }
            }

            ColumnLayout {
                visible: vm.showsReplyBox
                Layout.fillWidth: true
                spacing: 4
                LabelText { text: vm.replyHeading }
                FormField {
                    Layout.fillWidth: true
                    placeholderText: vm.replyPlaceholder
                    text: vm.replyText
                    onTextEdited: vm.replyText = text
                    onAccepted: vm.sendReply()
                }
                PlainButton { text: vm.sendLabel; enabled: vm.canSend; onClicked: vm.sendReply() }
            }
        }
    }
}
