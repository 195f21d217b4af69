import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The form of one lane. Layout only: the fields, their labels and the save live in
// ProviderEditorViewModel.
ColumnLayout {
    id: form
    objectName: "providerEditorView"
    property ProviderEditorViewModel editor
    readonly property var labels: editor ? editor.labels : ({})
    signal cancelled()
    spacing: 8

    component Small: Text {
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }

    BannerView { Layout.fillWidth: true; text: form.labels.title || "" }
    Small { text: form.labels.note || ""; opacity: Theme.secondaryOpacity }
    GridLayout {
        visible: form.editor !== null
        Layout.fillWidth: true
        columns: 2
        columnSpacing: 8
        rowSpacing: 6
        LabeledField {
            Layout.fillWidth: true
            label: form.labels.laneId || ""; text: form.editor ? form.editor.modelID : ""
            onEdited: function(t) { form.editor.modelID = t }
        }
        LabeledField {
            Layout.fillWidth: true
            label: form.labels.clientModel || ""; hint: form.labels.clientModelHint || ""
            text: form.editor ? form.editor.routingModel : ""
            onEdited: function(t) { form.editor.routingModel = t }
        }
        LabeledPicker {
            Layout.fillWidth: true
            label: form.labels.serviceTier || ""
            model: form.editor ? form.editor.serviceTiers : []
            value: form.editor ? form.editor.serviceTier : ""
            onPicked: function(v) { form.editor.serviceTier = v }
        }
        LabeledField {
            Layout.fillWidth: true
            label: form.labels.provider || ""; hint: form.labels.providerHint || ""
            text: form.editor ? form.editor.provider : ""
            onEdited: function(t) { form.editor.provider = t }
        }
        LabeledField {
            Layout.fillWidth: true
            label: form.labels.displayName || ""; text: form.editor ? form.editor.displayName : ""
            onEdited: function(t) { form.editor.displayName = t }
        }
        LabeledField {
            Layout.fillWidth: true
            label: form.labels.upstreamModel || ""; text: form.editor ? form.editor.upstreamModel : ""
            onEdited: function(t) { form.editor.upstreamModel = t }
        }
        LabeledPicker {
            Layout.fillWidth: true
            Layout.columnSpan: 2
            label: form.labels.protocol || ""
            model: form.editor ? form.editor.protocols : []
            value: form.editor ? form.editor.protocolName : ""
            onPicked: function(v) { form.editor.protocolName = v }
        }
        LabeledField {
            Layout.fillWidth: true
            Layout.columnSpan: 2
            label: form.labels.endpoint || ""; hint: form.labels.endpointHint || ""
            text: form.editor ? form.editor.endpoint : ""
            onEdited: function(t) { form.editor.endpoint = t }
        }
        LabeledField {
            Layout.fillWidth: true
            Layout.columnSpan: 2
            label: (form.labels.apiKey || "") + " · " + (form.editor ? form.editor.keyHint : "")
            echoMode: TextInput.Password
            text: form.editor ? form.editor.apiKey : ""
            onEdited: function(t) { form.editor.apiKey = t }
        }
        Small { Layout.columnSpan: 2; text: form.labels.keyNote || ""; opacity: Theme.secondaryOpacity }
        LabeledField {
            Layout.fillWidth: true
            label: form.labels.context || ""; text: form.editor ? form.editor.contextWindow : ""
            onEdited: function(t) { form.editor.contextWindow = t }
        }
        LabeledField {
            Layout.fillWidth: true
            label: form.labels.latency || ""; text: form.editor ? form.editor.latency : ""
            onEdited: function(t) { form.editor.latency = t }
        }
        LabeledField {
            Layout.fillWidth: true
            label: form.labels.inputCost || ""; text: form.editor ? form.editor.inputCost : ""
            onEdited: function(t) { form.editor.inputCost = t }
        }
        LabeledField {
            Layout.fillWidth: true
            label: form.labels.outputCost || ""; text: form.editor ? form.editor.outputCost : ""
            onEdited: function(t) { form.editor.outputCost = t }
        }
    }
    LabelText { text: form.editor ? form.editor.qualityText : "" }
    Slider {
        Layout.fillWidth: true
        from: 0
        to: 100
        stepSize: 1
        value: form.editor ? form.editor.quality : 0
        onMoved: form.editor.quality = Math.round(value)
    }
    LabelText { text: form.labels.capabilities || "" }
    ChoiceGrid {
        Layout.fillWidth: true
        choices: form.editor ? form.editor.capabilityOptions : []
        chosen: form.editor ? form.editor.capabilities : []
        onToggled: function(v) { form.editor.toggleCapability(v) }
    }
    CheckBox {
        text: form.labels.zdr || ""
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        checked: form.editor ? form.editor.isZDR : false
        onToggled: form.editor.isZDR = checked
    }
    // Beside the button that caused it: the form is taller than the sheet.
    OutlinedBox {
        objectName: "editorError"
        visible: form.editor && form.editor.errorMessage.length > 0
        Layout.fillWidth: true
        ErrorLine { width: parent.width; text: form.editor ? form.editor.errorMessage : "" }
    }
    RowLayout {
        PlainButton { objectName: "saveProvider"; text: form.labels.save || ""; onClicked: form.editor.save() }
        PlainButton { text: form.labels.cancel || ""; onClicked: form.cancelled() }
    }
}
