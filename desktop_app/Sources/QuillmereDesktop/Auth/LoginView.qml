import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmere

// The sign-in screen: the wordmark, then one card for the present sign-in state.
Item {
    id: root
    LoginViewModel {
        id: vm
        auth: AuthStore
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 16
        spacing: 12

        Text {
            text: vm.wordmark
            font.family: Theme.monoFamily
            font.pixelSize: 22
            font.bold: true
            font.letterSpacing: 4
            color: Theme.ink
        }
        Text {
            text: vm.tagline
            font.family: Theme.monoFamily
            font.pixelSize: Theme.bodySize
            color: Theme.ink
            opacity: Theme.secondaryOpacity
        }
        RuleView { Layout.fillWidth: true }

        BusyIndicator {
            objectName: "signInSpinner"
            visible: vm.cardName === "spinner"
            running: visible
            Layout.alignment: Qt.AlignHCenter
        }

        // The relay did not answer.
        ColumnLayout {
            visible: vm.cardName === "unreachable"
            Layout.fillWidth: true
            spacing: 8
            AlertBoxView { text: vm.unreachableAlert; Layout.fillWidth: true }
            Text {
                text: vm.unreachableHelp
                wrapMode: Text.Wrap
                Layout.fillWidth: true
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                color: Theme.ink
            }
            TextEdit {
                text: vm.unreachableCommand
                readOnly: true
                selectByMouse: true
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                color: Theme.ink
            }
            ErrorLine { text: vm.errorText }
            PlainButton {
                text: vm.retryLabel
                busy: vm.isRetrying
                enabled: !vm.isRetrying
                onClicked: vm.retry()
            }
        }

        // E-mail address.
        ColumnLayout {
            visible: vm.cardName === "email"
            Layout.fillWidth: true
            spacing: 6
            LabelText { text: vm.emailLabel }
            FormField {
                Layout.fillWidth: true
                placeholderText: vm.emailPlaceholder
                text: vm.email
                onTextEdited: vm.email = text
                onAccepted: vm.sendCode()
            }
            ErrorLine { text: vm.errorText }
            PlainButton {
                text: vm.sendCodeLabel
                busy: vm.isSubmitting
                enabled: vm.canSendCode
                onClicked: vm.sendCode()
            }
        }

        // The code from the e-mail.
        ColumnLayout {
            visible: vm.cardName === "code"
            Layout.fillWidth: true
            spacing: 6
            Text {
                text: vm.codeSentText
                wrapMode: Text.Wrap
                Layout.fillWidth: true
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                color: Theme.ink
            }
            LabelText { text: vm.codeLabel }
            FormField {
                Layout.fillWidth: true
                placeholderText: vm.codePlaceholder
                text: vm.code
                onTextEdited: vm.code = text
                onAccepted: vm.verifyCode()
            }
            ErrorLine { text: vm.errorText }
            PlainButton {
                text: vm.verifyLabel
                busy: vm.isSubmitting
                enabled: vm.canVerify
                onClicked: vm.verifyCode()
            }
            RowLayout {
                PlainButton { text: vm.resendLabel; onClicked: vm.resendCode() }
                PlainButton { text: vm.changeEmailLabel; onClicked: vm.changeEmail() }
            }
        }

        // An authenticator code.
        ColumnLayout {
            visible: vm.cardName === "authenticator"
            Layout.fillWidth: true
            spacing: 6
            Text {
                text: vm.totpIntro
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                color: Theme.ink
            }
            LabelText { text: vm.totpLabel }
            FormField {
                Layout.fillWidth: true
                text: vm.code
                onTextEdited: vm.code = text
                onAccepted: vm.verifySecondFactor()
            }
            ErrorLine { text: vm.errorText }
            PlainButton {
                text: vm.verifyLabel
                busy: vm.isSubmitting
                enabled: vm.canVerify
                onClicked: vm.verifySecondFactor()
            }
            LabelText { text: vm.recoveryNote }
            PlainButton { text: vm.startOverLabel; onClicked: vm.changeEmail() }
        }

        // Only a passkey, which this app cannot use.
        ColumnLayout {
            visible: vm.cardName === "passkeyOnly"
            Layout.fillWidth: true
            spacing: 6
            AlertBoxView { text: vm.passkeyAlert; Layout.fillWidth: true }
            Text {
                text: vm.passkeyHelp
                wrapMode: Text.Wrap
                Layout.fillWidth: true
                font.family: Theme.monoFamily
                font.pixelSize: Theme.bodySize
                color: Theme.ink
            }
            ErrorLine { text: vm.errorText }
            PlainButton { text: vm.startOverLabel; onClicked: vm.changeEmail() }
        }

        Item { Layout.fillHeight: true }
    }
}
