// ANSI and DEC private modes, mode reports, the alternate buffer, synchronized output.

#include <string>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

constexpr int kStateUnknown = 0;
constexpr int kStateSet = 1;
constexpr int kStateReset = 2;
constexpr int kStatePermanentlyReset = 4;

int stateOf(bool on) {
    return on ? kStateSet : kStateReset;
}

bool is(std::span<const uint8_t> collect, std::string_view expected) {
    return collect.size() == expected.size() && std::equal(collect.begin(), collect.end(), expected.begin());
}

// Bits naming the bidi properties a change touches.
constexpr unsigned kBidiSupportMode = 1;
constexpr unsigned kBidiAutodetect = 2;
constexpr unsigned kBidiFallback = 4;
constexpr unsigned kBidiMirroring = 8;

} // namespace

void Terminal::cmdSetMode(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (is(collect, "?")) {
        for (int i = 0; i < pars.count; ++i)
            setPrivateMode(pars.values[i], true);
    } else if (collect.empty()) {
        for (int i = 0; i < pars.count; ++i)
            setAnsiMode(pars.values[i], true);
    } else {
        log("Unhandled verbatim setMode with " + std::string(collect.begin(), collect.end()));
    }
}

void Terminal::cmdResetMode(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (is(collect, "?")) {
        for (int i = 0; i < pars.count; ++i)
            setPrivateMode(pars.values[i], false);
    } else if (collect.empty()) {
        for (int i = 0; i < pars.count; ++i)
            setAnsiMode(pars.values[i], false);
    } else {
        log("Unhandled verbatim setMode with " + std::string(collect.begin(), collect.end()));
    }
}

void Terminal::setAnsiMode(int mode, bool on) {
    switch (mode) {
    case 2:
        break;
    case 4:
        insertMode = on;
        syncBufferModes();
        break;
    case 8:
        changeBidiState(
            [on](BidiPresentationState& s) {
                s.supportMode = on ? BidiSupportMode::implicit : BidiSupportMode::explicit_;
            },
            kBidiSupportMode);
        break;
    case 20:
        lineFeedMode = on;
        break;
    default:
        log("Unhandled setMode (SM) with " + std::to_string(mode) + " and " + (on ? "set" : "reset"));
        break;
    }
}

void Terminal::setPrivateMode(int mode, bool on) {
    switch (mode) {
    case 1:
        applicationCursor = on;
        break;
    case 2:
        if (on) {
            gCharsets = {};
            charset = nullptr;
        }
        break;
    case 3:
        if (allow80To132)
            setColumnMode(on);
        break;
    case 4:
        smoothScroll = on;
        break;
    case 5:
        reverseColors = on;
        updateFullScreen();
        if (m_delegate)
            m_delegate->colorChanged(*this, std::nullopt);
        break;
    case 6:
        originMode = on;
        setCursor(0, 0);
        break;
    case 7:
        wraparound = on;
        syncBufferModes();
        break;
    case 9:
        setMouseMode(on ? MouseMode::x10 : MouseMode::off);
        break;
    case 12:
        cursorBlink = on;
        break;
    case 25:
        cursorHidden = !on;
        if (m_delegate) {
            if (on) {
                m_delegate->showCursor(*this);
            } else {
                m_delegate->hideCursor(*this);
            }
        }
        break;
    case 40:
        allow80To132 = on;
        break;
    case 45:
        reverseWraparound = on;
        break;
    case 47:
        if (on) {
            activateAltBuffer(false);
        } else {
            activateNormalBuffer(false);
        }
        break;
    case 63:
    case 95:
    case 1034:
        break;
    case 66:
        applicationKeypad = on;
        break;
    case 69: {
        marginMode = on;
        Buffer& b = *m_buffer;
        b.marginLeft = 0;
        b.marginRight = b.cols() - 1;
        syncBufferModes();
        break;
    }
    case 1000:
        setMouseMode(on ? MouseMode::vt200 : MouseMode::off);
        break;
    case 1002:
        setMouseMode(on ? MouseMode::buttonEventTracking : MouseMode::off);
        break;
    case 1003:
        setMouseMode(on ? MouseMode::anyEvent : MouseMode::off);
        break;
    case 1004:
        sendFocus = on;
        if (on)
            sendResponse({std::string_view(csi()), std::string_view("I")});
        break;
    case 1005:
        mouseProtocol = on ? MouseProtocolEncoding::utf8 : MouseProtocolEncoding::x10;
        break;
    case 1006:
        mouseProtocol = on ? MouseProtocolEncoding::sgr : MouseProtocolEncoding::x10;
        break;
    case 1007:
        alternateScrollMode = on;
        break;
    case 1015:
        mouseProtocol = on ? MouseProtocolEncoding::urxvt : MouseProtocolEncoding::x10;
        break;
    case 1016:
        mouseProtocol = on ? MouseProtocolEncoding::sgrPixel : MouseProtocolEncoding::x10;
        break;
    case 1047:
        if (on) {
            activateAltBuffer(false);
        } else {
            activateNormalBuffer(true);
        }
        break;
    case 1048:
        if (on) {
            cmdSaveCursor();
        } else {
            cmdRestoreCursor();
        }
        break;
    case 1049:
        if (on) {
            cmdSaveCursor();
            activateAltBuffer(true);
        } else {
            activateNormalBuffer(false);
            cmdRestoreCursor();
        }
        break;
    case 1243:
        bidiArrowKeySwap = on;
        break;
    case 2004:
        bracketedPasteMode = on;
        break;
    case 2026:
        setSynchronizedOutput(on);
        break;
    case 2500:
        changeBidiState([on](BidiPresentationState& s) { s.boxMirroring = on; }, kBidiMirroring);
        break;
    case 2501:
        changeBidiState([on](BidiPresentationState& s) { s.autodetectDirection = on; }, kBidiAutodetect);
        break;
    default:
        log(std::string(on ? "Unhandled DEC Private Mode Set (DECSET) with "
                           : "Unhandled DEC Private Mode Reset (DECRST) with ") +
            std::to_string(mode));
        break;
    }
}

void Terminal::setMouseMode(MouseMode mode) {
    mouseMode = mode;
    if (m_delegate)
        m_delegate->mouseModeChanged(*this);
}

void Terminal::setColumnMode(bool wide) {
    const int cols = wide ? 132 : 80;
    m_normalBuffer->resize(cols, rows());
    m_altBuffer->resize(cols, rows());
    m_options.cols = cols;
    Buffer& b = *m_buffer;
    for (int row = 0; row < b.rows(); ++row)
        resetBufferLine(row);
    b.scrollTop = 0;
    b.scrollBottom = b.rows() - 1;
    b.marginLeft = 0;
    b.marginRight = cols - 1;
    b.x = 0;
    b.y = 0;
    updateFullScreen();
    if (m_delegate)
        m_delegate->sizeChanged(*this);
}

void Terminal::activateAltBuffer(bool clearFirst) {
    Buffer& alt = *m_altBuffer;
    if (clearFirst || m_buffer != &alt) {
        if (clearFirst) {
            for (int row = 0; row < alt.rows(); ++row) {
                BufferLine& line = alt.lines[alt.yBase + row];
                line.clear(alt.eraseAttr);
            }
        }
    }
    alt.x = m_normalBuffer->x;
    alt.y = m_normalBuffer->y;
    m_buffer = &alt;
    m_extensions->semanticNoteAlternateScreenSwitch(*this);
    updateFullScreen();
    if (m_delegate)
        m_delegate->bufferActivated(*this);
}

void Terminal::activateNormalBuffer(bool clearAlt) {
    if (clearAlt) {
        Buffer& alt = *m_altBuffer;
        for (int row = 0; row < alt.rows(); ++row)
            alt.lines[alt.yBase + row].clear(alt.eraseAttr);
    }
    m_buffer = m_normalBuffer.get();
    m_extensions->semanticNoteAlternateScreenSwitch(*this);
    updateFullScreen();
    if (m_delegate)
        m_delegate->bufferActivated(*this);
}

void Terminal::setSynchronizedOutput(bool on) {
    if (on) {
        const bool rise = !synchronizedOutputActive;
        synchronizedOutputActive = true;
        // A further set only restarts the timer.
        if (m_scheduler) {
            if (synchronizedOutputTimeoutItem)
                m_scheduler->cancel(*synchronizedOutputTimeoutItem);
            synchronizedOutputTimeoutItem =
                m_scheduler->schedule(synchronizedOutputTimeout, [this] { setSynchronizedOutput(false); });
        }
        if (rise && m_delegate)
            m_delegate->synchronizedOutputChanged(*this, true);
        return;
    }
    if (!synchronizedOutputActive)
        return;
    synchronizedOutputActive = false;
    if (synchronizedOutputTimeoutItem && m_scheduler)
        m_scheduler->cancel(*synchronizedOutputTimeoutItem);
    synchronizedOutputTimeoutItem.reset();
    m_buffer->markRows(0, 0);
    m_buffer->markRows(rows() - 1, rows() - 1);
    if (m_delegate)
        m_delegate->synchronizedOutputChanged(*this, false);
}

// --- Mode reports ----------------------------------------------------------------------------------

int Terminal::ansiModeState(int mode) const {
    switch (mode) {
    case 4:
        return stateOf(insertMode);
    case 20:
        return stateOf(lineFeedMode);
    case 8:
        return stateOf(currentBidiState.supportMode == BidiSupportMode::implicit);
    case 12:
        return kStateSet;
    case 5:
    case 7:
    case 10:
    case 11:
    case 13:
    case 14:
    case 15:
    case 16:
    case 17:
    case 18:
    case 19:
        return kStatePermanentlyReset;
    default:
        return kStateUnknown;
    }
}

int Terminal::privateModeState(int mode) const {
    switch (mode) {
    case 1:
        return stateOf(applicationCursor);
    case 2:
        return kStateSet; // always in ANSI mode
    case 3:
        return stateOf(cols() == 132);
    case 4:
        return stateOf(smoothScroll);
    case 5:
        return stateOf(reverseColors);
    case 6:
        return stateOf(originMode);
    case 7:
        return stateOf(wraparound);
    case 8:
        return kStateSet; // keys always repeat
    case 9:
        return stateOf(mouseMode == MouseMode::x10);
    case 12:
        return stateOf(cursorBlink);
    case 18:
    case 19:
    case 63:
    case 95:
    case 1048:
        return kStateReset;
    case 25:
        return stateOf(!cursorHidden);
    case 40:
        return stateOf(allow80To132);
    case 45:
        return stateOf(reverseWraparound);
    case 47:
    case 1047:
    case 1049:
        return stateOf(isAlternateBufferActive());
    case 66:
        return stateOf(applicationKeypad);
    case 69:
        return stateOf(marginMode);
    case 1000:
        return stateOf(mouseMode == MouseMode::vt200);
    case 1002:
        return stateOf(mouseMode == MouseMode::buttonEventTracking);
    case 1003:
        return stateOf(mouseMode == MouseMode::anyEvent);
    case 1004:
        return stateOf(sendFocus);
    case 1005:
        return stateOf(mouseProtocol == MouseProtocolEncoding::utf8);
    case 1006:
        return stateOf(mouseProtocol == MouseProtocolEncoding::sgr);
    case 1007:
        return stateOf(alternateScrollMode);
    case 1015:
        return stateOf(mouseProtocol == MouseProtocolEncoding::urxvt);
    case 1016:
        return stateOf(mouseProtocol == MouseProtocolEncoding::sgrPixel);
    case 1243:
        return stateOf(bidiArrowKeySwap);
    case 2004:
        return stateOf(bracketedPasteMode);
    case 2026:
        return stateOf(synchronizedOutputActive);
    case 2500:
        return stateOf(currentBidiState.boxMirroring);
    case 2501:
        return stateOf(currentBidiState.autodetectDirection);
    case 10:
    case 13:
    case 14:
    case 30:
    case 41:
    case 42:
    case 44:
    case 46:
    case 67:
    case 80:
    case 1001:
    case 1034:
        return kStatePermanentlyReset;
    default:
        return kStateUnknown;
    }
}

void Terminal::cmdDecRqm(const CsiParameters& pars, bool isPrivate) {
    const int mode = pars.at(0);
    const int state = isPrivate ? privateModeState(mode) : ansiModeState(mode);
    const std::string reply =
        csi() + (isPrivate ? "?" : "") + std::to_string(mode) + ";" + std::to_string(state) + "$y";
    sendResponse({std::string_view(reply)});
}

// --- Bidi modes ------------------------------------------------------------------------------------

void Terminal::changeBidiState(const std::function<void(BidiPresentationState&)>& change,
                               unsigned properties) {
    change(currentBidiState);
    for (Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()})
        change(b->defaultBidiState);
    m_extensions->applyCurrentBidiStateAtParagraphStart(*this, properties);
    updateFullScreen();
}

void Terminal::cmdSelectCharacterPath(const CsiParameters& pars) {
    const int p = pars.at(0);
    if (p > 2)
        return;
    const BidiDirection direction = p == 2 ? BidiDirection::rightToLeft : BidiDirection::leftToRight;
    changeBidiState([direction](BidiPresentationState& s) { s.fallbackDirection = direction; },
                    kBidiFallback);
}

void Terminal::cmdSelectPresentationDirection(const CsiParameters& pars) {
    const int p = pars.at(0);
    if (p != 0 && p != 3)
        return;
    const BidiDirection direction = p == 3 ? BidiDirection::rightToLeft : BidiDirection::leftToRight;
    changeBidiState([direction](BidiPresentationState& s) { s.fallbackDirection = direction; },
                    kBidiFallback);
}

void Terminal::cmdSavePrivateModes(const CsiParameters&) {
    savedBidiPrivateModes = std::pair(bidiArrowKeySwap, currentBidiState);
}

void Terminal::cmdRestorePrivateModes(const CsiParameters& pars) {
    if (!savedBidiPrivateModes)
        return;
    const auto& [swap, state] = *savedBidiPrivateModes;
    unsigned properties = 0;
    BidiPresentationState next = currentBidiState;
    for (int i = 0; i < pars.count; ++i) {
        switch (pars.values[i]) {
        case 1243:
            bidiArrowKeySwap = swap;
            break;
        case 2500:
            next.boxMirroring = state.boxMirroring;
            properties |= kBidiMirroring;
            break;
        case 2501:
            next.autodetectDirection = state.autodetectDirection;
            properties |= kBidiAutodetect;
            break;
        default:
            break;
        }
    }
    if (properties != 0)
        changeBidiState([&next](BidiPresentationState& s) { s = next; }, properties);
}

} // namespace termkit
