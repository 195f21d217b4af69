#include "Termkit/engine/Terminal.h"

#include <algorithm>
#include <cstdlib>

#include "Termkit/buffer/Log.h"
#include "Termkit/buffer/TinyAtom.h"

namespace termkit {

namespace {

std::string printable(std::span<const uint8_t> bytes) {
    return std::string(bytes.begin(), bytes.end());
}

std::string parametersText(const CsiParameters& pars) {
    std::string out = "[";
    for (int i = 0; i < pars.count; ++i) {
        if (i > 0)
            out += ", ";
        out += std::to_string(pars.values[i]);
    }
    return out + "]";
}

} // namespace

Terminal::Terminal(TerminalDelegate* delegate, TerminalOptions options, TerminalScheduler* scheduler,
                   TerminalExtensions* extensions)
    : m_delegate(delegate), m_options(std::move(options)), m_scheduler(scheduler), m_extensions(extensions),
      m_tables(std::make_shared<CellTables>()), m_parser(this) {
    if (m_extensions == nullptr) {
        m_defaultExtensions = std::make_unique<TerminalExtensions>();
        m_extensions = m_defaultExtensions.get();
    }
    m_options.cols = std::max(m_options.cols, TerminalOptions::kMinimumCols);
    m_options.rows = std::max(m_options.rows, TerminalOptions::kMinimumRows);
    m_joinScratch.reserve(64);
    m_scalarScratch.reserve(16);
    m_tables->attributes.setMarker(
        [this](const std::function<void(AttributeId)>& mark) { markAttributes(mark); });
    configureParser();
    setup(false);
}

Terminal::~Terminal() {
    if (synchronizedOutputTimeoutItem && m_scheduler)
        m_scheduler->cancel(*synchronizedOutputTimeoutItem);
    m_tables->attributes.setMarker(nullptr);
}

void Terminal::log(std::string_view message) const {
    if (silentLog)
        return;
    if (logSink) {
        std::string line = "Info: ";
        line += message;
        logSink(line);
    } else {
        logInfo(message);
    }
}

void Terminal::configureParser() {
    m_parser.csiHandlerFallback = [this](std::span<const uint8_t> collect, uint8_t final,
                                         const CsiParameters& pars) { logUnknownCsi(collect, final, pars); };
    m_parser.escHandlerFallback = [this](std::span<const uint8_t> collect, uint8_t final) {
        if (silentLog)
            return;
        log("Termkit: Unknown ESC Code: ESC + " + std::string(1, static_cast<char>(final)) +
            " txt=" + printable(collect));
    };
    m_parser.executeHandlerFallback = [this](uint8_t) { log("Termkit: Unknown EXECUTE code"); };
    m_parser.oscHandlerFallback = [this](int code, std::span<const uint8_t>) {
        if (silentLog)
            return;
        log("Termkit: Unknown OSC code: " + std::to_string(code));
    };
    m_parser.apcHandlerFallback = [this](uint8_t command, std::span<const uint8_t>) {
        if (silentLog)
            return;
        log("Termkit: Unknown APC code: " + std::string(1, static_cast<char>(command)));
    };
    m_parser.errorHandler = [this](ParsingState state) {
        if (!silentLog)
            log(std::string("Termkit: Parsing error, state: ") + parserStateName(state.currentState));
        return state;
    };
}

void Terminal::logUnknownCsi(std::span<const uint8_t> collect, uint8_t final, const CsiParameters& pars) {
    if (silentLog)
        return;
    log("Termkit: Unknown CSI Code (collect=" + printable(collect) +
        " code=" + std::string(1, static_cast<char>(final)) + " pars=" + parametersText(pars) + ")");
}

void Terminal::makeBuffers() {
    m_normalBuffer =
        std::make_unique<Buffer>(m_options.cols, m_options.rows, m_options.tabStopWidth, m_options.scrollback,
                                 m_options.initialBidiState, m_tables, true);
    m_altBuffer = std::make_unique<Buffer>(m_options.cols, m_options.rows, m_options.tabStopWidth,
                                           std::nullopt, m_options.initialBidiState, m_tables, false);
    for (Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()}) {
        b->observer = this;
        b->updates = &m_updates;
    }
}

void Terminal::setup(bool isReset) {
    if (!isReset) {
        makeBuffers();
        installedColors.assign(Color::defaultInstalledColors().begin(),
                               Color::defaultInstalledColors().end());
        defaultAnsiColors = installedColors;
    } else {
        const int cols = m_buffer->cols();
        const int rows = m_buffer->rows();
        m_options.cols = cols;
        m_options.rows = rows;
        m_normalBuffer->clear();
        m_altBuffer->clear();
        for (Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()})
            b->softReset();
    }
    m_buffer = m_normalBuffer.get();
    applicationKeypad = false;
    applicationCursor = false;
    reverseColors = false;
    keyboardModeNormal = 0;
    keyboardModeAlt = 0;
    sendFocus = false;
    currentBidiState = m_options.initialBidiState;
    bidiArrowKeySwap = m_options.initialBidiArrowKeySwap;
    savedBidiPrivateModes.reset();
    cursorHidden = false;
    originMode = false;
    marginMode = false;
    insertMode = false;
    wraparound = true;
    bracketedPasteMode = false;
    alternateScrollMode = false;
    charset = nullptr;
    gCharsets = {};
    gcharset = 0;
    gLevel = 0;
    reverseWraparound = false;
    curAttr = kEmptyAttribute;
    cursorBlink = false;
    allow80To132 = false;
    lineFeedMode = m_options.convertEol;
    smoothScroll = false;
    mouseProtocol = MouseProtocolEncoding::x10;
    mouseMode = MouseMode::off;
    mouseShiftCapture = false;
    conformance = TerminalConformance::vt500;
    xtermTitleSetUtf = xtermTitleSetHex = xtermTitleQueryUtf = xtermTitleQueryHex = false;
    terminalTitleStack.clear();
    terminalIconStack.clear();
    cursorStyle = m_options.cursorStyle;
    cc = CC{};
    activeHyperlink.reset();
    if (synchronizedOutputActive)
        setSynchronizedOutput(false);
    for (Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()})
        b->defaultBidiState = currentBidiState;
    m_carriedCount = 0;
    m_hasLastChar = false;
    syncBufferModes();
    refreshAttributes();
    rebuildAnsiPalette(false);
    m_extensions->reset(*this, isReset);
    if (isReset)
        updateFullScreen();
}

void Terminal::resetToInitialState() {
    setup(true);
    if (m_delegate)
        m_delegate->bufferActivated(*this);
}

void Terminal::syncBufferModes() {
    for (Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()}) {
        b->insertMode = insertMode;
        b->marginMode = marginMode;
        b->wraparound = wraparound;
    }
}

void Terminal::refreshAttributes() {
    m_attrDirty = false;
    AttributeTable& table = m_tables->attributes;
    const AttributeId id = table.intern(curAttr);
    // Erased cells only carry the background; most attribute changes keep it.
    Attribute erase;
    erase.bg = curAttr.bg;
    AttributeId eraseId = m_normalBuffer->eraseAttr;
    if (table[eraseId] != erase)
        eraseId = table.intern(erase);
    for (Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()}) {
        b->curAttr = id;
        b->eraseAttr = eraseId;
    }
}

void Terminal::markAttributes(const std::function<void(AttributeId)>& mark) const {
    if (m_normalBuffer)
        m_normalBuffer->markAttributes(mark);
    if (m_altBuffer)
        m_altBuffer->markAttributes(mark);
}

void Terminal::feed(std::span<const uint8_t> bytes) {
    m_parser.parse(bytes);
}

void Terminal::feed(std::string_view text) {
    m_parser.parse(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

void Terminal::resize(int cols, int rows) {
    cols = std::max(cols, TerminalOptions::kMinimumCols);
    rows = std::max(rows, TerminalOptions::kMinimumRows);
    if (cols == this->cols() && rows == this->rows())
        return;
    m_normalBuffer->resize(cols, rows);
    m_altBuffer->resize(cols, rows);
    m_options.cols = cols;
    m_options.rows = rows;
    updateFullScreen();
}

void Terminal::changeScrollback(std::optional<int> lines) {
    m_options.scrollback = lines.value_or(0);
    m_normalBuffer->changeHistorySize(lines);
    updateFullScreen();
}

void Terminal::clearScrollback() {
    m_normalBuffer->clearScrollback();
    updateFullScreen();
}

void Terminal::bufferScrolled(int yDisp) {
    if (m_delegate)
        m_delegate->scrolled(*this, yDisp);
}

// --- Reading ------------------------------------------------------------------------------------

BufferLine* Terminal::getLine(ScreenRow row) {
    const int index = m_buffer->yDisp + row.value;
    if (row.value < 0 || index >= m_buffer->lines.count())
        return nullptr;
    return &m_buffer->lines[index];
}

BufferLine* Terminal::getScrollInvariantLine(InvariantRow row) {
    const long long index = row.value - m_buffer->linesTop;
    if (index < 0 || index >= m_buffer->lines.count())
        return nullptr;
    return &m_buffer->lines[static_cast<int>(index)];
}

std::optional<CharData> Terminal::getCharData(Col col, ScreenRow row) {
    if (col.value < 0 || col.value >= cols() || row.value < 0 || row.value >= rows())
        return std::nullopt;
    return m_buffer->getChar(col, row);
}

std::string Terminal::getCharacter(Col col, ScreenRow row) {
    const auto cell = getCharData(col, row);
    if (!cell || cell->code == 0)
        return " ";
    return character(cell->code);
}

std::pair<Col, ScreenRow> Terminal::getCursorLocation() const {
    return {Col(std::min(m_buffer->x, m_buffer->cols() - 1)), ScreenRow(m_buffer->y)};
}

std::optional<std::pair<int, int>> Terminal::getUpdateRange() const {
    if (m_updates.empty())
        return std::nullopt;
    return std::pair(std::max(m_updates.refreshStart, 0), std::min(m_updates.refreshEnd, rows() - 1));
}

std::optional<std::pair<long long, long long>> Terminal::getScrollInvariantUpdateRange() const {
    if (m_updates.empty())
        return std::nullopt;
    return std::pair(m_updates.scrollInvariantRefreshStart, m_updates.scrollInvariantRefreshEnd);
}

std::vector<uint8_t> Terminal::getBufferAsData() {
    std::string all;
    for (int i = 0; i < m_buffer->lines.count(); ++i) {
        if (i > 0)
            all += '\n';
        all += m_buffer->lines[i].translateToString(m_tables->characters);
    }
    return {all.begin(), all.end()};
}

std::string Terminal::getText(Position start, Position end) {
    std::string out;
    const int last = std::min(end.row.value, m_buffer->lines.count() - 1);
    for (int row = std::max(start.row.value, 0); row <= last; ++row) {
        BufferLine& line = m_buffer->lines[row];
        const int from = row == start.row.value ? start.col.value : 0;
        const int to = row == end.row.value ? end.col.value : line.count();
        const bool lastRow = row == last;
        out += line.translateToString(!lastRow || to >= line.count(), from, to, true, m_tables->characters);
        if (!lastRow && !(row + 1 < m_buffer->lines.count() && m_buffer->lines[row + 1].isWrapped))
            out += '\n';
    }
    return out;
}

// --- Output -------------------------------------------------------------------------------------------

void Terminal::sendResponse(std::initializer_list<ResponseItem> items) {
    std::vector<uint8_t> bytes;
    for (const ResponseItem& item : items) {
        if (const auto* text = std::get_if<std::string_view>(&item)) {
            bytes.insert(bytes.end(), text->begin(), text->end());
        } else {
            const auto& data = std::get<std::span<const uint8_t>>(item);
            bytes.insert(bytes.end(), data.begin(), data.end());
        }
    }
    if (m_delegate)
        m_delegate->send(*this, bytes);
}

std::vector<std::string> Terminal::getEnvironmentVariables(std::string_view termName, bool trueColor) {
    std::vector<std::string> env;
    env.push_back("TERM=" + std::string(termName.empty() ? "xterm-256color" : termName));
    if (trueColor)
        env.emplace_back("COLORTERM=truecolor");
    env.emplace_back("LANG=en_US.UTF-8");
    // USER is listed twice and LC_TYPE is spelled as it is on purpose: children have always
    // received exactly this list.
    for (const char* name : {"LOGNAME", "USER", "DISPLAY", "LC_TYPE", "USER", "HOME"}) {
        if (const char* value = std::getenv(name))
            env.push_back(std::string(name) + "=" + value);
    }
    return env;
}

// --- Colours ------------------------------------------------------------------------------------------

void Terminal::storeForegroundColor(Color color) {
    foregroundColor = color;
    if (m_options.ansi256PaletteStrategy != Ansi256PaletteStrategy::xterm)
        rebuildAnsiPalette(false);
}

void Terminal::storeBackgroundColor(Color color) {
    backgroundColor = color;
    if (m_options.ansi256PaletteStrategy != Ansi256PaletteStrategy::xterm)
        rebuildAnsiPalette(false);
}

void Terminal::setForegroundColor(Color color) {
    storeForegroundColor(color);
    if (m_delegate && !m_settingFgColor) {
        m_settingFgColor = true;
        m_delegate->setForegroundColor(*this, color);
        m_settingFgColor = false;
    }
}

void Terminal::setBackgroundColor(Color color) {
    storeBackgroundColor(color);
    if (m_delegate && !m_settingBgColor) {
        m_settingBgColor = true;
        m_delegate->setBackgroundColor(*this, color);
        m_settingBgColor = false;
    }
}

void Terminal::installColors(std::span<const Color> colors) {
    installedColors.assign(colors.begin(), colors.end());
    rebuildAnsiPalette(true);
}

void Terminal::rebuildAnsiPalette(bool notifyDelegate) {
    const std::vector<Color>& base = installedColors.size() >= 16 ? installedColors : defaultAnsiColors;
    std::vector<Color> all;
    switch (m_options.ansi256PaletteStrategy) {
    case Ansi256PaletteStrategy::xterm:
        all = generateXtermPalette(base);
        break;
    case Ansi256PaletteStrategy::base16Lab:
        all = generateBase16LabPalette(base, foregroundColor, backgroundColor, false);
        break;
    case Ansi256PaletteStrategy::base16LabHarmonious:
        all = generateBase16LabPalette(base, foregroundColor, backgroundColor, true);
        break;
    }
    for (size_t i = 0; i < ansiColors.size() && i < all.size(); ++i)
        ansiColors[i] = all[i];
    if (notifyDelegate && m_delegate)
        m_delegate->colorChanged(*this, std::nullopt);
}

// --- Hyperlink payloads ---------------------------------------------------------------------------------

void Terminal::setActiveHyperlink(std::optional<std::string> payload) {
    if (!payload) {
        activeHyperlink.reset();
        return;
    }
    activeHyperlink = ActiveHyperlink{ActiveHyperlink::State::pending, std::move(*payload), 0};
}

uint16_t Terminal::resolveActiveHyperlink() {
    if (!activeHyperlink)
        return 0;
    ActiveHyperlink& link = *activeHyperlink;
    if (link.state == ActiveHyperlink::State::pending) {
        if (auto atom = TinyAtom::lookup(link.payload)) {
            link.state = ActiveHyperlink::State::interned;
            link.code = atom->code;
            payloadCodes.insert(atom->code);
        } else {
            link.state = ActiveHyperlink::State::exhausted;
        }
    }
    return link.state == ActiveHyperlink::State::interned ? link.code : 0;
}

void Terminal::garbageCollectPayload() {
    std::unordered_set<uint16_t> used;
    for (Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()}) {
        for (int i = 0; i < b->lines.count(); ++i) {
            const BufferLine* line = b->lines.peek(i);
            if (!line)
                continue;
            for (int c = 0; c < line->count(); ++c) {
                if (line->cells()[c].payload != 0)
                    used.insert(line->cells()[c].payload);
            }
        }
    }
    if (activeHyperlink && activeHyperlink->state == ActiveHyperlink::State::interned)
        used.insert(activeHyperlink->code);
    std::vector<uint16_t> unused;
    for (uint16_t code : payloadCodes) {
        if (!used.count(code))
            unused.push_back(code);
    }
    TinyAtom::release(unused);
    for (uint16_t code : unused)
        payloadCodes.erase(code);
}

} // namespace termkit
