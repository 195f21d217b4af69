// The CSI dispatch table: one case per final byte, each calling one command.

#include <string>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

bool is(std::span<const uint8_t> collect, std::string_view expected) {
    return collect.size() == expected.size() && std::equal(collect.begin(), collect.end(), expected.begin());
}

std::string text(std::span<const uint8_t> bytes) {
    return std::string(bytes.begin(), bytes.end());
}

std::string listText(const CsiParameters& pars) {
    std::string out = "[";
    for (int i = 0; i < pars.count; ++i)
        out += (i ? ", " : "") + std::to_string(pars.values[i]);
    return out + "]";
}

} // namespace

void Terminal::dispatchCsi(uint8_t final, const CsiParameters& pars, std::span<const uint8_t> collect) {
    // SGR only changes the attribute; everything else may write cells with it.
    if (final != 'm')
        ensureAttributes();
    // Only a graphic character directly before it can be repeated: any control in between,
    // a repeat included, ends that.
    const bool repeatable = m_hasLastChar;
    m_hasLastChar = false;
    switch (final) {
    case '@':
        cmdInsertChars(pars);
        break;
    case 'A':
        cmdCursorUp(pars);
        break;
    case 'B':
        cmdCursorDown(pars);
        break;
    case 'C':
        cursorForward(pars.atLeast1(0));
        break;
    case 'D':
        cursorBackward(pars.atLeast1(0));
        break;
    case 'E':
        cmdCursorNextLine(pars, false);
        break;
    case 'F':
        cmdCursorNextLine(pars, true);
        break;
    case 'G':
        cmdCursorCharAbsolute(pars);
        break;
    case 'H':
        cmdCursorPosition(pars);
        break;
    case 'I':
        cmdTab(pars.atLeast1(0));
        break;
    case 'J':
        cmdEraseInDisplay(pars, is(collect, "?"));
        break;
    case 'K':
        cmdEraseInLine(pars, is(collect, "?"));
        break;
    case 'L':
        cmdInsertLines(pars);
        break;
    case 'M':
        cmdDeleteLines(pars);
        break;
    case 'P':
        cmdDeleteChars(pars);
        break;
    case 'S':
        csiS(pars, collect);
        break;
    case 'T':
        csiT(pars, collect);
        break;
    case 'X':
        cmdEraseChars(pars);
        break;
    case 'Z':
        cmdBackTab(pars.atLeast1(0));
        break;
    case '`':
        cmdCharPosAbsolute(pars);
        break;
    case 'a':
        cmdHPositionRelative(pars);
        break;
    case 'b':
        if (repeatable)
            cmdRepeatPrecedingCharacter(pars);
        break;
    case 'c':
        cmdSendDeviceAttributes(pars, collect);
        break;
    case 'd':
        cmdLinePosAbsolute(pars);
        break;
    case 'e':
        cmdVPositionRelative(pars);
        break;
    case 'f':
        cmdHVPosition(pars);
        break;
    case 'g':
        cmdTabClear(pars);
        break;
    case 'h':
        cmdSetMode(pars, collect);
        break;
    case 'k':
        if (is(collect, " ")) {
            cmdSelectCharacterPath(pars);
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    case 'l':
        cmdResetMode(pars, collect);
        break;
    case 'm':
        cmdCsiM(pars, collect);
        break;
    case 'n':
        cmdDeviceStatus(pars, collect);
        break;
    case 'p':
        csiPHandler(pars, collect);
        break;
    case 'q':
        if (is(collect, ">")) {
            cmdXTVERSION(pars);
        } else if (is(collect, " ")) {
            cmdSetCursorStyle(pars);
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    case 'r':
        if (is(collect, "?")) {
            cmdRestorePrivateModes(pars);
        } else if (collect.empty()) {
            cmdSetScrollRegion(pars);
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    case 's':
        csiLowerS(pars, collect);
        break;
    case 't':
        csiLowerT(pars, collect);
        break;
    case 'u':
        if (handleKittyKeyboardProtocol(pars, collect))
            break;
        if (collect.empty()) {
            cmdRestoreCursor();
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    case 'v':
        if (is(collect, "$")) {
            csiCopyRectangularArea(pars);
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    case 'x':
        csiX(pars, collect);
        break;
    case 'y':
        if (is(collect, "*")) {
            cmdDECRQCRA(pars);
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    case 'z':
        if (is(collect, "$")) {
            cmdDECERA(pars);
        } else if (is(collect, "'")) {
            log("TODO: Enable Locator Reporting (DECELR)");
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    case '{':
        if (is(collect, "$")) {
            cmdSelectiveEraseRectangularArea(pars);
        } else if (is(collect, "#")) {
            log("CSI # { not implemented - XTPUSHSGR with " + listText(pars));
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    case '}':
        if (is(collect, "'")) {
            cmdInsertColumns(pars);
        } else if (is(collect, "#")) {
            log("CSI # } not implemented- XTPOPSGR with " + listText(pars));
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    case '~':
        if (is(collect, "'")) {
            cmdDeleteColumns(pars);
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    default:
        logUnknownCsi(collect, final, pars);
        break;
    }
}

void Terminal::csiS(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (is(collect, " ")) {
        cmdSelectPresentationDirection(pars);
    } else {
        cmdScrollUp(pars);
    }
}

void Terminal::csiT(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (collect.empty()) {
        cmdScrollDown(pars);
    } else if (is(collect, ">")) {
        cmdSetTitleModes(pars, false);
    } else {
        logUnknownCsi(collect, 'T', pars);
    }
}

void Terminal::csiLowerS(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (is(collect, ">")) {
        cmdSetMouseShiftCapture(pars);
    } else if (is(collect, "?")) {
        cmdSavePrivateModes(pars);
    } else if (collect.empty()) {
        cmdSaveCursorOrSetMargins(pars);
    } else {
        logUnknownCsi(collect, 's', pars);
    }
}

void Terminal::csiLowerT(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (collect.empty()) {
        cmdWindowOptions(pars);
    } else if (is(collect, ">")) {
        cmdSetTitleModes(pars, true);
    } else {
        log("Unhandled csiT " + text(collect) + " " + listText(pars));
    }
}

void Terminal::cmdSetTitleModes(const CsiParameters& pars, bool on) {
    // XTSMTITLE and XTRMTITLE: each parameter names one way titles are set or reported.
    for (int i = 0; i < pars.count; ++i) {
        switch (pars.values[i]) {
        case 0:
            m_xtermTitleSetHex = on;
            break;
        case 1:
            m_xtermTitleQueryHex = on;
            break;
        case 2:
            m_xtermTitleSetUtf = on;
            break;
        case 3:
            m_xtermTitleQueryUtf = on;
            break;
        default:
            break;
        }
    }
}

void Terminal::cmdSetMouseShiftCapture(const CsiParameters& pars) {
    m_mouseShiftCapture = pars.at(0) == 1;
}

void Terminal::cmdSaveCursorOrSetMargins(const CsiParameters& pars) {
    // The same final byte is DECSLRM while left and right margins are enabled, SCOSC otherwise.
    if (m_modes.marginMode) {
        cmdSetMargins(pars);
    } else {
        cmdSaveCursor();
    }
}

void Terminal::csiPHandler(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (is(collect, "!")) {
        cmdSoftReset();
    } else if (is(collect, "\"")) {
        cmdSetConformanceLevel(pars);
    } else if (is(collect, "?$")) {
        cmdDecRqm(pars, true);
    } else if (is(collect, "$")) {
        cmdDecRqm(pars, false);
    } else {
        log("Unhandled CSI " + text(collect) + " with pars=" + listText(pars));
    }
}

void Terminal::csiX(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (is(collect, "$")) {
        cmdFillRectangularArea(pars);
    } else if (is(collect, "*")) {
        // Attribute change extent only matters for DECCARA, which this terminal leaves out.
    } else {
        log("Not implemented CSI x with collect: collect=" + text(collect) + " and pars=" + listText(pars));
    }
}

void Terminal::cmdSetCursorStyle(const CsiParameters& pars) {
    static constexpr CursorStyle kStyles[] = {CursorStyle::blinkBlock,      CursorStyle::blinkBlock,
                                              CursorStyle::steadyBlock,     CursorStyle::blinkUnderline,
                                              CursorStyle::steadyUnderline, CursorStyle::blinkBar,
                                              CursorStyle::steadyBar};
    const int style = pars.at(0);
    if (style < 0 || style > 6)
        return;
    m_cursorStyle = kStyles[style];
    if (m_delegate)
        m_delegate->cursorStyleChanged(*this, m_cursorStyle);
}

void Terminal::cmdSoftReset() {
    m_modes.defaultBidiState = m_options.initialBidiState;
    applyCurrentBidiStateAtParagraphStart(kBidiAllProperties);
    m_extensions->applyCurrentBidiStateAtParagraphStart(*this, kBidiAllProperties);
    m_savedBidiPrivateModes.reset();
    m_cursorHidden = false;
    m_originMode = false;
    m_modes.insertMode = false;
    m_reverseWraparound = false;
    m_modes.wraparound = true;
    m_applicationKeypad = false;
    m_applicationCursor = false;
    m_modes.marginMode = false;
    m_curAttr = kEmptyAttribute;
    m_buffer->softReset();
    m_charset = nullptr;
    m_gCharsets = {};
    m_gLevel = 0;
    m_conformance = TerminalConformance::vt500;
    m_activeHyperlink.reset();
    m_lineFeedMode = m_options.convertEol;
    m_extensions->reset(*this, false);
    refreshAttributes();
}

void Terminal::cmdSetConformanceLevel(const CsiParameters& pars) {
    switch (pars.at(0)) {
    case 61:
        m_conformance = TerminalConformance::vt100;
        break;
    case 62:
        m_conformance = TerminalConformance::vt200;
        break;
    case 63:
        m_conformance = TerminalConformance::vt300;
        break;
    case 64:
        m_conformance = TerminalConformance::vt400;
        break;
    case 65:
        m_conformance = TerminalConformance::vt500;
        break;
    default:
        log("Unhandled CSI \" with pars=" + listText(pars));
        return;
    }
    // A level of VT200 or above chooses the C1 form of replies by its second parameter.
    if (m_conformance != TerminalConformance::vt100 && pars.count > 1) {
        m_cc.send8bit = pars.values[1] == 0 || pars.values[1] == 2;
    } else if (m_conformance == TerminalConformance::vt100) {
        m_cc.send8bit = false;
    }
}

} // namespace termkit
