import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The classifier form. Layout only: ClassifierEditorViewModel validates and saves.
ColumnLayout {
    id: form
    objectName: "classifierEditorView"
    required property ClassifierEditorViewModel editor
    signal cancelled()
    readonly property var labels: editor ? editor.labels : ({})
    spacing: 4

    Text {
        text: labels.title
        font.family: Theme.monoFamily
        font.pixelSize: Theme.titleSize
        font.bold: true
        color: Theme.ink
    }
    LabeledField {
        Layout.fillWidth: true
        label: labels.name
        fieldObjectName: "classifierName"
        text: editor.name
        onEdited: (text) => editor.name = text
    }
    LabeledPicker {
        objectName: "classifierModel"
        Layout.fillWidth: true
        label: labels.modelHeading
        model: editor.modelIDs
        value: editor.model
        onPicked: (value) => editor.model = value
    }
    LabelText { text: labels.model; visible: editor.modelIDs.length === 0 }
    LabelText { text: editor.samplingText }
    Slider {
        objectName: "classifierSampling"
        Layout.fillWidth: true
        from: 0.01
        to: 1.0
        stepSize: 0.01
        value: editor.samplingRate
        onMoved: editor.samplingRate = value
    }
    LabelText { text: labels.instructions }
    TextArea {
        objectName: "classifierPrompt"
        Layout.fillWidth: true
        wrapMode: TextEdit.Wrap
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
        text: editor.prompt
        onTextChanged: if (text !== editor.prompt) editor.prompt = text
        background: Rectangle { color: Theme.paper; border.color: Theme.rule; border.width: 1 }
    }
    CheckBox {
        objectName: "classifierActive"
        text: labels.active
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        checked: editor.active
        onToggled: editor.active = checked
    }
    LabelText { text: editor.dimensionsHeading }
    Repeater {
        model: editor.dimensions
        delegate: OutlinedBox {
            required property var modelData
            required property int index
            Layout.fillWidth: true
            ColumnLayout {
                width: parent.width
                RowLayout {
                    Layout.fillWidth: true
                    LabeledField {
                        Layout.fillWidth: true
                        label: labels.key
                        hint: labels.keyHint
                        text: modelData.key
                        onEdited: (text) => editor.setDimensionField(index, "key", text)
                    }
                    LabeledField {
                        Layout.fillWidth: true
                        label: labels.label
                        text: modelData.label
                        onEdited: (text) => editor.setDimensionField(index, "label", text)
                    }
                }
                LabeledField {
                    Layout.fillWidth: true
                    label: labels.values
                    hint: labels.valuesHint
                    text: modelData.values
                    onEdited: (text) => editor.setDimensionField(index, "values", text)
                }
                PlainButton { text: labels.remove; onClicked: editor.removeDimension(index) }
            }
        }
    }
    PlainButton { visible: editor.canAddDimension; text: labels.add; onClicked: editor.addDimension() }
    ErrorLine { objectName: "classifierEditorError"; text: editor.errorMessage }
    RowLayout {
        PlainButton {
            objectName: "saveClassifier"
            text: labels.save
            busy: editor.saving
            enabled: !editor.saving
            onClicked: editor.save()
        }
        PlainButton { text: labels.cancel; onClicked: form.cancelled() }
    }
}
