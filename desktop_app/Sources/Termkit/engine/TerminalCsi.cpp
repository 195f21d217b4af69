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
        if (is(collect, ">")) {
            mouseShiftCapture = pars.at(0) == 1;
        } else if (is(collect, "?")) {
            cmdSavePrivateModes(pars);
        } else if (collect.empty()) {
            if (marginMode) {
                cmdSetMargins(pars);
            } else {
                cmdSaveCursor();
            }
        } else {
            logUnknownCsi(collect, final, pars);
        }
        break;
    case 't':
        if (collect.empty()) {
            cmdWindowOptions(pars);
        } else if (is(collect, ">")) {
            for (int i = 0; i < pars.count; ++i) {
                switch (pars.values[i]) {
                case 0:
                    xtermTitleSetHex = true;
                    break;
                case 1:
                    xtermTitleQueryHex = true;
                    break;
                case 2:
                    xtermTitleSetUtf = true;
                    break;
                case 3:
                    xtermTitleQueryUtf = true;
                    break;
                default:
                    break;
                }
            }
        } else {
            log("Unhandled csiT " + text(collect) + " " + listText(pars));
        }
        break;
    case 'u':
        if (m_extensions->handleKittyKeyboardProtocol(*this, pars, collect))
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
        if (m_parser.csiHandlerFallback)
            m_parser.csiHandlerFallback(collect, final, pars);
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
        return;
    }
    if (is(collect, ">")) {
        for (int i = 0; i < pars.count; ++i) {
            switch (pars.values[i]) {
            case 0:
                xtermTitleSetHex = false;
                break;
            case 1:
                xtermTitleQueryHex = false;
                break;
            case 2:
                xtermTitleSetUtf = false;
                break;
            case 3:
                xtermTitleQueryUtf = false;
                break;
            default:
                break;
            }
        }
        return;
    }
    logUnknownCsi(collect, 'T', pars);
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
    cursorStyle = kStyles[style];
    if (m_delegate)
        m_delegate->cursorStyleChanged(*this, cursorStyle);
}

void Terminal::cmdSoftReset() {
    currentBidiState = m_options.initialBidiState;
    for (Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()})
        b->defaultBidiState = currentBidiState;
    m_extensions->applyCurrentBidiStateAtParagraphStart(*this, 0xF);
    savedBidiPrivateModes.reset();
    cursorHidden = false;
    originMode = false;
    insertMode = false;
    reverseWraparound = false;
    wraparound = true;
    applicationKeypad = false;
    applicationCursor = false;
    marginMode = false;
    Buffer& b = *m_buffer;
    b.scrollTop = 0;
    b.scrollBottom = b.rows() - 1;
    curAttr = kEmptyAttribute;
    b.softReset();
    charset = nullptr;
    gCharsets = {};
    gLevel = 0;
    conformance = TerminalConformance::vt500;
    activeHyperlink.reset();
    lineFeedMode = m_options.convertEol;
    m_extensions->reset(*this, false);
    syncBufferModes();
    refreshAttributes();
}

void Terminal::cmdSetConformanceLevel(const CsiParameters& pars) {
    switch (pars.at(0)) {
    case 61:
        conformance = TerminalConformance::vt100;
        break;
    case 62:
        conformance = TerminalConformance::vt200;
        break;
    case 63:
        conformance = TerminalConformance::vt300;
        break;
    case 64:
        conformance = TerminalConformance::vt400;
        break;
    case 65:
        conformance = TerminalConformance::vt500;
        break;
    default:
        log("Unhandled CSI \" with pars=" + listText(pars));
        return;
    }
    // A level of VT200 or above chooses the C1 form of replies by its second parameter.
    if (conformance != TerminalConformance::vt100 && pars.count > 1) {
        cc.send8bit = pars.values[1] == 0 || pars.values[1] == 2;
    } else if (conformance == TerminalConformance::vt100) {
        cc.send8bit = false;
    }
}

} // namespace termkit
