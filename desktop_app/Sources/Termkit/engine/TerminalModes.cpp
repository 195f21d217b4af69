// ANSI and DEC private modes, mode reports, the alternate buffer, synchronized output.
//
// Each mode is one row of a table: its number by name, what setting and resetting it do,
// and the state DECRQM reports for it. Setting a mode and reporting it can therefore not
// drift apart, and a mode the table does not know is logged and answered as unknown.

#include <algorithm>
#include <string>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

// DECRQM states.
constexpr int kStateUnknown = 0;
constexpr int kStateSet = 1;
constexpr int kStateReset = 2;
constexpr int kStatePermanentlyReset = 4;

constexpr int stateOf(bool on) {
    return on ? kStateSet : kStateReset;
}

bool is(std::span<const uint8_t> collect, std::string_view expected) {
    return collect.size() == expected.size() && std::equal(collect.begin(), collect.end(), expected.begin());
}

/// The DEC private modes this terminal knows, by their numbers.
enum class DecPrivateMode : int {
    applicationCursorKeys = 1, // DECCKM
    ansi = 2,                  // DECANM: leaving it would mean VT52
    columns132 = 3,            // DECCOLM
    smoothScroll = 4,          // DECSCLM
    reverseVideo = 5,          // DECSCNM
    origin = 6,                // DECOM
    autoWrap = 7,              // DECAWM
    autoRepeat = 8,            // DECARM
    mouseX10 = 9,
    showToolbar = 10,
    blinkingCursor = 12,
    startBlinkingCursor = 13,
    xorBlinkingCursor = 14,
    printFormFeed = 18,         // DECPFF
    printExtentFullScreen = 19, // DECPEX
    showCursor = 25,            // DECTCEM
    showScrollbar = 30,
    allow80To132 = 40,
    moreFix = 41,
    nationalCharacterSets = 42, // DECNRCM
    marginBell = 44,
    reverseWraparound = 45,
    logging = 46,
    alternateScreenLegacy = 47,
    decMode63 = 63,               // set by some programs; changes nothing here
    applicationKeypad = 66,       // DECNKM
    backarrowSendsBackspace = 67, // DECBKM
    leftRightMargins = 69,        // DECLRMM
    sixelScrolling = 80,          // DECSDM
    noClearOnColumnChange = 95,   // DECNCSM
    mouseVt200 = 1000,
    highlightMouseTracking = 1001,
    mouseButtonEvents = 1002,
    mouseAnyEvent = 1003,
    focusEvents = 1004,
    mouseUtf8 = 1005,
    mouseSgr = 1006,
    alternateScroll = 1007,
    mouseUrxvt = 1015,
    mouseSgrPixels = 1016,
    metaSetsEighthBit = 1034,
    alternateScreen = 1047,
    saveCursor = 1048,
    alternateScreenSaveCursor = 1049,
    bidiArrowKeySwap = 1243,
    bracketedPaste = 2004,
    synchronizedOutput = 2026,
    bidiBoxMirroring = 2500,
    bidiAutodetect = 2501,
};

/// The ANSI modes of SM and RM this terminal knows.
enum class AnsiMode : int {
    keyboardAction = 2,          // KAM
    insert = 4,                  // IRM
    statusReport = 5,            // SRTM
    verticalEditing = 7,         // VEM
    bidirectionalSupport = 8,    // BDSM
    horizontalEditing = 10,      // HEM
    positioningUnit = 11,        // PUM
    sendReceive = 12,            // SRM
    formatEffectorAction = 13,   // FEAM
    formatEffectorTransfer = 14, // FETM
    multipleAreaTransfer = 15,   // MATM
    transferTermination = 16,    // TTM
    selectedAreaTransfer = 17,   // SATM
    tabulationStop = 18,         // TSM
    editingBoundary = 19,        // EBM
    lineFeedNewLine = 20,        // LNM
};

} // namespace

/// One mode: what setting (`on`) or resetting it does, and what DECRQM reports for it. A
/// mode without `apply` is only reported; a program that sets it is logged as unhandled.
struct Terminal::ModeRule {
    int mode;
    void (*apply)(Terminal& terminal, bool on);
    int (*report)(const Terminal& terminal);
};

template <bool Terminal::*Flag> void Terminal::setFlag(Terminal& terminal, bool on) {
    terminal.*Flag = on;
}

template <bool Terminal::*Flag> int Terminal::reportFlag(const Terminal& terminal) {
    return stateOf(terminal.*Flag);
}

namespace {

// Report parts shared by many rows.
constexpr int reportSet(const Terminal&) {
    return kStateSet;
}
constexpr int reportReset(const Terminal&) {
    return kStateReset;
}
constexpr int reportPermanentlyReset(const Terminal&) {
    return kStatePermanentlyReset;
}
constexpr void doNothing(Terminal&, bool) {}

template <class Mode> constexpr int number(Mode mode) {
    return static_cast<int>(mode);
}

// Few modes are set often enough for the order of a search to matter.
template <class Rule> const Rule* find(std::span<const Rule> rules, int mode) {
    const auto it =
        std::find_if(rules.begin(), rules.end(), [mode](const Rule& r) { return r.mode == mode; });
    return it == rules.end() ? nullptr : &*it;
}

} // namespace

std::span<const Terminal::ModeRule> Terminal::privateModes() {
    using M = DecPrivateMode;
    static constexpr ModeRule kRules[] = {
        {number(M::applicationCursorKeys), setFlag<&Terminal::m_applicationCursor>,
         reportFlag<&Terminal::m_applicationCursor>},
        {number(M::ansi),
         [](Terminal& t, bool on) {
             // Setting it designates US-ASCII into every set; there is no VT52 mode to leave for.
             if (on) {
                 t.m_gCharsets = {};
                 t.m_charset = nullptr;
             }
         },
         reportSet},
        {number(M::columns132),
         [](Terminal& t, bool on) {
             if (t.m_allow80To132)
                 t.setColumnMode(on);
         },
         [](const Terminal& t) { return stateOf(t.cols() == 132); }},
        {number(M::smoothScroll), setFlag<&Terminal::m_smoothScroll>, reportFlag<&Terminal::m_smoothScroll>},
        {number(M::reverseVideo), [](Terminal& t, bool on) { t.setReverseColors(on); },
         reportFlag<&Terminal::m_reverseColors>},
        {number(M::origin),
         [](Terminal& t, bool on) {
             t.m_originMode = on;
             t.setCursor(Col(0), ScreenRow(0));
         },
         reportFlag<&Terminal::m_originMode>},
        {number(M::autoWrap), [](Terminal& t, bool on) { t.m_modes.wraparound = on; },
         [](const Terminal& t) { return stateOf(t.m_modes.wraparound); }},
        {number(M::autoRepeat), nullptr, reportSet}, // keys always repeat
        {number(M::mouseX10),
         [](Terminal& t, bool on) { t.setMouseMode(on ? MouseMode::x10 : MouseMode::off); },
         [](const Terminal& t) { return stateOf(t.m_mouseMode == MouseMode::x10); }},
        {number(M::showToolbar), nullptr, reportPermanentlyReset},
        {number(M::blinkingCursor), setFlag<&Terminal::m_cursorBlink>, reportFlag<&Terminal::m_cursorBlink>},
        {number(M::startBlinkingCursor), nullptr, reportPermanentlyReset},
        {number(M::xorBlinkingCursor), nullptr, reportPermanentlyReset},
        {number(M::printFormFeed), nullptr, reportReset},
        {number(M::printExtentFullScreen), nullptr, reportReset},
        {number(M::showCursor), [](Terminal& t, bool on) { t.setCursorVisible(on); },
         [](const Terminal& t) { return stateOf(!t.m_cursorHidden); }},
        {number(M::showScrollbar), nullptr, reportPermanentlyReset},
        {number(M::allow80To132), setFlag<&Terminal::m_allow80To132>, reportFlag<&Terminal::m_allow80To132>},
        {number(M::moreFix), nullptr, reportPermanentlyReset},
        {number(M::nationalCharacterSets), nullptr, reportPermanentlyReset},
        {number(M::marginBell), nullptr, reportPermanentlyReset},
        {number(M::reverseWraparound), setFlag<&Terminal::m_reverseWraparound>,
         reportFlag<&Terminal::m_reverseWraparound>},
        {number(M::logging), nullptr, reportPermanentlyReset},
        {number(M::alternateScreenLegacy),
         [](Terminal& t, bool on) {
             if (on) {
                 t.activateAltBuffer(false);
             } else {
                 t.activateNormalBuffer(false);
             }
         },
         [](const Terminal& t) { return stateOf(t.isAlternateBufferActive()); }},
        {number(M::decMode63), doNothing, reportReset},
        {number(M::applicationKeypad), setFlag<&Terminal::m_applicationKeypad>,
         reportFlag<&Terminal::m_applicationKeypad>},
        {number(M::backarrowSendsBackspace), nullptr, reportPermanentlyReset},
        {number(M::leftRightMargins), [](Terminal& t, bool on) { t.setMarginMode(on); },
         [](const Terminal& t) { return stateOf(t.m_modes.marginMode); }},
        {number(M::sixelScrolling), nullptr, reportPermanentlyReset},
        {number(M::noClearOnColumnChange), doNothing, reportReset},
        {number(M::mouseVt200),
         [](Terminal& t, bool on) { t.setMouseMode(on ? MouseMode::vt200 : MouseMode::off); },
         [](const Terminal& t) { return stateOf(t.m_mouseMode == MouseMode::vt200); }},
        {number(M::highlightMouseTracking), nullptr, reportPermanentlyReset},
        {number(M::mouseButtonEvents),
         [](Terminal& t, bool on) { t.setMouseMode(on ? MouseMode::buttonEventTracking : MouseMode::off); },
         [](const Terminal& t) { return stateOf(t.m_mouseMode == MouseMode::buttonEventTracking); }},
        {number(M::mouseAnyEvent),
         [](Terminal& t, bool on) { t.setMouseMode(on ? MouseMode::anyEvent : MouseMode::off); },
         [](const Terminal& t) { return stateOf(t.m_mouseMode == MouseMode::anyEvent); }},
        {number(M::focusEvents), [](Terminal& t, bool on) { t.setSendFocus(on); },
         reportFlag<&Terminal::m_sendFocus>},
        {number(M::mouseUtf8),
         [](Terminal& t, bool on) {
             t.m_mouseProtocol = on ? MouseProtocolEncoding::utf8 : MouseProtocolEncoding::x10;
         },
         [](const Terminal& t) { return stateOf(t.m_mouseProtocol == MouseProtocolEncoding::utf8); }},
        {number(M::mouseSgr),
         [](Terminal& t, bool on) {
             t.m_mouseProtocol = on ? MouseProtocolEncoding::sgr : MouseProtocolEncoding::x10;
         },
         [](const Terminal& t) { return stateOf(t.m_mouseProtocol == MouseProtocolEncoding::sgr); }},
        {number(M::alternateScroll), setFlag<&Terminal::m_alternateScrollMode>,
         reportFlag<&Terminal::m_alternateScrollMode>},
        {number(M::mouseUrxvt),
         [](Terminal& t, bool on) {
             t.m_mouseProtocol = on ? MouseProtocolEncoding::urxvt : MouseProtocolEncoding::x10;
         },
         [](const Terminal& t) { return stateOf(t.m_mouseProtocol == MouseProtocolEncoding::urxvt); }},
        {number(M::mouseSgrPixels),
         [](Terminal& t, bool on) {
             t.m_mouseProtocol = on ? MouseProtocolEncoding::sgrPixel : MouseProtocolEncoding::x10;
         },
         [](const Terminal& t) { return stateOf(t.m_mouseProtocol == MouseProtocolEncoding::sgrPixel); }},
        {number(M::metaSetsEighthBit), doNothing, reportPermanentlyReset},
        {number(M::alternateScreen),
         [](Terminal& t, bool on) {
             if (on) {
                 t.activateAltBuffer(false);
             } else {
                 t.activateNormalBuffer(true);
             }
         },
         [](const Terminal& t) { return stateOf(t.isAlternateBufferActive()); }},
        {number(M::saveCursor),
         [](Terminal& t, bool on) {
             if (on) {
                 t.cmdSaveCursor();
             } else {
                 t.cmdRestoreCursor();
             }
         },
         reportReset},
        {number(M::alternateScreenSaveCursor),
         [](Terminal& t, bool on) {
             if (on) {
                 t.cmdSaveCursor();
                 t.activateAltBuffer(true);
             } else {
                 t.activateNormalBuffer(false);
                 t.cmdRestoreCursor();
             }
         },
         [](const Terminal& t) { return stateOf(t.isAlternateBufferActive()); }},
        {number(M::bidiArrowKeySwap), setFlag<&Terminal::m_bidiArrowKeySwap>,
         reportFlag<&Terminal::m_bidiArrowKeySwap>},
        {number(M::bracketedPaste), setFlag<&Terminal::m_bracketedPasteMode>,
         reportFlag<&Terminal::m_bracketedPasteMode>},
        {number(M::synchronizedOutput), [](Terminal& t, bool on) { t.setSynchronizedOutput(on); },
         reportFlag<&Terminal::m_synchronizedOutputActive>},
        {number(M::bidiBoxMirroring),
         [](Terminal& t, bool on) {
             t.changeBidiState([on](BidiPresentationState& s) { s.boxMirroring = on; }, kBidiMirroring);
         },
         [](const Terminal& t) { return stateOf(t.currentBidiState().boxMirroring); }},
        {number(M::bidiAutodetect),
         [](Terminal& t, bool on) {
             t.changeBidiState([on](BidiPresentationState& s) { s.autodetectDirection = on; },
                               kBidiAutodetect);
         },
         [](const Terminal& t) { return stateOf(t.currentBidiState().autodetectDirection); }},
    };
    return kRules;
}

std::span<const Terminal::ModeRule> Terminal::ansiModes() {
    using M = AnsiMode;
    static constexpr ModeRule kRules[] = {
        {number(M::keyboardAction), doNothing, [](const Terminal&) { return kStateUnknown; }},
        {number(M::insert), [](Terminal& t, bool on) { t.m_modes.insertMode = on; },
         [](const Terminal& t) { return stateOf(t.m_modes.insertMode); }},
        {number(M::statusReport), nullptr, reportPermanentlyReset},
        {number(M::verticalEditing), nullptr, reportPermanentlyReset},
        {number(M::bidirectionalSupport),
         [](Terminal& t, bool on) {
             t.changeBidiState(
                 [on](BidiPresentationState& s) {
                     s.supportMode = on ? BidiSupportMode::implicit : BidiSupportMode::explicit_;
                 },
                 kBidiSupportMode);
         },
         [](const Terminal& t) {
             return stateOf(t.currentBidiState().supportMode == BidiSupportMode::implicit);
         }},
        {number(M::horizontalEditing), nullptr, reportPermanentlyReset},
        {number(M::positioningUnit), nullptr, reportPermanentlyReset},
        {number(M::sendReceive), nullptr, reportSet}, // local echo is always off
        {number(M::formatEffectorAction), nullptr, reportPermanentlyReset},
        {number(M::formatEffectorTransfer), nullptr, reportPermanentlyReset},
        {number(M::multipleAreaTransfer), nullptr, reportPermanentlyReset},
        {number(M::transferTermination), nullptr, reportPermanentlyReset},
        {number(M::selectedAreaTransfer), nullptr, reportPermanentlyReset},
        {number(M::tabulationStop), nullptr, reportPermanentlyReset},
        {number(M::editingBoundary), nullptr, reportPermanentlyReset},
        {number(M::lineFeedNewLine), setFlag<&Terminal::m_lineFeedMode>,
         reportFlag<&Terminal::m_lineFeedMode>},
    };
    return kRules;
}

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
    const ModeRule* rule = find(ansiModes(), mode);
    if (rule == nullptr || rule->apply == nullptr) {
        log("Unhandled setMode (SM) with " + std::to_string(mode) + " and " + (on ? "set" : "reset"));
        return;
    }
    rule->apply(*this, on);
}

void Terminal::setPrivateMode(int mode, bool on) {
    const ModeRule* rule = find(privateModes(), mode);
    if (rule == nullptr || rule->apply == nullptr) {
        log(std::string(on ? "Unhandled DEC Private Mode Set (DECSET) with "
                           : "Unhandled DEC Private Mode Reset (DECRST) with ") +
            std::to_string(mode));
        return;
    }
    rule->apply(*this, on);
}

int Terminal::ansiModeState(int mode) const {
    const ModeRule* rule = find(ansiModes(), mode);
    return rule ? rule->report(*this) : kStateUnknown;
}

int Terminal::privateModeState(int mode) const {
    const ModeRule* rule = find(privateModes(), mode);
    return rule ? rule->report(*this) : kStateUnknown;
}

void Terminal::cmdDecRqm(const CsiParameters& pars, bool isPrivate) {
    const int mode = pars.at(0);
    const int state = isPrivate ? privateModeState(mode) : ansiModeState(mode);
    const std::string reply =
        csi() + (isPrivate ? "?" : "") + std::to_string(mode) + ";" + std::to_string(state) + "$y";
    sendResponse({std::string_view(reply)});
}

// --- What setting a mode does, where it is more than a flag -----------------------------------

void Terminal::setMouseMode(MouseMode mode) {
    m_mouseMode = mode;
    if (m_delegate)
        m_delegate->mouseModeChanged(*this);
}

void Terminal::setCursorVisible(bool visible) {
    m_cursorHidden = !visible;
    if (!m_delegate)
        return;
    if (visible) {
        m_delegate->showCursor(*this);
    } else {
        m_delegate->hideCursor(*this);
    }
}

void Terminal::setReverseColors(bool on) {
    m_reverseColors = on;
    updateFullScreen();
    if (m_delegate)
        m_delegate->colorChanged(*this, std::nullopt);
}

void Terminal::setMarginMode(bool on) {
    m_modes.marginMode = on;
    m_buffer->setMargins(Col(0), m_buffer->lastCol());
}

void Terminal::setSendFocus(bool on) {
    m_sendFocus = on;
    if (on)
        sendResponse({std::string_view(csi()), std::string_view("I")});
}

void Terminal::setColumnMode(bool wide) {
    const int cols = wide ? 132 : 80;
    m_normalBuffer->resize(cols, rows());
    m_altBuffer->resize(cols, rows());
    m_options.cols = cols;
    Buffer& b = *m_buffer;
    for (ScreenRow row(0); row <= b.lastRow(); ++row)
        resetBufferLine(row);
    b.resetRegionAndMargins();
    b.setCursor(Col(0), ScreenRow(0));
    updateFullScreen();
    if (m_delegate)
        m_delegate->sizeChanged(*this);
}

void Terminal::activateAltBuffer(bool clearFirst) {
    Buffer& alt = *m_altBuffer;
    if (clearFirst) {
        for (ScreenRow row(0); row <= alt.lastRow(); ++row)
            alt.screenLine(row).clear(m_modes.eraseAttr);
    }
    alt.setCursor(m_normalBuffer->x(), m_normalBuffer->y());
    m_buffer = &alt;
    m_extensions->semanticNoteAlternateScreenSwitch(*this);
    updateFullScreen();
    if (m_delegate)
        m_delegate->bufferActivated(*this);
}

void Terminal::activateNormalBuffer(bool clearAlt) {
    if (clearAlt) {
        Buffer& alt = *m_altBuffer;
        for (ScreenRow row(0); row <= alt.lastRow(); ++row)
            alt.screenLine(row).clear(m_modes.eraseAttr);
    }
    m_buffer = m_normalBuffer.get();
    m_extensions->semanticNoteAlternateScreenSwitch(*this);
    updateFullScreen();
    if (m_delegate)
        m_delegate->bufferActivated(*this);
}

void Terminal::setSynchronizedOutput(bool on) {
    if (on) {
        const bool rise = !m_synchronizedOutputActive;
        m_synchronizedOutputActive = true;
        // A further set only restarts the timer.
        if (m_scheduler) {
            if (m_synchronizedOutputTimeoutItem)
                m_scheduler->cancel(*m_synchronizedOutputTimeoutItem);
            m_synchronizedOutputTimeoutItem =
                m_scheduler->schedule(m_synchronizedOutputTimeout, [this] { setSynchronizedOutput(false); });
        }
        if (rise && m_delegate)
            m_delegate->synchronizedOutputChanged(*this, true);
        return;
    }
    if (!m_synchronizedOutputActive)
        return;
    m_synchronizedOutputActive = false;
    if (m_synchronizedOutputTimeoutItem && m_scheduler)
        m_scheduler->cancel(*m_synchronizedOutputTimeoutItem);
    m_synchronizedOutputTimeoutItem.reset();
    m_buffer->markRow(ScreenRow(0));
    m_buffer->markRow(m_buffer->lastRow());
    if (m_delegate)
        m_delegate->synchronizedOutputChanged(*this, false);
}

// --- Bidi modes ------------------------------------------------------------------------------------

void Terminal::changeBidiState(const std::function<void(BidiPresentationState&)>& change,
                               unsigned properties) {
    // The terminal's state and what both buffers give new lines are one value.
    change(m_modes.defaultBidiState);
    applyCurrentBidiStateAtParagraphStart(properties);
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
    m_savedBidiPrivateModes = std::pair(m_bidiArrowKeySwap, currentBidiState());
}

void Terminal::cmdRestorePrivateModes(const CsiParameters& pars) {
    if (!m_savedBidiPrivateModes)
        return;
    const auto& [swap, state] = *m_savedBidiPrivateModes;
    unsigned properties = 0;
    BidiPresentationState next = currentBidiState();
    for (int i = 0; i < pars.count; ++i) {
        switch (pars.values[i]) {
        case number(DecPrivateMode::bidiArrowKeySwap):
            m_bidiArrowKeySwap = swap;
            break;
        case number(DecPrivateMode::bidiBoxMirroring):
            next.boxMirroring = state.boxMirroring;
            properties |= kBidiMirroring;
            break;
        case number(DecPrivateMode::bidiAutodetect):
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
