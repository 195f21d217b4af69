import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The preset editor's form. Layout only: PresetEditorViewModel validates and saves.
ColumnLayout {
    id: form
    objectName: "presetEditorView"
    required property PresetEditorViewModel editor
    signal cancelled()
    readonly property var labels: editor ? editor.labels : ({})
    spacing: 4

    component Body: Text {
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    component Field: TextField {
        Layout.fillWidth: true
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
    }
    component Picker: ComboBox {
        Layout.fillWidth: true
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
    }

    Text {
        text: editor.title
        font.family: Theme.monoFamily
        font.pixelSize: Theme.titleSize
        font.bold: true
        color: Theme.ink
    }
    LabelText { text: labels.slug }
    Field {
        objectName: "presetSlug"
        placeholderText: labels.slugHint
        text: editor.slug
        readOnly: editor.slugLocked
        onTextEdited: editor.slug = text
    }
    LabelText { text: labels.model }
    Picker {
        objectName: "presetModel"
        editable: true
        model: editor.modelIDs
        editText: editor.model
        onEditTextChanged: editor.model = editText
    }
    LabelText { text: labels.fallbacks }
    Field { placeholderText: labels.fallbacksHint; text: editor.fallbacks; onTextEdited: editor.fallbacks = text }
    RowLayout {
        Layout.fillWidth: true
        ColumnLayout {
            LabelText { text: labels.serviceTier }
            Picker {
                model: editor.serviceTiers
                currentIndex: Math.max(0, model.indexOf(editor.serviceTier))
                onActivated: editor.serviceTier = currentText
            }
        }
        ColumnLayout {
            LabelText { text: labels.providerSort }
            Picker {
                model: editor.providerSorts
                currentIndex: Math.max(0, model.indexOf(editor.providerSort))
                onActivated: editor.providerSort = currentText
            }
        }
    }
    LabelText { text: labels.instructions }
    TextArea {
        objectName: "presetInstructions"
        Layout.fillWidth: true
        Layout.preferredHeight: 70
        wrapMode: TextEdit.Wrap
        text: editor.systemPrompt
        font.family: Theme.monoFamily
        font.pixelSize: Theme.bodySize
        background: Rectangle { border.color: Theme.rule; border.width: 1; color: Theme.paper }
        onTextChanged: if (text !== editor.systemPrompt) editor.systemPrompt = text
    }
    RowLayout {
        Layout.fillWidth: true
        ColumnLayout {
            LabelText { text: labels.maxTokens }
            Field { placeholderText: labels.maxTokensHint; text: editor.maxTokens; onTextEdited: editor.maxTokens = text }
        }
        ColumnLayout {
            LabelText { text: labels.temperature }
            Field { placeholderText: labels.optional; text: editor.temperature; onTextEdited: editor.temperature = text }
        }
        ColumnLayout {
            LabelText { text: labels.topP }
            Field { placeholderText: labels.optional; text: editor.topP; onTextEdited: editor.topP = text }
        }
    }
    LabelText { text: labels.responseFormat }
    Picker {
        model: editor.responseFormats
        currentIndex: Math.max(0, model.indexOf(editor.responseFormat))
        onActivated: editor.responseFormat = currentText
    }
    CheckBox {
        text: labels.compression
        checked: editor.contextCompression
        onToggled: editor.contextCompression = checked
    }
    Body { text: labels.compressionNote }
    CheckBox {
        text: labels.healing
        checked: editor.responseHealing
        onToggled: editor.responseHealing = checked
    }
    Body { text: labels.healingNote }
    Body { text: labels.overrideNote }
    ErrorLine { objectName: "presetEditorError"; text: editor.errorMessage }
    RowLayout {
        PlainButton {
            objectName: "presetSave"
            text: editor.saveLabel
            enabled: !editor.saving
            busy: editor.saving
            onClicked: editor.save()
        }
        PlainButton { text: "CANCEL"; onClicked: form.cancelled() }
    }
}
