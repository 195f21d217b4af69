import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// Sign-in, or the application: the top bar, the present screen, and the verdict toast.
Rectangle {
    id: root
    color: Theme.paper

    FloatingWindowConfigurator {
        alwaysOnTop: AppState.alwaysOnTop
        onResolved: (window) => TerminalDrawerController.setMainWindow(window)
    }

    LoginView {
        anchors.fill: parent
        visible: !RootController.signedIn
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 12
        spacing: 10
        visible: RootController.signedIn

        RowLayout {
            Layout.fillWidth: true
            Text {
                text: RootController.wordmark
                font.family: Theme.monoFamily
                font.pixelSize: Theme.titleSize
                font.bold: true
                color: Theme.ink
            }
            StatusDot { objectName: "statusDot"; online: AppState.online }
            PlainButton {
                objectName: "terminalToggle"
                text: TerminalDrawerController.toggleLabel
                ToolTip.text: TerminalDrawerController.toggleHelp
                ToolTip.visible: hovered
                ToolTip.delay: 500
                onClicked: RootController.toggleTerminal()
            }
        }
        // The panel buttons have a row of their own: the narrow window cannot hold them beside the wordmark.
        RowLayout {
            Layout.fillWidth: true
            Item { Layout.fillWidth: true }
            PanelButton {
                objectName: "integrationsButton"
                text: "⇄"
                help: "Integrations"
                onClicked: RootController.showIntegrations = true
            }
            PanelButton {
                objectName: "orchestratorButton"
                text: "▷"
                help: "Agent orchestrator"
                shortcut: "Ctrl+Shift+O"
                onClicked: RootController.showOrchestrator = true
            }
            PanelButton {
                objectName: "contextButton"
                text: "❖"
                help: "Project context"
                shortcut: "Ctrl+Shift+P"
                onClicked: RootController.showContext = true
            }
            PanelButton {
                objectName: "presetsButton"
                text: "◇"
                help: "Agent presets"
                shortcut: "Ctrl+Shift+A"
                onClicked: RootController.showPresets = true
            }
            PanelButton {
                objectName: "routingButton"
                text: "⌁"
                help: "Model router"
                shortcut: "Ctrl+Shift+R"
                onClicked: RootController.showRouting = true
            }
            PanelButton {
                objectName: "improveButton"
                text: "◔"
                help: "Improve — corrections, steering, frustration"
                shortcut: "Ctrl+Shift+I"
                onClicked: RootController.showImprove = true
            }
            PanelButton {
                objectName: "settingsButton"
                text: "⚙"
                onClicked: RootController.showSettings = true
            }
        }
        // The working folder of terminals, runs and context, under the bar: it needs the width.
        ProjectPicker {
            objectName: "projectPicker"
            Layout.fillWidth: true
            onRestartTerminals: RootController.restartTerminals()
        }
        RuleView { Layout.fillWidth: true }

        // All three screens stay alive: a button's own screen must not be destroyed while
        // its click is still being handled.
        StackLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: AppState.screenName === "queue" ? 1 : AppState.screenName === "item" ? 2 : 0
            HomeView {}
            QueueView {}
            // By file: QtQuick has a base type of its own named ItemView.
            Loader { source: "ItemView.qml" }
        }
    }

    // The sheets, each opened by its flag on the root controller.
    SheetWindow {
        objectName: "routingSheet"
        title: "model router"
        transientParent: root.Window.window
        open: RootController.showRouting
        onCloseRequested: RootController.showRouting = false
        content: Component { RoutingView {} }
    }
    SheetWindow {
        objectName: "settingsSheet"
        title: "settings"
        transientParent: root.Window.window
        open: RootController.showSettings
        onCloseRequested: RootController.showSettings = false
        content: Component { SettingsView {} }
    }
    // The two sheets the settings open; they stay above the main window like the rest.
    SheetWindow {
        objectName: "providerSetupSheet"
        title: "api providers"
        transientParent: root.Window.window
        open: RootController.showProviderSetup
        onCloseRequested: RootController.showProviderSetup = false
        content: Component { ProviderSetupView {} }
    }
    SheetWindow {
        objectName: "gatewayAccessSheet"
        title: "api gateway access"
        transientParent: root.Window.window
        open: RootController.showGatewayAccess
        onCloseRequested: RootController.showGatewayAccess = false
        content: Component { GatewayAccessView {} }
    }

    SheetWindow {
        objectName: "contextSheet"
        title: "project context"
        transientParent: root.Window.window
        open: RootController.showContext
        onCloseRequested: RootController.showContext = false
        content: Component { ProjectContextView {} }
    }

    SheetWindow {
        objectName: "orchestratorSheet"
        title: "agent orchestrator"
        transientParent: root.Window.window
        width: 900
        height: 680
        minimumWidth: 820
        minimumHeight: 620
        open: RootController.showOrchestrator
        onCloseRequested: RootController.showOrchestrator = false
        content: Component { AgentOrchestratorView {} }
    }

    SheetWindow {
        objectName: "presetsSheet"
        title: "agent presets"
        transientParent: root.Window.window
        open: RootController.showPresets
        onCloseRequested: RootController.showPresets = false
        content: Component { PresetManagementView {} }
    }

    SheetWindow {
        objectName: "improveSheet"
        title: "improve"
        transientParent: root.Window.window
        open: RootController.showImprove
        onCloseRequested: RootController.showImprove = false
        content: Component { ImproveView {} }
    }

    SheetWindow {
        objectName: "integrationsSheet"
        title: "integrations"
        transientParent: root.Window.window
        open: RootController.showIntegrations
        onCloseRequested: RootController.showIntegrations = false
        content: Component { IntegrationsView {} }
    }

    // Opened from the settings sheet.
    SheetWindow {
        objectName: "classifiersSheet"
        title: "usage classifiers"
        transientParent: root.Window.window
        open: RootController.showClassifiers
        onCloseRequested: RootController.showClassifiers = false
        content: Component { ClassifierManagementView {} }
    }

    SheetWindow {
        objectName: "onboardingSheet"
        title: "connect your clis"
        showsHeader: false
        transientParent: root.Window.window
        width: 460
        height: 420
        minimumWidth: 380
        minimumHeight: 360
        open: RootController.showOnboarding
        onCloseRequested: RootController.showOnboarding = false
        content: Component {
            OnboardingView {
                onCloseRequested: RootController.showOnboarding = false
                onOpenTerminalRequested: RootController.openTerminal()
            }
        }
    }

    // The drawer's shortcut works from either window.
    Shortcut {
        sequence: TerminalDrawerController.toggleShortcut
        context: Qt.ApplicationShortcut
        enabled: RootController.signedIn
        onActivated: RootController.toggleTerminal()
    }

    Text {
        objectName: "toast"
        anchors.centerIn: parent
        visible: RootController.signedIn && AppState.sentToast.length > 0
        text: AppState.sentToast
        width: parent.width - 24
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
        font.family: Theme.monoFamily
        font.pixelSize: 34
        font.bold: true
        color: Theme.ink
        style: Text.Outline
        styleColor: Theme.paper
    }
}
