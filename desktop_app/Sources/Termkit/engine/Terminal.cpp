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
    m_tables->payloads = TinyAtomTable(m_options.payloadTableCapacity);
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
    if (m_synchronizedOutputTimeoutItem && m_scheduler)
        m_scheduler->cancel(*m_synchronizedOutputTimeoutItem);
    m_tables->attributes.setMarker(nullptr);
}

void Terminal::log(std::string_view message) const {
    if (m_silentLog)
        return;
    if (m_logSink) {
        std::string line = "Info: ";
        line += message;
        m_logSink(line);
    } else {
        logInfo(message);
    }
}

void Terminal::configureParser() {
    m_parser.setApcFallback([this](uint8_t command, std::span<const uint8_t>) {
        if (m_silentLog)
            return;
        log("Termkit: Unknown APC code: " + std::string(1, static_cast<char>(command)));
    });
    m_parser.setErrorHandler([this](ParsingState state) {
        if (!m_silentLog)
            log(std::string("Termkit: Parsing error, state: ") + parserStateName(state.currentState));
        return state;
    });
}

void Terminal::logUnknownEsc(std::span<const uint8_t> collect, uint8_t final) {
    if (m_silentLog)
        return;
    log("Termkit: Unknown ESC Code: ESC + " + std::string(1, static_cast<char>(final)) +
        " txt=" + printable(collect));
}

void Terminal::logUnknownOsc(int code) {
    if (m_silentLog)
        return;
    log("Termkit: Unknown OSC code: " + std::to_string(code));
}

void Terminal::logUnknownCsi(std::span<const uint8_t> collect, uint8_t final, const CsiParameters& pars) {
    if (m_silentLog)
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
    // Both write with the one set of modes; the options' bidi state is where it starts.
    m_modes.defaultBidiState = m_options.initialBidiState;
    for (Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()})
        b->attach(this, &m_updates, &m_modes);
}

void Terminal::setup(bool isReset) {
    if (!isReset) {
        makeBuffers();
        m_installedColors.assign(Color::defaultInstalledColors().begin(),
                                 Color::defaultInstalledColors().end());
        m_defaultAnsiColors = m_installedColors;
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
    m_applicationKeypad = false;
    m_applicationCursor = false;
    m_reverseColors = false;
    m_keyboardModeNormal.reset();
    m_keyboardModeAlt.reset();
    m_sendFocus = false;
    m_modes.defaultBidiState = m_options.initialBidiState;
    m_bidiArrowKeySwap = m_options.initialBidiArrowKeySwap;
    m_savedBidiPrivateModes.reset();
    m_cursorHidden = false;
    m_originMode = false;
    m_modes.marginMode = false;
    m_modes.insertMode = false;
    m_modes.wraparound = true;
    m_bracketedPasteMode = false;
    m_alternateScrollMode = false;
    m_charset = nullptr;
    m_gCharsets = {};
    m_gcharset = 0;
    m_gLevel = 0;
    m_reverseWraparound = false;
    m_curAttr = kEmptyAttribute;
    m_cursorBlink = false;
    m_allow80To132 = false;
    m_lineFeedMode = m_options.convertEol;
    m_smoothScroll = false;
    m_mouseProtocol = MouseProtocolEncoding::x10;
    m_mouseMode = MouseMode::off;
    m_mouseShiftCapture = false;
    m_conformance = TerminalConformance::vt500;
    m_xtermTitleSetUtf = m_xtermTitleSetHex = m_xtermTitleQueryUtf = m_xtermTitleQueryHex = false;
    m_terminalTitleStack.clear();
    m_terminalIconStack.clear();
    m_cursorStyle = m_options.cursorStyle;
    m_cc = CC{};
    m_activeHyperlink.reset();
    if (m_synchronizedOutputActive)
        setSynchronizedOutput(false);
    m_carriedCount = 0;
    m_hasLastChar = false;
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

void Terminal::refreshAttributes() {
    m_attrDirty = false;
    AttributeTable& table = m_tables->attributes;
    m_modes.curAttr = table.intern(m_curAttr);
    // Erased cells only carry the background; most attribute changes keep it.
    Attribute erase;
    erase.bg = m_curAttr.bg;
    if (table[m_modes.eraseAttr] != erase)
        m_modes.eraseAttr = table.intern(erase);
    if (m_sgrMemoPending >= 0) {
        // The outcome of the last SGR sequence, unless something else set the attribute since.
        SgrMemo& memo = m_sgrMemo[static_cast<size_t>(m_sgrMemoPending)];
        m_sgrMemoPending = -1;
        if (memo.to == m_curAttr) {
            memo.collections = table.collections();
            memo.hasIds = true;
            memo.id = m_modes.curAttr;
            memo.eraseId = m_modes.eraseAttr;
        }
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

void Terminal::bufferScrolled(LineIndex yDisp) {
    if (m_delegate)
        m_delegate->scrolled(*this, yDisp);
}

// --- Reading ------------------------------------------------------------------------------------

const BufferLine* Terminal::getLine(ScreenRow row) const {
    const LineIndex index = m_buffer->yDisp() + row.value;
    if (row.value < 0 || index.value >= m_buffer->lineCount())
        return nullptr;
    return &m_buffer->line(index);
}

const BufferLine* Terminal::getScrollInvariantLine(InvariantRow row) const {
    const long long index = row.value - m_buffer->linesTop();
    if (index < 0 || index >= m_buffer->lineCount())
        return nullptr;
    return &m_buffer->line(LineIndex(static_cast<int>(index)));
}

std::optional<CharData> Terminal::getCharData(Col col, ScreenRow row) const {
    if (col.value < 0 || col.value >= cols() || row.value < 0 || row.value >= rows())
        return std::nullopt;
    return m_buffer->getChar(col, row);
}

std::string Terminal::getCharacter(Col col, ScreenRow row) const {
    const auto cell = getCharData(col, row);
    if (!cell || cell->code == 0)
        return " ";
    return character(cell->code);
}

std::pair<Col, ScreenRow> Terminal::getCursorLocation() const {
    return {cursorCol(), m_buffer->y()};
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

std::vector<uint8_t> Terminal::getBufferAsData() const {
    std::string all;
    for (LineIndex i(0); i.value < m_buffer->lineCount(); ++i) {
        if (i.value > 0)
            all += '\n';
        all += m_buffer->line(i).translateToString(m_tables->characters);
    }
    return {all.begin(), all.end()};
}

std::string Terminal::getText(Position start, Position end) const {
    std::string out;
    const LineIndex last(std::min(end.row.value, m_buffer->lineCount() - 1));
    for (LineIndex row(std::max(start.row.value, 0)); row <= last; ++row) {
        const BufferLine& line = m_buffer->line(row);
        const int from = row == start.row ? start.col.value : 0;
        const int to = row == end.row ? end.col.value : line.count();
        const bool lastRow = row == last;
        out += line.translateToString(!lastRow || to >= line.count(), from, to, true, m_tables->characters);
        if (!lastRow && !((row + 1).value < m_buffer->lineCount() && m_buffer->line(row + 1).isWrapped()))
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
    m_foregroundColor = color;
    if (m_options.ansi256PaletteStrategy != Ansi256PaletteStrategy::xterm)
        rebuildAnsiPalette(false);
}

void Terminal::storeBackgroundColor(Color color) {
    m_backgroundColor = color;
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
    m_installedColors.assign(colors.begin(), colors.end());
    rebuildAnsiPalette(true);
}

void Terminal::rebuildAnsiPalette(bool notifyDelegate) {
    const std::vector<Color>& base = m_installedColors.size() >= 16 ? m_installedColors : m_defaultAnsiColors;
    std::vector<Color> all;
    switch (m_options.ansi256PaletteStrategy) {
    case Ansi256PaletteStrategy::xterm:
        all = generateXtermPalette(base);
        break;
    case Ansi256PaletteStrategy::base16Lab:
        all = generateBase16LabPalette(base, m_foregroundColor, m_backgroundColor, false);
        break;
    case Ansi256PaletteStrategy::base16LabHarmonious:
        all = generateBase16LabPalette(base, m_foregroundColor, m_backgroundColor, true);
        break;
    }
    for (size_t i = 0; i < m_ansiColors.size() && i < all.size(); ++i)
        m_ansiColors[i] = all[i];
    if (notifyDelegate && m_delegate)
        m_delegate->colorChanged(*this, std::nullopt);
}

// --- Hyperlink payloads ---------------------------------------------------------------------------------

void Terminal::setActiveHyperlink(std::optional<std::string> payload) {
    if (!payload) {
        m_activeHyperlink.reset();
        return;
    }
    m_activeHyperlink = ActiveHyperlink{ActiveHyperlink::State::pending, std::move(*payload), 0};
}

uint16_t Terminal::resolveActiveHyperlink() {
    if (!m_activeHyperlink)
        return 0;
    ActiveHyperlink& link = *m_activeHyperlink;
    if (link.state == ActiveHyperlink::State::pending) {
        if (auto atom = m_tables->payloads.lookup(link.payload)) {
            link.state = ActiveHyperlink::State::interned;
            link.code = atom->code;
            m_payloadCodes.insert(atom->code);
        } else {
            link.state = ActiveHyperlink::State::exhausted;
        }
    }
    return link.state == ActiveHyperlink::State::interned ? link.code : 0;
}

void Terminal::garbageCollectPayload() {
    std::unordered_set<uint16_t> used;
    for (const Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()}) {
        for (int i = 0; i < b->lineCount(); ++i) {
            const BufferLine* line = b->lines().peek(i);
            if (!line)
                continue;
            for (int c = 0; c < line->count(); ++c) {
                if (line->cells()[c].payload != 0)
                    used.insert(line->cells()[c].payload);
            }
        }
    }
    if (m_activeHyperlink && m_activeHyperlink->state == ActiveHyperlink::State::interned)
        used.insert(m_activeHyperlink->code);
    std::vector<uint16_t> unused;
    for (uint16_t code : m_payloadCodes) {
        if (!used.count(code))
            unused.push_back(code);
    }
    m_tables->payloads.release(unused);
    for (uint16_t code : unused)
        m_payloadCodes.erase(code);
}

} // namespace termkit

namespace termkit {

// --- Images on lines -----------------------------------------------------------------------

void Terminal::attachImage(ScreenRow row, TerminalImage image) {
    m_buffer->attachImage(std::move(image), m_buffer->lineIndex(row));
    m_buffer->markRow(row);
}

void Terminal::removeImages(const std::function<bool(const TerminalImage&)>& drop) {
    for (Buffer* b : {m_normalBuffer.get(), m_altBuffer.get()}) {
        if (b->linesWithImagesCount() == 0)
            continue;
        bool changed = false;
        for (int i = 0; i < b->lineCount(); ++i) {
            BufferLine* line = b->lines().peek(i);
            if (line == nullptr || !line->hasImages())
                continue;
            std::vector<TerminalImage> kept = *line->images();
            if (std::erase_if(kept, drop) == 0)
                continue;
            line->clearImages();
            for (TerminalImage& image : kept)
                line->attach(std::move(image));
            changed = true;
        }
        if (changed) {
            b->recalculateImageCount();
            if (b == m_buffer)
                updateFullScreen();
        }
    }
}

void Terminal::setCursorColumn(Col col) {
    m_buffer->setX(std::clamp(col, Col(0), m_buffer->lastCol()));
}

} // namespace termkit
