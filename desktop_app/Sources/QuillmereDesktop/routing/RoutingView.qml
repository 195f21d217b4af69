import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The model router console: overview, lanes, route preview and decision, policy, smart
// suggestions, hard budgets, usage by lane and the recent gateway runs. Layout only: every
// text, format and rule comes from RoutingViewModel.
ScrollView {
    id: view
    objectName: "routingView"
    clip: true
    contentWidth: availableWidth

    RoutingViewModel {
        id: vm
        objectName: "routingViewModel"
        auth: AuthStore
        Component.onCompleted: load()
    }
    readonly property var labels: vm.labels

    component Small: Text {
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    component Body: Text {
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    component Picker: ColumnLayout {
        property alias label: pickerLabel.text
        property alias model: box.model
        property string value
        signal picked(string value)
        spacing: 2
        LabelText { id: pickerLabel }
        ComboBox {
            id: box
            Layout.fillWidth: true
            font.family: Theme.monoFamily
            font.pixelSize: Theme.bodySize
            currentIndex: Math.max(0, model.indexOf(parent.value))
            onActivated: parent.picked(currentText)
            background: Rectangle {
                implicitHeight: 28
                color: Theme.paper
                border.color: Theme.rule
                border.width: 1
            }
        }
    }
    component Field: ColumnLayout {
        property alias label: fieldLabel.text
        property alias text: input.text
        property alias hint: input.placeholderText
        signal edited(string text)
        spacing: 2
        LabelText { id: fieldLabel }
        FormField {
            id: input
            Layout.fillWidth: true
            onTextEdited: parent.edited(text)
        }
    }

    ColumnLayout {
        width: view.availableWidth - 8
        spacing: 10

        OutlinedBox {
            objectName: "routingError"
            visible: vm.errorText.length > 0
            Layout.fillWidth: true
            ErrorLine { width: parent.width; text: vm.errorText }
        }
        Small { visible: vm.isLoading; text: view.labels.loading }

        // Overview.
        GridLayout {
            objectName: "metrics"
            Layout.fillWidth: true
            columns: 3
            rowSpacing: 6
            columnSpacing: 6
            Repeater {
                model: vm.metrics
                OutlinedBox {
                    // Equal columns whatever each figure's width.
                    Layout.fillWidth: true
                    Layout.preferredWidth: 1
                    ColumnLayout {
                        width: parent.width
                        spacing: 2
                        LabelText { text: modelData.label }
                        Body { text: modelData.value; font.bold: true }
                    }
                }
            }
        }

        // The lanes.
        BannerView { Layout.fillWidth: true; text: vm.lanesHeader }
        Small { text: view.labels.lanesNote; opacity: Theme.secondaryOpacity }
        Repeater {
            model: vm.lanes
            OutlinedBox {
                Layout.fillWidth: true
                opacity: modelData.available ? 1 : 0.55
                ColumnLayout {
                    width: parent.width
                    spacing: 2
                    Body { text: modelData.name; font.bold: true }
                    Small { text: modelData.summary }
                    Small { text: modelData.details; visible: text.length > 0; opacity: Theme.secondaryOpacity }
                    Small { text: modelData.performance; visible: text.length > 0 }
                    Small { text: modelData.toolQuality; visible: text.length > 0 }
                }
            }
        }

        // Route preview.
        BannerView { objectName: "previewHeading"; Layout.fillWidth: true; text: view.labels.previewHeading }
        GridLayout {
            Layout.fillWidth: true
            columns: 2
            columnSpacing: 8
            rowSpacing: 6
            Picker {
                Layout.fillWidth: true
                label: view.labels.task; model: vm.tasks; value: vm.task
                onPicked: function(value) { vm.task = value }
            }
            Picker {
                Layout.fillWidth: true
                label: view.labels.channel; model: vm.channels; value: vm.channel
                onPicked: function(value) { vm.channel = value }
            }
            Field {
                objectName: "inputTokensField"
                Layout.fillWidth: true
                label: view.labels.inputTokens; text: vm.inputTokens
                onEdited: function(text) { vm.inputTokens = text }
            }
            Field {
                Layout.fillWidth: true
                label: view.labels.outputTokens; text: vm.outputTokens
                onEdited: function(text) { vm.outputTokens = text }
            }
            Field {
                Layout.fillWidth: true
                label: view.labels.latencyBudget; hint: view.labels.latencyBudgetHint; text: vm.latencyBudget
                onEdited: function(text) { vm.latencyBudget = text }
            }
            Picker {
                Layout.fillWidth: true
                label: view.labels.providerSort; model: vm.providerSorts; value: vm.providerSort
                onPicked: function(value) { vm.providerSort = value }
            }
            Picker {
                Layout.fillWidth: true
                visible: vm.showsPartition
                label: view.labels.sortPartition; model: vm.partitions; value: vm.sortPartition
                onPicked: function(value) { vm.sortPartition = value }
            }
            Field {
                Layout.fillWidth: true
                label: view.labels.preferredLatency; hint: view.labels.softHint; text: vm.preferredLatency
                onEdited: function(text) { vm.preferredLatency = text }
            }
            Field {
                Layout.fillWidth: true
                label: view.labels.preferredThroughput; hint: view.labels.softHint; text: vm.preferredThroughput
                onEdited: function(text) { vm.preferredThroughput = text }
            }
        }
        CheckBox {
            visible: vm.showsToolToggle
            text: view.labels.toolToggle
            font.family: Theme.monoFamily
            font.pixelSize: Theme.labelSize
            checked: vm.previewToolCall
            onToggled: vm.previewToolCall = checked
        }
        Small { visible: vm.showsToolToggle; text: view.labels.toolNote; opacity: Theme.secondaryOpacity }

        // The policy the preview saves.
        BannerView { Layout.fillWidth: true; text: view.labels.policyHeading }
        GridLayout {
            Layout.fillWidth: true
            columns: 2
            columnSpacing: 8
            rowSpacing: 6
            Picker {
                Layout.fillWidth: true
                label: view.labels.strategy; model: vm.strategies; value: vm.strategy
                onPicked: function(value) { vm.strategy = value }
            }
            Field {
                Layout.fillWidth: true
                label: view.labels.maxCost; hint: view.labels.maxCostHint; text: vm.maxCost
                onEdited: function(text) { vm.maxCost = text }
            }
            CheckBox {
                text: view.labels.fallbackToggle
                font.family: Theme.monoFamily
                font.pixelSize: Theme.labelSize
                checked: vm.fallbackEnabled
                onToggled: vm.fallbackEnabled = checked
            }
            ColumnLayout {
                spacing: 2
                LabelText { text: view.labels.fallbacks }
                RowLayout {
                    PlainButton { text: "−"; enabled: vm.maxFallbacks > 0; onClicked: vm.maxFallbacks = vm.maxFallbacks - 1 }
                    Body { text: vm.maxFallbacksText; Layout.fillWidth: false }
                    PlainButton { text: "+"; enabled: vm.maxFallbacks < 10; onClicked: vm.maxFallbacks = vm.maxFallbacks + 1 }
                }
            }
        }
        PlainButton {
            objectName: "previewButton"
            text: vm.previewButtonLabel
            busy: vm.isPreviewing
            enabled: !vm.isPreviewing
            onClicked: vm.preview()
        }

        // The decision.
        BannerView { Layout.fillWidth: true; visible: vm.hasDecision; text: view.labels.decisionHeading }
        Repeater {
            objectName: "decisionCards"
            model: vm.decisionCards
            OutlinedBox {
                Layout.fillWidth: true
                ColumnLayout {
                    width: parent.width
                    spacing: 2
                    LabelText { text: modelData.heading }
                    Body { text: modelData.name + " · " + modelData.provider; font.bold: true }
                    Small { text: modelData.cost + " · SCORE " + modelData.score }
                    Small { text: modelData.reasons; opacity: Theme.secondaryOpacity }
                }
            }
        }
        Body { objectName: "routedBecause"; visible: vm.hasDecision; text: vm.routedBecause }
        Small { visible: vm.hasDecision; text: vm.rejectedHeader; font.bold: true }
        Repeater {
            model: vm.rejectedRows
            Small { text: modelData; opacity: Theme.secondaryOpacity }
        }

        // Smart suggestions.
        BannerView { Layout.fillWidth: true; text: view.labels.suggestionsHeading }
        Repeater {
            objectName: "suggestions"
            model: vm.suggestions
            Body { text: "› " + modelData }
        }
        Small { visible: vm.suggestions.length === 0; text: view.labels.noSuggestions; opacity: Theme.secondaryOpacity }

        // Hard budgets.
        BannerView { Layout.fillWidth: true; text: view.labels.budgetsHeading }
        Small { text: view.labels.budgetsNote; opacity: Theme.secondaryOpacity }
        Repeater {
            model: vm.budgetRows
            RowLayout {
                Layout.fillWidth: true
                Body { text: modelData.owner }
                Body { text: modelData.amounts; horizontalAlignment: Text.AlignRight }
            }
        }
        RowLayout {
            Layout.fillWidth: true
            spacing: 8
            Picker {
                label: view.labels.period; model: vm.budgetPeriods; value: vm.budgetPeriod
                onPicked: function(value) { vm.budgetPeriod = value }
            }
            Field {
                Layout.fillWidth: true
                label: view.labels.usd; text: vm.budgetLimit
                onEdited: function(text) { vm.budgetLimit = text }
            }
            PlainButton {
                Layout.alignment: Qt.AlignBottom
                objectName: "budgetButton"
                text: vm.budgetButtonLabel
                busy: vm.isSavingBudget
                enabled: !vm.isSavingBudget
                onClicked: vm.saveBudget()
            }
        }

        // Usage by lane.
        BannerView { Layout.fillWidth: true; visible: vm.usageRows.length > 0; text: view.labels.usageHeading }
        Repeater {
            model: vm.usageRows
            RowLayout {
                Layout.fillWidth: true
                Body { text: modelData.model }
                Small { text: modelData.figures; horizontalAlignment: Text.AlignRight }
            }
        }

        // The ledger.
        BannerView { Layout.fillWidth: true; text: view.labels.generationsHeading }
        Small {
            text: vm.generationRows.length > 0 ? view.labels.generationsNote : view.labels.noGenerations
            opacity: Theme.secondaryOpacity
        }
        Repeater {
            objectName: "generations"
            model: vm.generationRows
            OutlinedBox {
                Layout.fillWidth: true
                ColumnLayout {
                    width: parent.width
                    spacing: 2
                    RowLayout {
                        Layout.fillWidth: true
                        Body { text: modelData.model; font.bold: true }
                        Rectangle {
                            implicitWidth: status.implicitWidth + 8
                            implicitHeight: status.implicitHeight + 2
                            color: modelData.succeeded ? Theme.ink : Theme.paper
                            border.color: Theme.ink
                            Text {
                                id: status
                                anchors.centerIn: parent
                                text: modelData.status.toUpperCase()
                                color: modelData.succeeded ? Theme.paper : Theme.ink
                                font.family: Theme.monoFamily
                                font.pixelSize: Theme.labelSize
                            }
                        }
                        Small { text: modelData.cost; horizontalAlignment: Text.AlignRight }
                    }
                    Small { text: modelData.figures; opacity: Theme.secondaryOpacity }
                }
            }
        }
        Item { implicitHeight: 12 }
    }
}
