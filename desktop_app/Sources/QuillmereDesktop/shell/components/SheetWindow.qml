import QtQuick
import QtQuick.Layouts
import QtQuick.Window
import Quillmere

// A sheet: a screen too large for the small main window, in a window of its own that
// stays above the main window (transient for it). It is open while `open` is true; closing
// it by its close control or by the window manager sets `open` back to false, so bind
// `open` to the sheet's flag and write the flag back in `onCloseRequested`.
Window {
    id: sheet
    property bool open: false
    property string title: ""
    // The screen, loaded only while the sheet is open, so it reads its data afresh each time.
    property Component content
    // A screen with a heading and close control of its own hides the sheet's.
    property bool showsHeader: true
    signal closeRequested()

    width: 560
    height: 720
    minimumWidth: 420
    minimumHeight: 480
    visible: open
    color: Theme.paper
    // In the same layer as the main window and the drawer when those float above the
    // others; otherwise a sheet would open beneath them.
    flags: AppState.alwaysOnTop ? (Qt.Dialog | Qt.WindowStaysOnTopHint) : Qt.Dialog
    onClosing: function(close) { sheet.closeRequested() }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 12
        spacing: 6
        RowLayout {
            Layout.fillWidth: true
            visible: sheet.showsHeader
            Text {
                text: sheet.title
                font.family: Theme.monoFamily
                font.pixelSize: Theme.titleSize
                font.bold: true
                color: Theme.ink
            }
            Item { Layout.fillWidth: true }
            PlainButton {
                objectName: "sheetClose"
                text: "✕ CLOSE"
                onClicked: sheet.closeRequested()
            }
        }
        RuleView { Layout.fillWidth: true; visible: sheet.showsHeader }
        Loader {
            objectName: "sheetContent"
            Layout.fillWidth: true
            Layout.fillHeight: true
            active: sheet.open
            sourceComponent: sheet.content
        }
    }
    Shortcut {
        sequence: StandardKey.Cancel
        enabled: sheet.open
        onActivated: sheet.closeRequested()
    }
}
