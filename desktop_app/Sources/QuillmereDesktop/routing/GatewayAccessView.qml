import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The gateway's keys: the secret of a new key (once), the create form with its limits and
// guardrails, the list with revoke, and the endpoint with two client samples. Layout only:
// every text, format and rule comes from GatewayAccessViewModel.
ScrollView {
    id: view
    objectName: "gatewayAccessView"
    clip: true
    contentWidth: availableWidth

    GatewayAccessViewModel {
        id: vm
        objectName: "gatewayAccessViewModel"
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
    component CodeBox: OutlinedBox {
        property string code
        Layout.fillWidth: true
        ColumnLayout {
            width: parent.width
            spacing: 4
            TextEdit {
                Layout.fillWidth: true
                text: parent.parent.parent.code
                readOnly: true
                selectByMouse: true
                color: Theme.ink
                font.family: Theme.monoFamily
                font.pixelSize: Theme.labelSize
                wrapMode: TextEdit.Wrap
            }
            PlainButton {
                text: view.labels.copy
                onClicked: vm.copyToClipboard(parent.parent.parent.code)
            }
        }
    }

    ColumnLayout {
        width: view.availableWidth - 8
        spacing: 10

        OutlinedBox {
            objectName: "gatewayError"
            visible: vm.errorMessage.length > 0
            Layout.fillWidth: true
            ErrorLine { width: parent.width; text: vm.errorMessage }
        }
        Small { visible: vm.isLoading; text: view.labels.loading }

        // The secret, shown once.
        ColumnLayout {
            objectName: "createdSecret"
            visible: vm.hasCreatedSecret
            Layout.fillWidth: true
            spacing: 6
            BannerView { Layout.fillWidth: true; text: view.labels.secretHeading }
            OutlinedBox {
                Layout.fillWidth: true
                ColumnLayout {
                    width: parent.width
                    spacing: 4
                    LabelText { text: view.labels.newKey }
                    TextEdit {
                        objectName: "secretValue"
                        Layout.fillWidth: true
                        text: vm.createdSecret
                        readOnly: true
                        selectByMouse: true
                        wrapMode: TextEdit.WrapAnywhere
                        font.family: Theme.monoFamily
                        font.pixelSize: Theme.bodySize
                        font.bold: true
                        color: Theme.ink
                    }
                    Small { text: view.labels.secretWarning; font.bold: true }
                    RowLayout {
                        PlainButton { text: view.labels.copy; onClicked: vm.copyToClipboard(vm.createdSecret) }
                        PlainButton { objectName: "savedIt"; text: view.labels.savedIt; onClicked: vm.dismissSecret() }
                    }
                }
            }
        }

        // The create form.
        BannerView { Layout.fillWidth: true; text: view.labels.createHeading }
        LabeledField {
            Layout.fillWidth: true
            label: view.labels.name; text: vm.name
            onEdited: function(text) { vm.name = text }
        }
        GridLayout {
            Layout.fillWidth: true
            columns: 2
            columnSpacing: 8
            rowSpacing: 6
            LabeledField {
                Layout.fillWidth: true
                label: view.labels.limit; hint: view.labels.limitPlaceholder; text: vm.limit
                onEdited: function(text) { vm.limit = text }
            }
            LabeledPicker {
                Layout.fillWidth: true
                label: view.labels.resetInterval; model: vm.resetIntervals; value: vm.resetInterval
                display: function(v) { return v.toUpperCase() }
                onPicked: function(v) { vm.resetInterval = v }
            }
            LabeledField {
                Layout.fillWidth: true
                label: view.labels.requestsPerMinute; text: vm.requestsPerMinute
                onEdited: function(text) { vm.requestsPerMinute = text }
            }
            LabeledField {
                Layout.fillWidth: true
                label: view.labels.tokensPerMinute; text: vm.tokensPerMinute
                onEdited: function(text) { vm.tokensPerMinute = text }
            }
            LabeledPicker {
                Layout.fillWidth: true
                label: view.labels.expiry; model: vm.expiries; value: vm.expiry
                display: function(v) { return v === "never" ? "NEVER" : v + " DAYS" }
                onPicked: function(v) { vm.expiry = v }
            }
        }
        Small { text: view.labels.rateNote; opacity: Theme.secondaryOpacity }

        // Guardrails, folded until asked for.
        PlainButton {
            objectName: "guardrailsToggle"
            Layout.fillWidth: true
            text: (vm.guardrailsExpanded ? "▾ " : "▸ ") + vm.guardrailsHeader
            onClicked: vm.guardrailsExpanded = !vm.guardrailsExpanded
        }
        ColumnLayout {
            visible: vm.guardrailsExpanded
            Layout.fillWidth: true
            spacing: 6
            Small { objectName: "eligibility"; text: vm.eligibilityText; font.bold: true }
            LabelText { text: view.labels.modelAllowlist }
            ChoiceGrid {
                Layout.fillWidth: true
                choices: vm.modelChoices; chosen: vm.selectedModels
                display: function(v) { return v }
                onToggled: function(v) { vm.toggleModel(v) }
            }
            LabelText { text: view.labels.providerAllowlist }
            ChoiceGrid {
                Layout.fillWidth: true
                choices: vm.providerChoices; chosen: vm.selectedProviders
                display: function(v) { return v }
                onToggled: function(v) { vm.toggleProvider(v) }
            }
            LabelText { text: view.labels.zdrHeading }
            ChoiceGrid {
                Layout.fillWidth: true
                choices: vm.zdrGroups; chosen: vm.enforceZDRGroups
                onToggled: function(v) { vm.toggleZDRGroup(v) }
            }
            RowLayout {
                Layout.fillWidth: true
                LabelText { text: view.labels.filtersHeading; Layout.fillWidth: true }
                PlainButton { objectName: "addFilter"; text: view.labels.addFilter; onClicked: vm.addFilter() }
            }
            Repeater {
                model: vm.contentFilters
                OutlinedBox {
                    required property var modelData
                    required property int index
                    Layout.fillWidth: true
                    ColumnLayout {
                        width: parent.width
                        spacing: 4
                        RowLayout {
                            Layout.fillWidth: true
                            spacing: 8
                            LabeledField {
                                Layout.fillWidth: true
                                Layout.preferredWidth: 1
                                label: view.labels.filterName; hint: view.labels.filterNameHint
                                text: modelData.name
                                onEdited: function(text) { vm.setFilterName(index, text) }
                            }
                            LabeledField {
                                Layout.fillWidth: true
                                Layout.preferredWidth: 2
                                label: view.labels.filterPattern; hint: view.labels.filterPatternHint
                                text: modelData.pattern
                                onEdited: function(text) { vm.setFilterPattern(index, text) }
                            }
                        }
                        RowLayout {
                            Layout.fillWidth: true
                            spacing: 8
                            LabeledPicker {
                                Layout.fillWidth: true
                                label: view.labels.filterAction; model: ["block", "redact"]
                                value: modelData.action
                                display: function(v) { return v.toUpperCase() }
                                onPicked: function(v) { vm.setFilterAction(index, v) }
                            }
                            PlainButton {
                                Layout.alignment: Qt.AlignBottom
                                text: view.labels.removeFilter
                                onClicked: vm.removeFilter(index)
                            }
                        }
                    }
                }
            }
            Small { text: view.labels.filtersNote; opacity: Theme.secondaryOpacity }
            Small { text: view.labels.allowlistNote; opacity: Theme.secondaryOpacity }
        }
        PlainButton {
            objectName: "createKey"
            text: vm.createButtonLabel
            busy: vm.isCreating
            enabled: !vm.isCreating
            onClicked: vm.create()
        }

        // The keys.
        BannerView { Layout.fillWidth: true; text: vm.keysHeader }
        Small { visible: vm.keyRows.length === 0; text: view.labels.noKeys }
        Repeater {
            model: vm.keyRows
            OutlinedBox {
                required property var modelData
                Layout.fillWidth: true
                opacity: modelData.canRevoke ? 1 : 0.55
                ColumnLayout {
                    width: parent.width
                    spacing: 2
                    RowLayout {
                        Layout.fillWidth: true
                        Body { text: modelData.name + "  " + modelData.prefixText; font.bold: true }
                        Small { text: modelData.status; Layout.fillWidth: false }
                        PlainButton {
                            visible: modelData.canRevoke
                            text: view.labels.revoke
                            onClicked: vm.requestRevoke(modelData.id)
                        }
                    }
                    Small { text: modelData.usageText }
                    Small { text: modelData.rateLimitText }
                    Small { text: modelData.guardrailText }
                    Small { text: modelData.auditText }
                    Small { text: modelData.lastUsedText; opacity: Theme.secondaryOpacity }
                }
            }
        }

        // The endpoint.
        BannerView { Layout.fillWidth: true; text: view.labels.endpointSubtitle }
        LabelText { text: view.labels.baseURL }
        Body { objectName: "baseURL"; text: vm.gatewayBaseURL; font.bold: true }
        Small { text: view.labels.endpointNote; opacity: Theme.secondaryOpacity }
        CodeBox { objectName: "openAISample"; code: vm.openAISample }
        CodeBox { objectName: "anthropicSample"; code: vm.anthropicSample }
        LabelText { text: view.labels.routerFeatures }
        Small { text: view.labels.routerFeaturesNote; opacity: Theme.secondaryOpacity }
    }

    // The confirmation of a revoke, centred over the screen wherever it is scrolled to.
    Popup {
        objectName: "revokeConfirmation"
        parent: view
        x: (view.width - width) / 2
        y: (view.height - height) / 2
        width: Math.min(view.width - 24, 420)
        modal: true
        visible: vm.confirmingRevoke
        closePolicy: Popup.CloseOnEscape | Popup.CloseOnPressOutside
        onClosed: vm.cancelRevoke()
        padding: 12
        background: Rectangle { color: Theme.paper; border.color: Theme.ink; border.width: 2 }
        contentItem: ColumnLayout {
            spacing: 8
            Body { text: view.labels.revokeTitle; font.bold: true }
            Body { text: view.labels.revokeMessage }
            RowLayout {
                PlainButton { objectName: "cancelRevoke"; text: view.labels.cancel; onClicked: vm.cancelRevoke() }
                PlainButton { objectName: "confirmRevoke"; text: view.labels.confirmRevoke; onClicked: vm.confirmRevoke() }
            }
        }
    }
}
