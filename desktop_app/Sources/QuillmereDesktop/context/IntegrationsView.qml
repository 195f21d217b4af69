import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// Connected apps and the project insights. Layout only: the rules are in the view-model.
ScrollView {
    id: view
    objectName: "integrationsView"
    clip: true
    contentWidth: availableWidth

    IntegrationsViewModel {
        id: vm
        objectName: "integrationsViewModel"
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
    component Figure: ColumnLayout {
        property string label
        property string value
        spacing: 2
        Layout.fillWidth: true
        LabelText { text: parent.label }
        Body { text: parent.value; font.bold: true }
    }

    ColumnLayout {
        width: view.availableWidth - 8
        spacing: 8

        BusyIndicator { visible: vm.isLoading; running: vm.isLoading }
        OutlinedBox {
            visible: !!vm.errorMessage
            Layout.fillWidth: true
            ErrorLine { objectName: "integrationsError"; width: parent.width; text: vm.errorMessage }
        }
        OutlinedBox {
            objectName: "integrationsUnavailable"
            visible: !vm.isLoading && !vm.errorMessage && !vm.configured
            Layout.fillWidth: true
            ColumnLayout {
                width: parent.width
                LabelText { text: labels.unavailableHeading }
                Body { text: labels.unavailable }
            }
        }
        Repeater {
            objectName: "toolkitRows"
            model: vm.isLoading ? [] : vm.toolkitRows
            delegate: OutlinedBox {
                required property var modelData
                Layout.fillWidth: true
                RowLayout {
                    width: parent.width
                    ColumnLayout {
                        Layout.fillWidth: true
                        Body { text: modelData.name; font.bold: true }
                        Body { text: modelData.description; font.pixelSize: Theme.labelSize }
                    }
                    PlainButton {
                        text: modelData.label
                        busy: modelData.busy
                        enabled: modelData.enabled
                        onClicked: vm.connectToolkit(modelData.slug)
                    }
                }
            }
        }
        OutlinedBox {
            objectName: "insightsCard"
            visible: vm.hasInsights && !vm.isLoading
            Layout.fillWidth: true
            ColumnLayout {
                width: parent.width
                spacing: 6
                BannerView { Layout.fillWidth: true; text: labels.insights }
                Body { text: vm.insightsCard.summary || "" }
                RowLayout {
                    Layout.fillWidth: true
                    Figure { label: labels.context; value: vm.insightsCard.context || "" }
                    Figure { label: labels.signals; value: vm.insightsCard.signals || "" }
                    Figure { label: labels.runs; value: vm.insightsCard.runs || "" }
                    Figure { label: labels.spend; value: vm.insightsCard.spend || "" }
                }
                Repeater {
                    model: vm.insightsCard.suggestions || []
                    delegate: RowLayout {
                        required property var modelData
                        Layout.fillWidth: true
                        Body { text: modelData.mark; Layout.fillWidth: false; font.bold: true; Layout.alignment: Qt.AlignTop }
                        ColumnLayout {
                            Layout.fillWidth: true
                            Body { text: modelData.title; font.bold: true }
                            Body { text: modelData.detail; font.pixelSize: Theme.labelSize }
                            LabelText { text: modelData.action; Layout.fillWidth: true; wrapMode: Text.Wrap }
                        }
                    }
                }
            }
        }
    }
}
