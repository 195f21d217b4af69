pragma Singleton
import QtQuick

// The palette: black ink on white paper, with thin rules.
QtObject {
    readonly property color ink: "#000000"
    readonly property color paper: "#ffffff"
    readonly property color rule: Qt.rgba(0, 0, 0, 0.85)
    readonly property real secondaryOpacity: 0.6
    readonly property real notSuppliedOpacity: 0.45
    readonly property string monoFamily: "DejaVu Sans Mono"
    readonly property int labelSize: 10
    readonly property int bodySize: 12
    readonly property int titleSize: 15
    readonly property int spacing: 8
}
