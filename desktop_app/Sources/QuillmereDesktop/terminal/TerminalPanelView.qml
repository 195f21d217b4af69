import QtQuick
import QtQuick.Layouts
import Quillmere

// The drawer's content: the two tabs, the selected tab's sync line, the close button, and
// both terminals stacked. The hidden one is transparent and takes no input, but keeps
// running and recording.
Rectangle {
    id: panelView
    required property TerminalPanelViewModel panel
    color: Theme.paper

    // The edge against the main window: borderless windows get no shadow to part them.
    Rectangle {
        anchors.right: parent.right
        anchors.top: parent.top
        anchors.bottom: parent.bottom
        width: 1
        color: Theme.rule
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 8
        spacing: 6

        RowLayout {
            Layout.fillWidth: true
            spacing: 6
            PlainButton {
                text: panelView.panel.claudeTitle
                selected: panelView.panel.selectedTab === "claude"
                onClicked: panelView.panel.selectedTab = "claude"
            }
            PlainButton {
                text: panelView.panel.codexTitle
                selected: panelView.panel.selectedTab === "codex"
                onClicked: panelView.panel.selectedTab = "codex"
            }
            Item { Layout.fillWidth: true }
            PlainButton {
                objectName: "closeDrawer"
                text: "✕"
                onClicked: panelView.panel.close()
            }
        }
        Text {
            objectName: "syncStatus"
            Layout.fillWidth: true
            text: panelView.panel.syncStatus
            elide: Text.ElideRight
            font.family: Theme.monoFamily
            font.pixelSize: Theme.labelSize
            color: Theme.ink
        }
        RuleView { Layout.fillWidth: true }

        Item {
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true

            CapturingTerminalView {
                id: claudeTerminal
                objectName: "claudeTerminal"
                anchors.fill: parent
                pipeline: panelView.panel.claudePipeline
                autoRunCommand: panelView.panel.claudeAutoRun
                autoRunDelayMs: panelView.panel.autoRunDelayMs
                workingDirectory: panelView.panel.workingDirectory
                fontFamily: panelView.panel.fontFamily
                fontSize: panelView.panel.fontSize
                isActive: panelView.panel.selectedTab === "claude"
                opacity: isActive ? 1 : 0
                enabled: isActive
            }
            CapturingTerminalView {
                id: codexTerminal
                objectName: "codexTerminal"
                anchors.fill: parent
                pipeline: panelView.panel.codexPipeline
                autoRunCommand: panelView.panel.codexAutoRun
                autoRunDelayMs: panelView.panel.autoRunDelayMs
                workingDirectory: panelView.panel.workingDirectory
                fontFamily: panelView.panel.fontFamily
                fontSize: panelView.panel.fontSize
                isActive: panelView.panel.selectedTab === "codex"
                opacity: isActive ? 1 : 0
                enabled: isActive
            }
            Connections {
                target: claudeTerminal
                function onFindRequested() { findBar.open() }
            }
            Connections {
                target: codexTerminal
                function onFindRequested() { findBar.open() }
            }
            TerminalFindBarView {
                id: findBar
                objectName: "findBar"
                anchors.top: parent.top
                anchors.left: parent.left
                anchors.right: parent.right
                anchors.margins: 4
                terminal: panelView.panel.selectedTab === "codex" ? codexTerminal : claudeTerminal
            }
        }
    }
}
