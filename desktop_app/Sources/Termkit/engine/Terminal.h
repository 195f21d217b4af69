#pragma once
// The headless terminal: two buffers, the parser, and every control function.

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <variant>
#include <vector>

#include "Termkit/buffer/Buffer.h"
#include "Termkit/buffer/CellTables.h"
#include "Termkit/engine/CharSets.h"
#include "Termkit/engine/Color.h"
#include "Termkit/engine/KittyKeyboard.h"
#include "Termkit/engine/TerminalDelegate.h"
#include "Termkit/engine/TerminalExtensions.h"
#include "Termkit/engine/TerminalOptions.h"
#include "Termkit/engine/TerminalScheduler.h"
#include "Termkit/engine/TerminalTypes.h"
#include "Termkit/parser/CC.h"
#include "Termkit/parser/DcsHandler.h"
#include "Termkit/parser/EscapeSequenceParser.h"
#include "Termkit/parser/ParserDelegate.h"

namespace termkit {

/// Identity reported by XTVERSION; both are build constants of the library.
inline constexpr std::string_view kTermkitTag = "v1.20.0";
inline constexpr std::string_view kTermkitVersion = "v1.20.0";
/// How long synchronized output may hold the screen without being ended.
inline constexpr std::chrono::milliseconds kSynchronizedOutputTimeout{1000};

/// The open hyperlink of OSC 8: not yet interned, interned, or refused by a full table.
struct ActiveHyperlink {
    enum class State : uint8_t { pending, interned, exhausted };
    State state = State::pending;
    std::string payload;
    uint16_t code = 0;
};

/// A headless terminal. Bytes go in through `feed`; the host reads the state through the
/// accessors below and is told about everything else through its `TerminalDelegate`. The
/// state itself is private: only control sequences and the host operations change it.
/// Single-threaded: the host calls it from one serial context.
///
/// What a host reads, by purpose:
/// - size: `cols`, `rows`, `getDims`;
/// - lines: `buffer` (the active one, read-only), `normalBuffer`, `altBuffer`, `getLine` (a
///   row on display), `getScrollInvariantLine`, `getCharData`, `getCharacter`, `getText`,
///   `getBufferAsData`, and a cell's `attribute` and `character`;
/// - cursor: `getCursorLocation`, `cursorStyle`, `cursorHidden`, `cursorBlink`, `cursorColor`;
/// - what changed: `getUpdateRange` (screen rows) or `getScrollInvariantUpdateRange`, cleared
///   with `clearUpdateRange`; each line's `generation` tells which rows to copy again;
/// - modes, titles, the reported directory and document, colours and the palette.
class Terminal : private ParserDelegate, private BufferObserver {
public:
    /// One piece of a reply: bytes or text.
    using ResponseItem = std::variant<std::string_view, std::span<const uint8_t>>;

    Terminal(TerminalDelegate* delegate, TerminalOptions options = {}, TerminalScheduler* scheduler = nullptr,
             TerminalExtensions* extensions = nullptr);
    ~Terminal() override;
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // --- Input and size --------------------------------------------------------------------
    /// Parses bytes at once.
    void feed(std::span<const uint8_t> bytes);
    /// Parses text as its UTF-8 bytes.
    void feed(std::string_view text);
    /// Resizes both buffers (at least 2 x 1); the normal buffer rewraps its lines.
    void resize(int cols, int rows);
    /// Sets the scrollback of the normal buffer; none keeps only the screen.
    void changeScrollback(std::optional<int> lines);
    void clearScrollback();
    /// Back to the state of a new terminal.
    void resetToInitialState();
    /// The state of a new terminal (`isReset` keeps the delegate and the options).
    void setup(bool isReset);

    // --- Reading: size, buffers and lines ----------------------------------------------------
    int cols() const { return m_buffer->cols(); }
    int rows() const { return m_buffer->rows(); }
    std::pair<int, int> getDims() const { return {cols(), rows()}; }
    /// The active buffer.
    const Buffer& buffer() const { return *m_buffer; }
    const Buffer& normalBuffer() const { return *m_normalBuffer; }
    const Buffer& altBuffer() const { return *m_altBuffer; }
    bool isAlternateBufferActive() const { return m_buffer == m_altBuffer.get(); }
    /// The line of a row of the display (the view's scroll position applies), or nullptr.
    const BufferLine* getLine(ScreenRow row) const;
    /// A line by its scroll-invariant number, or nullptr when it has left the ring.
    const BufferLine* getScrollInvariantLine(InvariantRow row) const;
    /// The cell at a screen position of the active screen, or nothing outside it.
    std::optional<CharData> getCharData(Col col, ScreenRow row) const;
    /// The character at a screen position (a space for an empty cell).
    std::string getCharacter(Col col, ScreenRow row) const;
    /// Text of every line of the active buffer, lines joined by newlines.
    std::vector<uint8_t> getBufferAsData() const;
    /// Text between two buffer positions (end exclusive), wrapped lines joined.
    std::string getText(Position start, Position end) const;
    /// The attribute of a cell.
    const Attribute& attribute(const CharData& cell) const { return m_tables->attributes[cell.attribute]; }
    /// The cluster behind a cell code.
    std::string character(int32_t code) const { return m_tables->characters.character(code); }
    /// The side tables cells refer into.
    const CellTables& tables() const { return *m_tables; }

    // --- Reading: cursor ------------------------------------------------------------------
    /// The cursor, column clamped to the last one.
    std::pair<Col, ScreenRow> getCursorLocation() const;
    CursorStyle cursorStyle() const { return m_cursorStyle; }
    bool cursorHidden() const { return m_cursorHidden; }
    bool cursorBlink() const { return m_cursorBlink; }
    const std::optional<Color>& cursorColor() const { return m_cursorColor; }

    // --- Reading and clearing what changed ---------------------------------------------------
    /// Changed screen rows since the last clear, or nothing.
    std::optional<std::pair<int, int>> getUpdateRange() const;
    /// The same rows as scroll-invariant row numbers.
    std::optional<std::pair<long long, long long>> getScrollInvariantUpdateRange() const;
    void updateRange(ScreenRow row) { m_buffer->markRow(row); }
    void updateFullScreen() { m_buffer->markRows(ScreenRow(0), m_buffer->lastRow()); }
    void clearUpdateRange() { m_updates.clear(); }

    // --- Reading: modes -----------------------------------------------------------------------
    bool applicationKeypad() const { return m_applicationKeypad; }
    bool applicationCursor() const { return m_applicationCursor; }
    bool reverseColors() const { return m_reverseColors; }
    /// The kitty keyboard flags and stack of each buffer; programs in the alternate screen
    /// push their own without disturbing the shell's.
    const KeyboardModeState& keyboardModeNormal() const { return m_keyboardModeNormal; }
    const KeyboardModeState& keyboardModeAlt() const { return m_keyboardModeAlt; }
    /// The active buffer's kitty keyboard flags: what the host encodes keys with.
    uint8_t keyboardEnhancementFlags() const {
        return isAlternateBufferActive() ? m_keyboardModeAlt.flags : m_keyboardModeNormal.flags;
    }
    bool sendFocus() const { return m_sendFocus; }
    const BidiPresentationState& currentBidiState() const { return m_modes.defaultBidiState; }
    bool bidiArrowKeySwap() const { return m_bidiArrowKeySwap; }
    const std::optional<std::pair<bool, BidiPresentationState>>& savedBidiPrivateModes() const {
        return m_savedBidiPrivateModes;
    }
    bool originMode() const { return m_originMode; }
    bool marginMode() const { return m_modes.marginMode; }
    bool insertMode() const { return m_modes.insertMode; }
    bool wraparound() const { return m_modes.wraparound; }
    bool reverseWraparound() const { return m_reverseWraparound; }
    bool bracketedPasteMode() const { return m_bracketedPasteMode; }
    bool alternateScrollMode() const { return m_alternateScrollMode; }
    bool allow80To132() const { return m_allow80To132; }
    bool lineFeedMode() const { return m_lineFeedMode; }
    bool smoothScroll() const { return m_smoothScroll; }
    MouseProtocolEncoding mouseProtocol() const { return m_mouseProtocol; }
    MouseMode mouseMode() const { return m_mouseMode; }
    bool mouseShiftCapture() const { return m_mouseShiftCapture; }
    TerminalConformance conformance() const { return m_conformance; }
    /// Whether replies use the 8-bit forms of the C1 controls.
    const CC& cc() const { return m_cc; }
    bool synchronizedOutputActive() const { return m_synchronizedOutputActive; }
    /// The character set in use, with the four designated ones and the level choosing.
    const CharSet* charset() const { return m_charset; }
    const std::array<const CharSet*, 4>& gCharsets() const { return m_gCharsets; }
    int gcharset() const { return m_gcharset; }
    int gLevel() const { return m_gLevel; }
    /// The attribute that written cells get.
    const Attribute& curAttr() const { return m_curAttr; }

    // --- Reading: titles, the program's reports, hyperlinks -----------------------------------
    const std::string& terminalTitle() const { return m_terminalTitle; }
    const std::string& iconTitle() const { return m_iconTitle; }
    const std::vector<std::string>& terminalTitleStack() const { return m_terminalTitleStack; }
    const std::vector<std::string>& terminalIconStack() const { return m_terminalIconStack; }
    bool xtermTitleSetUtf() const { return m_xtermTitleSetUtf; }
    bool xtermTitleSetHex() const { return m_xtermTitleSetHex; }
    bool xtermTitleQueryUtf() const { return m_xtermTitleQueryUtf; }
    bool xtermTitleQueryHex() const { return m_xtermTitleQueryHex; }
    const std::string& hostCurrentDirectory() const { return m_hostCurrentDirectory; }
    const std::string& hostCurrentDocument() const { return m_hostCurrentDocument; }
    const std::optional<ActiveHyperlink>& activeHyperlink() const { return m_activeHyperlink; }
    /// The payload handles this terminal made and has not yet freed.
    const std::unordered_set<uint16_t>& payloadCodes() const { return m_payloadCodes; }

    // --- Reading: colours -------------------------------------------------------------------
    Color foregroundColor() const { return m_foregroundColor; }
    Color backgroundColor() const { return m_backgroundColor; }
    /// The 256-colour palette in use.
    const std::array<Color, 256>& palette() const { return m_ansiColors; }
    const std::vector<Color>& installedColors() const { return m_installedColors; }
    const std::vector<Color>& defaultAnsiColors() const { return m_defaultAnsiColors; }

    // --- Host settings ------------------------------------------------------------------------
    /// The view says whether the person holds it away from the bottom.
    void setUserScrolling(bool scrolling) { m_userScrolling = scrolling; }
    bool userScrolling() const { return m_userScrolling; }
    /// Moves the display to a line (within the scrollback), as the view scrolls.
    void scrollDisplay(LineIndex top) { m_buffer->setYDisp(top); }
    /// Without log lines for unknown or malformed sequences.
    void setSilentLog(bool silent) { m_silentLog = silent; }
    bool silentLog() const { return m_silentLog; }
    /// Where log lines go; the process-wide sink when none is set.
    void setLogSink(std::function<void(std::string_view)> sink) { m_logSink = std::move(sink); }
    /// How long synchronized output may hold the screen.
    void setSynchronizedOutputTimeout(std::chrono::milliseconds timeout) {
        m_synchronizedOutputTimeout = timeout;
    }
    std::chrono::milliseconds synchronizedOutputTimeout() const { return m_synchronizedOutputTimeout; }

    // --- Characters ------------------------------------------------------------------------
    /// The cell code of a grapheme cluster given as UTF-8; a new cluster is stored.
    int32_t code(std::string_view cluster) { return m_tables->characters.code(cluster); }

    // --- Output to the host ------------------------------------------------------------------
    /// Sends the concatenation of the items to the delegate.
    void sendResponse(std::initializer_list<ResponseItem> items);
    /// The environment for a child: TERM, COLORTERM, LANG, then some of the parent's.
    static std::vector<std::string> getEnvironmentVariables(std::string_view termName = "xterm-256color",
                                                            bool trueColor = true);
    /// A handler for an OSC code that wins over the built-in one.
    void registerOscHandler(int code, EscapeSequenceParser::OscHandler handler) {
        m_parser.registerOscHandler(code, std::move(handler));
    }
    /// Writes a log line with "Info: " unless `silentLog`.
    void log(std::string_view message) const;

    // --- Colours -----------------------------------------------------------------------------
    /// Stores the default foreground and rebuilds the palette; tells the delegate once.
    void setForegroundColor(Color color);
    void setBackgroundColor(Color color);
    /// Stores without telling the delegate (the delegate's default does this).
    void storeForegroundColor(Color color);
    void storeBackgroundColor(Color color);
    void storeCursorColor(std::optional<Color> color) { m_cursorColor = color; }
    /// Installs 16 colours as palette entries 0 to 15 and rebuilds the rest.
    void installColors(std::span<const Color> colors);
    /// The same as `installColors`, under the name hosts of the palette know it by.
    void installPalette(std::span<const Color> colors) { installColors(colors); }
    /// Rebuilds entries 16 to 255 by the strategy; optionally tells the delegate.
    void rebuildAnsiPalette(bool notifyDelegate);

    // --- Extension support ---------------------------------------------------------------------
    /// Sets or closes the open hyperlink (OSC 8 payload text, or nothing).
    void setActiveHyperlink(std::optional<std::string> payload);
    /// The handle cells written now get, interning a pending link on first use; 0 for none.
    uint16_t resolveActiveHyperlink();
    /// Frees the payload handles this terminal made that no line uses any more.
    void garbageCollectPayload();
    /// The semantic class cells of the active buffer get from now on (a code of
    /// `SemanticContent`); the print path copies it into each cell it writes.
    void setSemanticContent(uint8_t code) { m_buffer->setSemanticContent(code); }
    /// A line of the active buffer, for extensions that annotate lines (semantic marks).
    BufferLine& annotatableLine(LineIndex index) { return m_buffer->line(index); }
    /// Whether each line feed tells the extensions (`finishSemanticLineAdvance`): set by
    /// semantic prompts while a prompt group or a one-row input is open, so that other line
    /// feeds pay nothing.
    void setSemanticLineAdvanceWanted(bool wanted) { m_semanticLineAdvanceWanted = wanted; }
    bool semanticLineAdvanceWanted() const { return m_semanticLineAdvanceWanted; }
    /// Scrolls the active buffer's region up by one line.
    void scroll(bool isWrapped = false) {
        ensureAttributes();
        m_buffer->scroll(isWrapped);
    }
    /// Attaches an image to a row of the active screen (image protocols).
    void attachImage(ScreenRow row, TerminalImage image);
    /// Drops the attached images `drop` picks, from every line of both buffers.
    void removeImages(const std::function<bool(const TerminalImage&)>& drop);
    /// Puts the cursor in a column of its row, within the screen.
    void setCursorColumn(Col col);
    void cmdIndex();
    void cmdLineFeedBasic();
    void cmdCarriageReturn();
    TerminalDelegate* delegate() const { return m_delegate; }
    const TerminalOptions& options() const { return m_options; }

private:
    friend class DecrqssHandler;
    struct ModeRule;

    // ParserDelegate
    void print(std::span<const uint8_t> data) override;
    void printAscii(std::span<const uint8_t> data) override;
    void printStateReset() override;
    void dispatchExecute(uint8_t code) override;
    void dispatchCsi(uint8_t final, const CsiParameters& pars, std::span<const uint8_t> collect) override;
    void dispatchEsc(std::span<const uint8_t> collect, uint8_t final) override;
    void dispatchOsc(int code, std::span<const uint8_t> data) override;
    void handleKittyGraphics(std::span<const uint8_t> data) override;
    DcsHandler* sixelDcsHandler() override;
    DcsHandler* decrqssDcsHandler() override;
    // BufferObserver
    void bufferScrolled(LineIndex yDisp) override;
    bool isUserScrolling() const override { return m_userScrolling; }

    // Set-up
    void configureParser();
    void makeBuffers();
    void refreshAttributes();
    void ensureAttributes() {
        if (m_attrDirty)
            refreshAttributes();
    }
    void markAttributes(const std::function<void(AttributeId)>& mark) const;

    // Printing (TerminalPrint.cpp)
    void handlePrint(std::span<const uint8_t> data);
    void printAsciiRun(const uint8_t* p, int n, uint16_t payload);
    void printScalar(char32_t scalar, int width, uint16_t payload);
    // The line the print path is writing into, marked changed when it is let go.
    struct RowCache {
        BufferLine* line = nullptr;
        LineIndex index{-1};
        // The column right after the last cell this cache wrote with a single scalar of its own
        // width, which never calls for the next one to join it; -1 when unknown.
        int plainEnd = -1;
        // Set once per print call, for the word loop: whether it may run at all (no insert
        // mode, no character set), the last column it may write, and a cell's bytes after
        // its code (attribute, payload, width 0, semantic class), which stay the same
        // throughout a call.
        bool wordLoop = false;
        int limit = 0;
        uint64_t cellRest = 0;
        void release() {
            if (line != nullptr)
                line->touch();
            line = nullptr;
            plainEnd = -1;
        }
    };
    // The cached row's line, made the cursor's line first if it was another one.
    BufferLine& cursorLine(RowCache& row);
    bool writePlainScalar(RowCache& row, char32_t scalar, int width, uint16_t payload);
    void prepareWordLoop(RowCache& row, uint16_t payload) const;
    void continuePlainRun(RowCache& row, const uint8_t* p, int n, int& i);
    bool joinZeroWidth(RowCache& row, char32_t scalar, uint8_t info, const uint8_t* p, int n, int& i);
    size_t cellCluster(int32_t code, char* out, size_t room) const;
    static int extendingMarksEnd(const uint8_t* p, int n, int i, char* out, size_t capacity, size_t& length);
    /// A scalar from a sequence the fast decoders did not take: -1 for bytes skipped,
    /// `kCarried` when the chunk ends inside it.
    static constexpr int32_t kCarried = -2;
    int32_t decodeSlow(const uint8_t* p, int n, int& i);
    void printGeneral(const uint8_t* data, int length, uint16_t payload);
    bool finishCarried(const uint8_t* p, int n, int& i, uint16_t payload);
    void printAscii(RowCache& row, const uint8_t* p, int n, int& i, uint16_t payload);
    bool tryJoin(char32_t scalar, int width, uint8_t info);
    std::pair<char32_t, int> lastScalarOf(int32_t code);
    int32_t joinedCode(int32_t targetCode, char32_t scalar);
    std::optional<Col> combiningTarget(LineIndex& lineIndex, BufferLine*& line) const;

    // Cursor (TerminalCursor.cpp)
    void cmdBackspace();
    void cmdTab(int count);
    void cmdBackTab(int count);
    void cmdCursorUp(const CsiParameters& pars);
    void cmdCursorDown(const CsiParameters& pars);
    void cursorForward(int count);
    void cursorBackward(int count);
    void cmdCursorNextLine(const CsiParameters& pars, bool up);
    void cmdCursorCharAbsolute(const CsiParameters& pars);
    void cmdCursorPosition(const CsiParameters& pars);
    void cmdCharPosAbsolute(const CsiParameters& pars);
    void cmdHPositionRelative(const CsiParameters& pars);
    void cmdLinePosAbsolute(const CsiParameters& pars);
    void cmdVPositionRelative(const CsiParameters& pars);
    void cmdHVPosition(const CsiParameters& pars);
    void cmdNextLine();
    void cmdBackIndex();
    void cmdForwardIndex();
    void reverseIndex();
    void cmdSaveCursor();
    void cmdRestoreCursor();
    void cmdTabSet();
    void setCursor(Col col, ScreenRow row);
    void restrictCursor();
    void moveToLineStart();
    // The cursor column, brought back from the pending-wrap column onto the last one.
    Col cursorCol() const { return std::min(m_buffer->x(), m_buffer->lastCol()); }
    // The first and last columns the cursor moves between: the margins when they apply.
    Col leftLimit() const { return m_modes.marginMode ? m_buffer->marginLeft() : Col(0); }
    Col rightLimit() const { return m_modes.marginMode ? m_buffer->marginRight() : m_buffer->lastCol(); }

    // Editing (TerminalEdit.cpp)
    void cmdEraseInDisplay(const CsiParameters& pars, bool selective);
    void cmdEraseInLine(const CsiParameters& pars, bool selective);
    void eraseInRow(ScreenRow row, Col start, Col end, bool clearWrap);
    void resetBufferLine(ScreenRow row);
    void cmdInsertChars(const CsiParameters& pars);
    void cmdDeleteChars(const CsiParameters& pars);
    void cmdEraseChars(const CsiParameters& pars);
    void cmdInsertLines(const CsiParameters& pars);
    void cmdDeleteLines(const CsiParameters& pars);
    void cmdScrollUp(const CsiParameters& pars);
    void cmdScrollDown(const CsiParameters& pars);
    void scrollDownOne();
    void cmdInsertColumns(const CsiParameters& pars);
    void cmdDeleteColumns(const CsiParameters& pars);
    void columnScroll(bool back, int count);
    void cmdRepeatPrecedingCharacter(const CsiParameters& pars);
    void cmdScreenAlignmentPattern();
    void csiCopyRectangularArea(const CsiParameters& pars);
    void cmdFillRectangularArea(const CsiParameters& pars);
    void cmdDECERA(const CsiParameters& pars);
    void cmdSelectiveEraseRectangularArea(const CsiParameters& pars);
    void cmdDECRQCRA(const CsiParameters& pars);
    void cmdSetScrollRegion(const CsiParameters& pars);
    void cmdSetMargins(const CsiParameters& pars);
    void cmdTabClear(const CsiParameters& pars);
    void setRenderMode(BufferLine::RenderLineMode mode);
    // Whether left and right margins narrower than the screen are in force.
    bool marginsNarrowed() const;
    // Moves the cells between the margins of `from` into `to`, as a line move would.
    void copyBetweenMargins(ScreenRow from, ScreenRow to);
    // Erases the cells between the margins of a row.
    void eraseBetweenMargins(ScreenRow row);
    struct Rect {
        ScreenRow top, bottom; // inclusive
        Col left, right;       // inclusive
    };
    std::optional<Rect> rectangle(const CsiParameters& pars, int first) const;

    // Dispatch (TerminalCsi.cpp, TerminalEsc.cpp)
    void csiPHandler(const CsiParameters& pars, std::span<const uint8_t> collect);
    void csiX(const CsiParameters& pars, std::span<const uint8_t> collect);
    void csiS(const CsiParameters& pars, std::span<const uint8_t> collect);
    void csiT(const CsiParameters& pars, std::span<const uint8_t> collect);
    void csiLowerS(const CsiParameters& pars, std::span<const uint8_t> collect);
    void csiLowerT(const CsiParameters& pars, std::span<const uint8_t> collect);
    void cmdSetCursorStyle(const CsiParameters& pars);
    void cmdSetTitleModes(const CsiParameters& pars, bool on);
    void cmdSetMouseShiftCapture(const CsiParameters& pars);
    void cmdSaveCursorOrSetMargins(const CsiParameters& pars);
    void cmdSoftReset();
    void cmdSetConformanceLevel(const CsiParameters& pars);
    void cmdSetApplicationKeypad(bool on);
    void cmdSelectDefaultCharset();
    void cmdSetC1Transmission(bool eightBit);
    void selectCharset(uint8_t intermediate, uint8_t final);
    void setgCharset(int g, const CharSet* set);
    void setgLevel(int level);
    void logUnknownCsi(std::span<const uint8_t> collect, uint8_t final, const CsiParameters& pars);
    void logUnknownEsc(std::span<const uint8_t> collect, uint8_t final);
    void logUnknownOsc(int code);

    // Kitty keyboard protocol (TerminalKeyboard.cpp): push, pop, set and query of the active
    // buffer's flags; says whether the `CSI ... u` was one of them.
    bool handleKittyKeyboardProtocol(const CsiParameters& pars, std::span<const uint8_t> collect);
    KeyboardModeState& activeKeyboardMode() {
        return isAlternateBufferActive() ? m_keyboardModeAlt : m_keyboardModeNormal;
    }

    // Modes (TerminalModes.cpp)
    void cmdSetMode(const CsiParameters& pars, std::span<const uint8_t> collect);
    void cmdResetMode(const CsiParameters& pars, std::span<const uint8_t> collect);
    void setPrivateMode(int mode, bool on);
    void setAnsiMode(int mode, bool on);
    void cmdDecRqm(const CsiParameters& pars, bool isPrivate);
    int privateModeState(int mode) const;
    int ansiModeState(int mode) const;
    static std::span<const ModeRule> privateModes();
    static std::span<const ModeRule> ansiModes();
    // Rule parts for the modes that are one flag of the terminal.
    template <bool Terminal::*Flag> static void setFlag(Terminal& terminal, bool on);
    template <bool Terminal::*Flag> static int reportFlag(const Terminal& terminal);
    void cmdSavePrivateModes(const CsiParameters& pars);
    void cmdRestorePrivateModes(const CsiParameters& pars);
    void activateAltBuffer(bool clearFirst);
    void activateNormalBuffer(bool clearAlt);
    void setSynchronizedOutput(bool on);
    void setColumnMode(bool wide);
    void setMouseMode(MouseMode mode);
    void setCursorVisible(bool visible);
    void setReverseColors(bool on);
    void setMarginMode(bool on);
    void setSendFocus(bool on);
    void changeBidiState(const std::function<void(BidiPresentationState&)>& change, unsigned properties);
    void applyCurrentBidiStateAtParagraphStart(unsigned properties);
    void cmdSelectCharacterPath(const CsiParameters& pars);
    void cmdSelectPresentationDirection(const CsiParameters& pars);

    // SGR (TerminalSgr.cpp)
    void cmdCsiM(const CsiParameters& pars, std::span<const uint8_t> collect);
    bool applySgr(const CsiParameters& pars);
    int extendedColor(const CsiParameters& pars, int i, std::optional<Attribute::Color>& out);

    // Replies (TerminalReplies.cpp)
    void cmdSendDeviceAttributes(const CsiParameters& pars, std::span<const uint8_t> collect);
    void cmdDeviceStatus(const CsiParameters& pars, std::span<const uint8_t> collect);
    void cmdXTVERSION(const CsiParameters& pars);
    void cmdWindowOptions(const CsiParameters& pars);
    void replyStatusString(std::string_view request);
    std::string csi() const { return m_cc.send8bit ? "\x9b" : "\x1b["; }
    std::string dcs() const { return m_cc.send8bit ? "\x90" : "\x1bP"; }
    std::string st() const { return m_cc.send8bit ? "\x9c" : "\x1b\\"; }
    std::string osc() const { return m_cc.send8bit ? "\x9d" : "\x1b]"; }

    // OSC (TerminalOsc.cpp)
    void oscSetTitle(std::span<const uint8_t> data, bool title, bool icon);
    void oscChangeOrQueryColorIndex(std::span<const uint8_t> data);
    void oscSetColors(std::span<const uint8_t> data, int first);
    void oscResetColor(std::span<const uint8_t> data);
    void oscClipboard(std::span<const uint8_t> data);
    void oscNotification(std::span<const uint8_t> data);
    void osciTerm2(std::span<const uint8_t> data);
    void oscHyperlink(std::span<const uint8_t> data);
    void oscSetCurrentDirectory(std::span<const uint8_t> data);
    void oscSetCurrentDocument(std::span<const uint8_t> data);
    bool parseProgressReport(std::span<const uint8_t> data);

    // --- Wiring ---------------------------------------------------------------------------------
    TerminalDelegate* m_delegate;
    TerminalOptions m_options;
    TerminalScheduler* m_scheduler;
    TerminalExtensions* m_extensions;
    std::unique_ptr<TerminalExtensions> m_defaultExtensions;
    std::shared_ptr<CellTables> m_tables;
    // The modes and attribute ids both buffers write with; the one copy of each.
    BufferModes m_modes;
    std::unique_ptr<Buffer> m_normalBuffer;
    std::unique_ptr<Buffer> m_altBuffer;
    Buffer* m_buffer = nullptr;
    UpdateRange m_updates;
    EscapeSequenceParser m_parser;
    std::unique_ptr<DcsHandler> m_decrqss;

    // --- Mode state -------------------------------------------------------------------------------
    bool m_applicationKeypad = false;
    bool m_applicationCursor = false;
    bool m_reverseColors = false;
    KeyboardModeState m_keyboardModeNormal;
    KeyboardModeState m_keyboardModeAlt;
    bool m_sendFocus = false;
    bool m_bidiArrowKeySwap = false;
    std::optional<std::pair<bool, BidiPresentationState>> m_savedBidiPrivateModes;
    bool m_cursorHidden = false;
    bool m_originMode = false;
    bool m_bracketedPasteMode = false;
    bool m_alternateScrollMode = false;
    const CharSet* m_charset = nullptr;
    std::array<const CharSet*, 4> m_gCharsets{};
    int m_gcharset = 0;
    bool m_reverseWraparound = false;
    Attribute m_curAttr;
    int m_gLevel = 0;
    bool m_cursorBlink = false;
    bool m_allow80To132 = false;
    bool m_lineFeedMode = false;
    bool m_smoothScroll = false;
    MouseProtocolEncoding m_mouseProtocol = MouseProtocolEncoding::x10;
    MouseMode m_mouseMode = MouseMode::off;
    bool m_mouseShiftCapture = false;
    TerminalConformance m_conformance = TerminalConformance::vt500;
    bool m_xtermTitleSetUtf = false;
    bool m_xtermTitleSetHex = false;
    bool m_xtermTitleQueryUtf = false;
    bool m_xtermTitleQueryHex = false;
    CC m_cc;
    CursorStyle m_cursorStyle = CursorStyle::blinkBlock;

    // --- What programs reported ---------------------------------------------------------------
    std::string m_terminalTitle;
    std::string m_iconTitle;
    std::vector<std::string> m_terminalTitleStack;
    std::vector<std::string> m_terminalIconStack;
    std::string m_hostCurrentDirectory;
    std::string m_hostCurrentDocument;
    std::optional<ActiveHyperlink> m_activeHyperlink;
    bool m_semanticLineAdvanceWanted = false;
    std::unordered_set<uint16_t> m_payloadCodes;

    // --- Colours -----------------------------------------------------------------------------------
    Color m_foregroundColor = Color::from8bit(0, 0, 0);
    Color m_backgroundColor = Color::from8bit(0xFF, 0xFF, 0xFF);
    std::optional<Color> m_cursorColor;
    std::vector<Color> m_installedColors;
    std::vector<Color> m_defaultAnsiColors;
    std::array<Color, 256> m_ansiColors{};
    bool m_settingFgColor = false;
    bool m_settingBgColor = false;

    // --- Host settings and timers ---------------------------------------------------------------------
    bool m_silentLog = false;
    bool m_userScrolling = false;
    std::function<void(std::string_view)> m_logSink;
    bool m_synchronizedOutputActive = false;
    std::optional<TerminalScheduler::Token> m_synchronizedOutputTimeoutItem;
    std::chrono::milliseconds m_synchronizedOutputTimeout = kSynchronizedOutputTimeout;

    // --- Print state -----------------------------------------------------------------------------------
    // The attribute ids follow `m_curAttr` lazily, so a run of SGR sequences interns only its outcome.
    bool m_attrDirty = true;
    // Bytes of a UTF-8 character cut by the end of a chunk.
    std::array<uint8_t, 4> m_carried{};
    int m_carriedCount = 0;
    // The last character printed, for REP.
    int32_t m_lastCode = 0;
    int m_lastWidth = 1;
    bool m_hasLastChar = false;
    // Recent joins: (cluster code, scalar) to the joined code, or -1 when they do not join.
    static constexpr int kJoinCacheBits = 14;
    struct JoinCacheEntry {
        uint64_t key = ~0ull;
        int32_t code = 0;
    };
    std::vector<JoinCacheEntry> m_joinCache; // allocated on the first join
    // Scratch for joining, kept to avoid allocating on the hot path.
    std::string m_joinScratch;
    std::u32string m_scalarScratch;

    // --- SGR memo (kept after the print state, which the print path reads together) --------
    // Recent SGR sequences and what each did: a sequence always takes the same attribute to
    // the same one, and programs repeat a handful of them, so a repeat costs one lookup
    // instead of the parameter walk and the interning. An entry learns the ids of its outcome
    // when the print path next interns it, and keeps them until the attribute table collects.
    struct SgrMemo {
        uint64_t parameters = 0; // 0: empty; see `sgrMemoKey`
        Attribute from;
        Attribute to;
        uint32_t collections = 0;
        bool hasIds = false;
        bool rare = false; // made from a true-colour attribute
        AttributeId id = 0;
        AttributeId eraseId = 0;
    };
    static constexpr int kSgrMemoBits = 8;
    std::vector<SgrMemo> m_sgrMemo = std::vector<SgrMemo>(size_t(1) << kSgrMemoBits);
    // The entry the last SGR sequence made, which the next interning completes; -1 for none.
    int m_sgrMemoPending = -1;
};

} // namespace termkit
