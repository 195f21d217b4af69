#include "Termkit/view/TerminalView.h"

#include <QGuiApplication>
#include <QQuickWindow>
#include <QScreen>

#include <algorithm>
#include <utility>

#include "Termkit/engine/ScreenText.h"
#include "Termkit/view/LiveResizeThrottle.h"

namespace termkit {

namespace {

uint32_t toArgb(const QColor& color) {
    return color.rgba();
}

Color toTerminalColor(uint32_t argb) {
    return Color::from8bit(static_cast<uint8_t>(argb >> 16), static_cast<uint8_t>(argb >> 8),
                           static_cast<uint8_t>(argb));
}

} // namespace

TerminalView::TerminalView(QQuickItem* parent)
    : QQuickItem(parent), m_terminalScheduler(std::make_unique<QtTerminalScheduler>()),
      m_fontFamily(QString::fromLatin1(FontSet::kDefaultFamily)), m_fontSize(FontSet::kDefaultPointSize) {
    m_clock.start();
    m_semantic = std::make_unique<SemanticPrompts>();
    m_graphics = std::make_unique<TerminalGraphics>(m_semantic.get());
    m_terminal = std::make_unique<Terminal>(static_cast<TerminalDelegate*>(this), TerminalOptions{},
                                            m_terminalScheduler.get(), m_graphics.get());
    m_graphics->attach(*m_terminal);
    m_terminal->storeForegroundColor(toTerminalColor(m_colors.foreground));
    m_terminal->storeBackgroundColor(toTerminalColor(m_colors.background));
    m_selection = std::make_unique<SelectionService>(*m_terminal);
    m_selection->selectionChanged = [this] {
        emit selectionChanged();
        polish();
    };
    m_search = std::make_unique<SearchService>(*m_terminal);
    setFlag(ItemHasContents, true);
    setFlag(ItemAcceptsInputMethod, true);
    setFlag(ItemIsFocusScope, false);
    setActiveFocusOnTab(true);
    setAcceptedMouseButtons(Qt::AllButtons);
    setAcceptHoverEvents(true);

    m_displayTimer.setSingleShot(true);
    m_displayTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_displayTimer, &QTimer::timeout, this, &TerminalView::displayTimerFired);
    m_textBlinkTimer.setInterval(TextBlink::kInterval);
    connect(&m_textBlinkTimer, &QTimer::timeout, this, [this] {
        m_textBlink.tick();
        polish();
    });
    m_caretBlinkTimer.setInterval(kCaretBlinkInterval);
    connect(&m_caretBlinkTimer, &QTimer::timeout, this, [this] {
        m_caretBlinkShown = !m_caretBlinkShown;
        m_caretDirty = true;
        polish();
    });
    m_bellTimer.setSingleShot(true);
    m_bellTimer.setInterval(kVisualBellDuration);
    connect(&m_bellTimer, &QTimer::timeout, this, [this] {
        m_bellFlash = false;
        update();
    });
    m_liveResizeThrottle = liveResizeThrottleEnabled();
    m_semanticClickTimer.setSingleShot(true);
    connect(&m_semanticClickTimer, &QTimer::timeout, this, [this] {
        const std::string bytes = std::exchange(m_semanticClickBytes, std::string());
        if (!bytes.empty())
            send(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    });
    m_resizeTimer.setSingleShot(true);
    m_resizeTimer.setInterval(kLiveResizeThrottle);
    connect(&m_resizeTimer, &QTimer::timeout, this, [this] {
        if (m_resizePending) {
            m_resizePending = false;
            relayout();
            m_resizeTimer.start();
        }
    });
    m_progressTimer.setInterval(kProgressAnimationInterval);
    connect(&m_progressTimer, &QTimer::timeout, this, [this] {
        if (m_progress.expire(now()))
            updateTimers();
        update();
    });

    makeCoordinator();
    rebuildFonts();
}

TerminalView::~TerminalView() {
    m_coordinator->invalidate();
    disconnect(m_swapConnection);
    disconnect(m_errorConnection);
    disconnect(m_activeConnection);
    disconnect(m_invalidatedConnection);
}

std::chrono::nanoseconds TerminalView::now() const {
    return std::chrono::nanoseconds(m_clock.nsecsElapsed());
}

void TerminalView::setFrameTiming(FrameCoordinator::Timing timing) {
    m_frameTiming = timing;
    makeCoordinator();
}

void TerminalView::makeCoordinator() {
    if (m_coordinator)
        m_coordinator->invalidate();
    FrameCoordinator::Callbacks callbacks;
    callbacks.isRetryEligible = [this] { return isVisible() && window() != nullptr; };
    // The coordinator calls from the render thread too: the view is reached through the
    // main loop only.
    callbacks.requestDraw = [this] {
        QMetaObject::invokeMethod(
            this, [this] { polish(); }, Qt::QueuedConnection);
    };
    callbacks.requestRecovery = [this](const RendererRecoveryReport& report) {
        QMetaObject::invokeMethod(
            this, [this, report] { requestRecovery(report); }, Qt::QueuedConnection);
    };
    m_coordinator =
        std::make_unique<FrameCoordinator>(m_frameClock, m_frameScheduler, callbacks, m_frameTiming);
}

// --- Bytes in and out ---------------------------------------------------------------------------

void TerminalView::feed(std::span<const uint8_t> bytes) {
    m_terminal->feed(bytes);
    followRingRecycling();
    m_bytesFed += bytes.size();
    queuePendingDisplay();
}

void TerminalView::feed(std::string_view text) {
    feed(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

void TerminalView::send(std::span<const uint8_t> data) {
    if (m_delegate)
        m_delegate->send(*this, data);
}

void TerminalView::send(Terminal&, std::span<const uint8_t> data) {
    send(data);
}

void TerminalView::sendUserInput(std::span<const uint8_t> data) {
    if (data.empty())
        return;
    m_pacing.noteUserInput(now());
    // The caret stays lit while the person types, and blinks again from a full period.
    if (m_caretBlinkTimer.isActive()) {
        m_caretBlinkTimer.start();
        if (!m_caretBlinkShown) {
            m_caretBlinkShown = true;
            m_caretDirty = true;
        }
    }
    // Typing brings the view back to the program's screen.
    if (m_userScrolling || linesScrolledBack() != 0)
        scrollTo(0);
    m_semantic->sendUserInput(data);
    send(data);
}

void TerminalView::sendText(const QString& text) {
    const QByteArray bytes = text.toUtf8();
    sendUserInput(
        std::span(reinterpret_cast<const uint8_t*>(bytes.constData()), static_cast<size_t>(bytes.size())));
}

void TerminalView::paste(const QString& text) {
    const std::string bytes = PasteEncoder::encode(text.toStdString(), inputModes().bracketedPasteMode);
    sendUserInput(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
}

// --- Reading the terminal ------------------------------------------------------------------------

InputModes TerminalView::inputModes() const {
    InputModes modes;
    modes.applicationCursor = m_terminal->applicationCursor();
    modes.applicationKeypad = m_terminal->applicationKeypad();
    modes.bracketedPasteMode = m_terminal->bracketedPasteMode();
    modes.alternateScrollMode = m_terminal->alternateScrollMode();
    modes.alternateBufferActive = m_terminal->isAlternateBufferActive();
    modes.sendFocus = m_terminal->sendFocus();
    modes.mouseMode = m_terminal->mouseMode();
    modes.mouseProtocol = m_terminal->mouseProtocol();
    // Each screen keeps its own keyboard enhancement flags.
    modes.keyboardEnhancementFlags = m_terminal->keyboardEnhancementFlags();
    return modes;
}

int TerminalView::linesScrolledBack() const {
    const Buffer& buffer = m_terminal->buffer();
    return buffer.yBase() - buffer.yDisp();
}

bool TerminalView::caretBlinks() const {
    switch (m_terminal->cursorStyle()) {
    case CursorStyle::blinkBlock:
    case CursorStyle::blinkUnderline:
    case CursorStyle::blinkBar:
        return true;
    case CursorStyle::steadyBlock:
    case CursorStyle::steadyUnderline:
    case CursorStyle::steadyBar:
        break;
    }
    return m_terminal->cursorBlink();
}

std::optional<std::string> TerminalView::reportedDirectory(const Terminal& terminal) {
    if (terminal.hostCurrentDirectory().empty())
        return std::nullopt;
    return terminal.hostCurrentDirectory();
}

// --- Scrolling ------------------------------------------------------------------------------------

void TerminalView::scrollTo(int linesBack) {
    const Buffer& buffer = m_terminal->buffer();
    m_terminal->scrollDisplay(buffer.yBase() - std::clamp(linesBack, 0, buffer.yBase().value));
    m_terminal->updateFullScreen();
    const bool scrolling = linesScrolledBack() != 0;
    m_terminal->setUserScrolling(scrolling);
    if (scrolling != m_userScrolling) {
        m_userScrolling = scrolling;
        emit scrolledChanged();
    }
    if (m_delegate) {
        const int total = m_terminal->buffer().yBase().value;
        const double position = total == 0 ? 1.0 : 1.0 - static_cast<double>(linesScrolledBack()) / total;
        m_delegate->scrolled(*this, position);
    }
    m_caretDirty = true;
    polish();
}

void TerminalView::scrollUp(int lines) {
    scrollTo(linesScrolledBack() + lines);
}

void TerminalView::scrollDown(int lines) {
    scrollTo(linesScrolledBack() - lines);
}

void TerminalView::pageUp() {
    scrollUp(std::max(1, m_rows - 1));
}

void TerminalView::pageDown() {
    scrollDown(std::max(1, m_rows - 1));
}

QString TerminalView::screenText() {
    QStringList lines;
    for (int row = 0; row < m_terminal->rows(); ++row) {
        const BufferLine* line = m_terminal->getLine(ScreenRow(row));
        lines << (line ? QString::fromStdString(line->translateToString(m_terminal->tables().characters))
                       : QString());
    }
    return lines.join(QLatin1Char('\n'));
}

// --- Properties -----------------------------------------------------------------------------------

void TerminalView::setFontFamily(const QString& family) {
    if (family == m_fontFamily || family.isEmpty())
        return;
    m_fontFamily = family;
    rebuildFonts();
    emit fontChanged();
}

void TerminalView::setFontSize(qreal points) {
    if (qFuzzyCompare(points, m_fontSize) || points <= 0)
        return;
    m_fontSize = points;
    rebuildFonts();
    emit fontChanged();
}

void TerminalView::setNativeBackgroundColor(const QColor& color) {
    m_colors.background = toArgb(color);
    m_terminal->storeBackgroundColor(toTerminalColor(m_colors.background));
    m_pendingAllRows = true;
    m_caretDirty = true;
    emit colorsChanged();
    polish();
}

void TerminalView::setNativeForegroundColor(const QColor& color) {
    m_colors.foreground = toArgb(color);
    m_terminal->storeForegroundColor(toTerminalColor(m_colors.foreground));
    m_pendingAllRows = true;
    m_caretDirty = true;
    emit colorsChanged();
    polish();
}

QColor TerminalView::caretColor() const {
    return m_settings.caretColor ? QColor::fromRgba(argb(*m_settings.caretColor)) : nativeForegroundColor();
}

void TerminalView::setCaretColor(const QColor& color) {
    m_settings.caretColor = toTerminalColor(toArgb(color));
    m_caretDirty = true;
    emit colorsChanged();
    polish();
}

QColor TerminalView::caretTextColor() const {
    return m_settings.caretTextColor ? QColor::fromRgba(argb(*m_settings.caretTextColor))
                                     : nativeBackgroundColor();
}

void TerminalView::setCaretTextColor(const QColor& color) {
    m_settings.caretTextColor = toTerminalColor(toArgb(color));
    m_caretDirty = true;
    emit colorsChanged();
    polish();
}

// --- Size -----------------------------------------------------------------------------------------

void TerminalView::rebuildFonts() {
    m_fonts = std::make_unique<FontSet>(m_fontFamily, m_fontSize, m_devicePixelRatio);
    GlyphCache::Options options;
    options.customBlockGlyphs = m_settings.customBlockGlyphs;
    options.antiAliasCustomBlockGlyphs = m_settings.antiAliasCustomBlockGlyphs;
    options.maxAtlasSize = GlyphAtlas::recommendedMaxSize(
        m_deviceMaxTextureSize > 0 ? std::optional<int>(m_deviceMaxTextureSize) : std::nullopt);
    // The glyph caches are rebuilt with the fonts; the render thread makes new textures
    // when it sees the new atlases.
    m_frames.reset();
    m_glyphs = std::make_unique<GlyphCache>(*m_fonts, options);
    m_frames = std::make_unique<FrameBuilder>(*m_glyphs);
    m_pendingAllRows = true;
    m_caretDirty = true;
    m_replaceRenderer = true;
    relayout();
    polish();
}

void TerminalView::geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry) {
    QQuickItem::geometryChange(newGeometry, oldGeometry);
    if (newGeometry.size() == oldGeometry.size())
        return;
    if (!m_liveResizeThrottle) {
        relayout();
        return;
    }
    // The first size of a run of changes goes through at once, the last one when the run
    // pauses, and at most one in between per interval.
    if (m_resizeTimer.isActive()) {
        m_resizePending = true;
        return;
    }
    relayout();
    m_resizeTimer.start();
}

void TerminalView::relayout() {
    const CellMetrics& cell = m_fonts->metrics();
    const double deviceWidth = width() * m_devicePixelRatio;
    const double deviceHeight = height() * m_devicePixelRatio;
    // A view made with no size keeps the terminal as it is until it has one.
    if (deviceWidth < cell.width || deviceHeight < cell.height)
        return;
    const int cols = std::max(TerminalOptions::kMinimumCols, static_cast<int>(deviceWidth / cell.width));
    const int rows = std::max(TerminalOptions::kMinimumRows, static_cast<int>(deviceHeight / cell.height));
    m_pendingAllRows = true;
    m_caretDirty = true;
    if (cols != m_cols || rows != m_rows) {
        m_cols = cols;
        m_rows = rows;
        if (cols != m_terminal->cols() || rows != m_terminal->rows())
            m_terminal->resize(cols, rows);
        terminalResized(cols, rows);
        emit terminalSizeChanged();
    }
    polish();
}

void TerminalView::terminalResized(int cols, int rows) {
    if (m_delegate)
        m_delegate->sizeChanged(*this, cols, rows);
}

void TerminalView::itemChange(ItemChange change, const ItemChangeData& value) {
    QQuickItem::itemChange(change, value);
    if (change == ItemSceneChange)
        attachToWindow(value.window);
    if (change == ItemDevicePixelRatioHasChanged)
        attachToWindow(window());
    if (change == ItemVisibleHasChanged)
        updateTimers();
}

void TerminalView::attachToWindow(QQuickWindow* window) {
    if (window != m_window) {
        disconnect(m_swapConnection);
        disconnect(m_errorConnection);
        disconnect(m_activeConnection);
        disconnect(m_invalidatedConnection);
        m_window = window;
        if (m_window) {
            // Completed on the render thread, before the next frame may begin.
            m_swapConnection = connect(m_window, &QQuickWindow::frameSwapped, this,
                                       &TerminalView::framePresentedOnRenderThread, Qt::DirectConnection);
            m_errorConnection = connect(
                m_window, &QQuickWindow::sceneGraphError, this,
                [this](QQuickWindow::SceneGraphError, const QString& message) { sceneGraphFailed(message); });
            m_activeConnection =
                connect(m_window, &QWindow::activeChanged, this, &TerminalView::updateTimers);
            // The device went away (a lost GPU, a hidden window's released scene graph).
            m_invalidatedConnection = connect(m_window, &QQuickWindow::sceneGraphInvalidated, this,
                                              &TerminalView::deviceLost, Qt::QueuedConnection);
            // A new window may be a new device: the renderer is made again for it.
            m_replaceRenderer = true;
            m_health.rendererCreated();
            emit rendererStatusChanged();
        }
    }
    const qreal ratio = m_window ? m_window->effectiveDevicePixelRatio() : 1;
    if (!qFuzzyCompare(ratio, m_devicePixelRatio)) {
        m_devicePixelRatio = ratio;
        rebuildFonts();
    }
}

// --- Display pacing -------------------------------------------------------------------------------

void TerminalView::queuePendingDisplay() {
    switch (m_pacing.queuePendingDisplay(now(), m_terminal->synchronizedOutputActive())) {
    case DisplayPacing::Decision::drawNow:
        polish();
        break;
    case DisplayPacing::Decision::scheduleDelay:
        m_displayTimer.start(m_pacing.coalescingDelay());
        break;
    case DisplayPacing::Decision::alreadyQueued:
    case DisplayPacing::Decision::held:
        break;
    }
}

void TerminalView::displayTimerFired() {
    if (m_pacing.timerFired(m_terminal->synchronizedOutputActive()))
        polish();
}

void TerminalView::synchronizedOutputChanged(Terminal&, bool active) {
    if (!active && m_pacing.synchronizedOutputEnded())
        polish();
}

void TerminalView::updateTimers() {
    const bool active = m_window && m_window->isActive() && isVisible();
    bool blinkingVisible = false;
    if (m_frames)
        for (int r = 0; r < m_frames->rows(); ++r)
            blinkingVisible = blinkingVisible || m_frames->row(r).hasBlink;
    const bool wasShown = m_textBlink.shown();
    if (m_textBlink.update(blinkingVisible, active)) {
        if (!m_textBlinkTimer.isActive())
            m_textBlinkTimer.start();
    } else {
        m_textBlinkTimer.stop();
        if (!wasShown)
            polish();
    }
    const bool blinkingCaret = caretBlinks();
    if (blinkingCaret && hasActiveFocus() && active) {
        if (!m_caretBlinkTimer.isActive())
            m_caretBlinkTimer.start();
    } else {
        m_caretBlinkTimer.stop();
        if (!m_caretBlinkShown) {
            m_caretBlinkShown = true;
            m_caretDirty = true;
            polish();
        }
    }
    if (m_progress.visible() && m_progress.state() == ProgressReport::State::indeterminate) {
        if (!m_progressTimer.isActive())
            m_progressTimer.start();
    } else if (m_progress.visible()) {
        // A determinate bar needs a tick only to go stale.
        m_progressTimer.start(static_cast<int>(ProgressBarState::kStaleAfter.count()));
    } else {
        m_progressTimer.stop();
    }
}

// --- Terminal delegate ----------------------------------------------------------------------------

void TerminalView::setTerminalTitle(Terminal&, const std::string& title) {
    m_title = QString::fromStdString(title);
    emit titleChanged();
    if (m_delegate)
        m_delegate->setTerminalTitle(*this, title);
}

void TerminalView::sizeChanged(Terminal&) {
    // The program changed the size (132-column mode): show it as it is.
    m_pendingAllRows = true;
    polish();
}

void TerminalView::scrolled(Terminal&, LineIndex) {
    polish();
}

void TerminalView::bell(Terminal&) {
    const BellActions actions = bellActions(m_settings.bellStyle);
    if (actions.sound && m_delegate)
        m_delegate->bell(*this);
    if (actions.visual) {
        m_bellFlash = true;
        m_bellTimer.start();
        update();
    }
    emit bellRang();
}

void TerminalView::progressReport(Terminal&, const ProgressReport& report) {
    m_progress.handleProgressReport(report, now());
    updateTimers();
    update();
}

void TerminalView::hostCurrentDirectoryUpdated(Terminal& source) {
    if (m_delegate)
        m_delegate->hostCurrentDirectoryUpdate(*this, reportedDirectory(source));
}

void TerminalView::clipboardCopy(Terminal&, std::vector<uint8_t> content) {
    if (m_delegate)
        m_delegate->clipboardCopy(*this, content);
}

std::optional<std::vector<uint8_t>> TerminalView::clipboardRead(Terminal&) {
    return m_delegate ? m_delegate->clipboardRead(*this) : std::nullopt;
}

void TerminalView::iTermContent(Terminal&, std::span<const uint8_t> content) {
    if (m_delegate)
        m_delegate->iTermContent(*this, content);
}

void TerminalView::cursorStyleChanged(Terminal&, CursorStyle) {
    m_caretDirty = true;
    updateTimers();
    polish();
}

std::optional<std::pair<int, int>> TerminalView::cellSizeInPixels(Terminal&) {
    const CellMetrics& cell = m_fonts->metrics();
    return std::pair<int, int>(cell.width, cell.height);
}

} // namespace termkit
