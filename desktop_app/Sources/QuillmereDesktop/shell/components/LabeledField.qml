import QtQuick
import QtQuick.Layouts
import Quillmere

// A small label over a text field; `edited` carries each change the person types.
ColumnLayout {
    property alias label: fieldLabel.text
    property alias text: input.text
    property alias hint: input.placeholderText
    property alias echoMode: input.echoMode
    property alias fieldObjectName: input.objectName
    signal edited(string text)
    spacing: 2
    LabelText { id: fieldLabel; visible: text.length > 0 }
    FormField {
        id: input
        Layout.fillWidth: true
        onTextEdited: parent.edited(text)
    }
}
