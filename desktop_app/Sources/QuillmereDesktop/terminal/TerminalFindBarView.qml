import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The find bar over a terminal (Ctrl+Shift+F): every match is highlighted as the term is
// typed; Enter and "Next" select and reveal the next one, Shift+Enter and "Previous" the one
// before; Escape and "Close" end the search. The search itself is the terminal's.
Rectangle {
    id: findBar
    // The terminal searched: a TerminalView (the drawer's active one).
    property var terminal: null
    property bool caseSensitive: false
    property bool regex: false
    property bool wholeWord: false
    readonly property int matchCount: terminal ? terminal.searchMatchCount : 0

    signal searchChanged()
    signal findNext()
    signal findPrevious()
    signal close()
    signal optionsChanged()

    visible: false
    color: Theme.paper
    border.color: Theme.rule
    border.width: 1
    implicitHeight: column.implicitHeight + 12

    function open() {
        visible = true
        searchField.forceActiveFocus()
        searchField.selectAll()
        searchChanged()
    }

    onSearchChanged: if (terminal) terminal.highlightAll(searchField.text, caseSensitive, regex, wholeWord)
    onOptionsChanged: searchChanged()
    onFindNext: if (terminal) terminal.findNext(searchField.text, caseSensitive, regex, wholeWord)
    onFindPrevious: if (terminal) terminal.findPrevious(searchField.text, caseSensitive, regex, wholeWord)
    onClose: {
        visible = false
        if (terminal) {
            terminal.clearSearch()
            terminal.forceActiveFocus()
        }
    }

    // Two rows, so that the bar fits the drawer's width: the term and the moves, then the
    // options.
    ColumnLayout {
        id: column
        anchors.fill: parent
        anchors.margins: 6
        spacing: 6
        RowLayout {
            Layout.fillWidth: true
            spacing: 6
            TextField {
                id: searchField
                objectName: "searchField"
                Layout.fillWidth: true
                Layout.minimumWidth: 80
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                onTextEdited: findBar.searchChanged()
                Keys.onReturnPressed: (event) => {
                    if (event.modifiers & Qt.ShiftModifier)
                        findBar.findPrevious()
                    else
                        findBar.findNext()
                }
                Keys.onEnterPressed: findBar.findNext()
                Keys.onEscapePressed: findBar.close()
            }
            Text {
                objectName: "matchCount"
                text: findBar.matchCount
                font.family: Theme.monoFamily
                font.pixelSize: Theme.labelSize
                color: Theme.ink
            }
            PlainButton {
                objectName: "previousButton"
                text: "Previous"
                onClicked: findBar.findPrevious()
            }
            PlainButton {
                objectName: "nextButton"
                text: "Next"
                onClicked: findBar.findNext()
            }
            PlainButton {
                objectName: "closeButton"
                text: "Close"
                onClicked: findBar.close()
            }
        }
        RowLayout {
            Layout.fillWidth: true
            spacing: 6
            PlainButton {
                objectName: "caseSensitiveButton"
                text: "Case Sensitive"
                selected: findBar.caseSensitive
                onClicked: { findBar.caseSensitive = !findBar.caseSensitive; findBar.optionsChanged() }
            }
            PlainButton {
                objectName: "regexButton"
                text: "Regex"
                selected: findBar.regex
                onClicked: { findBar.regex = !findBar.regex; findBar.optionsChanged() }
            }
            PlainButton {
                objectName: "wholeWordButton"
                text: "Whole Word"
                selected: findBar.wholeWord
                onClicked: { findBar.wholeWord = !findBar.wholeWord; findBar.optionsChanged() }
            }
            Item { Layout.fillWidth: true }
        }
    }
}
