import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The settings sheet. For now it holds the relay section's way to the provider inventory
// and the gateway keys; each button opens its own sheet.
ScrollView {
    id: view
    objectName: "settingsView"
    clip: true
    contentWidth: availableWidth

    component Small: Text {
        color: Theme.ink
        font.family: Theme.monoFamily
        font.pixelSize: Theme.labelSize
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }

    ColumnLayout {
        width: view.availableWidth - 8
        spacing: 8

        BannerView { Layout.fillWidth: true; text: "relay" }
        Small {
            text: "The default local relay starts and stops with Quillmere. Provider keys and model inventory can live in: relay.env"
        }
        Small { text: "Name the file relay.env and restart Quillmere after changes. Secrets stay outside the app bundle." }
        PlainButton {
            objectName: "configureProviders"
            text: "Configure API Providers…"
            onClicked: RootController.showProviderSetup = true
        }
        PlainButton {
            objectName: "manageGatewayKeys"
            text: "Manage Gateway API Keys…"
            onClicked: RootController.showGatewayAccess = true
        }
        PlainButton {
            objectName: "manageClassifiers"
            text: "Manage Usage Classifiers…"
            onClicked: RootController.showClassifiers = true
        }
    }
}
