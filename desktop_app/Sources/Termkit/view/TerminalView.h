#pragma once
// The terminal on screen: a Qt Quick item that draws a `Terminal` and turns keys, the
// pointer and pastes into bytes for its program.

#include <QColor>
#include <QElapsedTimer>
#include <QMutex>
#include <QPointer>
#include <QQuickItem>
#include <QTimer>

#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>

#include "Termkit/bidi/TerminalBidi.h"
#include "Termkit/engine/Terminal.h"
#include "Termkit/graphics/TerminalGraphics.h"
#include "Termkit/links/TerminalLinks.h"
#include "Termkit/search/SearchService.h"
#include "Termkit/selection/SelectionService.h"
#include "Termkit/semantic/SemanticPrompts.h"
#include "Termkit/view/DisplayPacing.h"
#include "Termkit/view/ProgressBarState.h"
#include "Termkit/view/TerminalCells.h"
#include "Termkit/view/TerminalViewDelegate.h"
#include "Termkit/view/TerminalViewSettings.h"
#include "Termkit/view/TextBlink.h"
#include "Termkit/view/input/KeyEncoder.h"
#include "Termkit/view/input/WheelScroll.h"
#include "Termkit/view/qt/QtFrameScheduler.h"
#include "Termkit/view/qt/QtTerminalScheduler.h"
#include "Termkit/view/render/CaretPainter.h"
#include "Termkit/view/render/FrameBuilder.h"
#include "Termkit/view/render/FrameCoordinator.h"
#include "Termkit/view/render/ImageLayerNode.h"
#include "Termkit/view/render/SoftwareRowPainter.h"

namespace termkit {

class ViewRootNode;

/// A terminal drawn through the Qt Quick scene graph: on the GPU (OpenGL or Vulkan, through
/// Qt's rendering interface) with glyph atlases and custom shaders, or by the CPU into an
/// image on the software scene graph and whenever the GPU path fails. The view owns its
/// `Terminal`; bytes from the program go in through `feed`, everything for the program goes
/// out through `send`. Main thread only, except the scene-graph hooks, which run while the
/// main thread waits.
class TerminalView : public QQuickItem, protected TerminalDelegate {
    Q_OBJECT
    Q_PROPERTY(QString fontFamily READ fontFamily WRITE setFontFamily NOTIFY fontChanged)
    Q_PROPERTY(qreal fontSize READ fontSize WRITE setFontSize NOTIFY fontChanged)
    Q_PROPERTY(QColor nativeBackgroundColor READ nativeBackgroundColor WRITE setNativeBackgroundColor NOTIFY
                   colorsChanged)
    Q_PROPERTY(QColor nativeForegroundColor READ nativeForegroundColor WRITE setNativeForegroundColor NOTIFY
                   colorsChanged)
    Q_PROPERTY(QColor caretColor READ caretColor WRITE setCaretColor NOTIFY colorsChanged)
    Q_PROPERTY(QColor caretTextColor READ caretTextColor WRITE setCaretTextColor NOTIFY colorsChanged)
    Q_PROPERTY(int cols READ cols NOTIFY terminalSizeChanged)
    Q_PROPERTY(int rows READ rows NOTIFY terminalSizeChanged)
    Q_PROPERTY(QString title READ title NOTIFY titleChanged)
    Q_PROPERTY(QString rendererStatus READ rendererStatusText NOTIFY rendererStatusChanged)
    Q_PROPERTY(bool usesGpu READ usesGpu NOTIFY rendererStatusChanged)
    Q_PROPERTY(bool userScrolling READ userScrolling NOTIFY scrolledChanged)
    Q_PROPERTY(int searchMatchCount READ searchMatchCount NOTIFY searchChanged)
    Q_PROPERTY(bool hasSelection READ hasSelection NOTIFY selectionChanged)

public:
    /// How long the visual bell lights the view, and how strongly.
    static constexpr std::chrono::milliseconds kVisualBellDuration{120};
    static constexpr float kVisualBellOpacity = 0.18f;
    /// Half a period of the blinking caret.
    static constexpr std::chrono::milliseconds kCaretBlinkInterval{530};
    /// At most this many search matches are highlighted: enough for any screen, bounded for a
    /// one-letter term over a long scrollback.
    static constexpr size_t kMaxHighlightedMatches = 10000;
    /// Highlight rectangles drawn at most (matches on display, the selection's rows, a link).
    static constexpr size_t kHighlightNodes = 256;
    /// Frame rate of an indeterminate progress bar's animation.
    static constexpr std::chrono::milliseconds kProgressAnimationInterval{33};
    /// Height of the progress bar in logical pixels.
    static constexpr qreal kProgressBarHeight = 3;
    /// While the item is being resized continuously, the terminal follows at most this often
    /// (first and last size included): each resize rewraps the scrollback and signals the
    /// program, which then redraws.
    static constexpr std::chrono::milliseconds kLiveResizeThrottle{50};

    /// Where features with lives of their own plug in: the kitty keyboard protocol, and what
    /// the pointer does when the program does not take it (selection, links). Each hook is
    /// asked first; without one the view does what it does alone.
    struct Extensions {
        /// Encodes a key while the program has enabled keyboard enhancements; nothing means
        /// the legacy encoding applies.
        std::function<std::optional<std::string>(const KeyPress&, const InputModes&)> encodeEnhancedKey;
        /// A pointer event the program does not receive; true when the hook took it.
        std::function<bool(const MouseEvent&)> pointer;
    };

    explicit TerminalView(QQuickItem* parent = nullptr);
    ~TerminalView() override;

    Terminal& terminal() { return *m_terminal; }
    TerminalViewSettings& settings() { return m_settings; }
    void setDelegate(TerminalViewDelegate* delegate) { m_delegate = delegate; }
    void setExtensions(Extensions extensions) { m_extensions = std::move(extensions); }
    TerminalViewDelegate* delegate() const { return m_delegate; }

    /// Bytes from the program: parsed at once, drawn at the next frame.
    void feed(std::span<const uint8_t> bytes);
    void feed(std::string_view text);
    /// Bytes for the program. Typing, pastes, pointer reports and the terminal's replies all
    /// pass here; the default hands them to the delegate.
    virtual void send(std::span<const uint8_t> data);
    /// Text for the program, as if typed.
    Q_INVOKABLE void sendText(const QString& text);
    /// Pastes text as the person would: with bracketed paste when the program asked for it.
    Q_INVOKABLE void paste(const QString& text);

    // Scrolling the view over the scrollback.
    Q_INVOKABLE void scrollTo(int linesBack);
    Q_INVOKABLE void scrollUp(int lines);
    Q_INVOKABLE void scrollDown(int lines);
    Q_INVOKABLE void pageUp();
    Q_INVOKABLE void pageDown();
    Q_INVOKABLE void scrollToBottom() { scrollTo(0); }
    bool userScrolling() const { return m_userScrolling; }

    /// The text on display, one line per row, trailing blanks trimmed.
    Q_INVOKABLE QString screenText();

    // Selection and search (TerminalViewSelection.cpp).
    SelectionService& selection() { return *m_selection; }
    SearchService& search() { return *m_search; }
    /// The shell's prompt marks (OSC 133), which let a click move the cursor in a command line.
    const SemanticPrompts& semanticPrompts() const { return *m_semantic; }
    /// Where a host sets the click behaviour (off, or only with some modifiers).
    SemanticPrompts& semanticPrompts() { return *m_semantic; }
    bool hasSelection() const { return m_selection->active() && m_selection->hasSelectionRange(); }
    /// The selected text, wrapped rows joined.
    Q_INVOKABLE QString selectedText() const;
    /// Puts the selection on the clipboard (Ctrl+Shift+C).
    Q_INVOKABLE void copySelection();
    Q_INVOKABLE void selectAll();
    Q_INVOKABLE void clearSelection();
    /// Highlights every match and selects and reveals the next (or previous) one; false when
    /// there is none.
    Q_INVOKABLE bool findNext(const QString& term, bool caseSensitive, bool regex, bool wholeWord);
    Q_INVOKABLE bool findPrevious(const QString& term, bool caseSensitive, bool regex, bool wholeWord);
    /// Highlights every match without moving; returns how many there are.
    Q_INVOKABLE int highlightAll(const QString& term, bool caseSensitive, bool regex, bool wholeWord);
    /// Ends a search: no highlights, the last match forgotten.
    Q_INVOKABLE void clearSearch();
    int searchMatchCount() const { return static_cast<int>(m_searchHits.size()); }
    const std::vector<SearchResult>& searchHits() const { return m_searchHits; }
    /// What a link's text means to open: a URL with a scheme as it is; a path ("~/" expanded,
    /// else relative to `directory`) as a file URL when the file exists; else nothing.
    static std::optional<std::string> defaultLinkURL(const std::string& text, const std::string& directory);
    /// The link under a point of the item, by the `linkReporting` setting.
    std::optional<LinkMatch> linkAt(QPointF position) const;
    /// The link the pointer shows (Control held, or always by `linkHighlightMode`).
    const std::optional<LinkMatch>& hoveredLink() const { return m_hoveredLink; }
    /// The links underlined now: every link on the display in mode `always` (and in
    /// `alwaysWithModifier` while Control is held), else the one under the pointer.
    std::vector<LinkMatch> underlinedLinks() const;
    /// Where the caret is drawn, in item coordinates (tests read it).
    QRectF caretRect() const { return m_caretRect; }
    /// The highlight rectangles on display, in item coordinates (tests read them).
    const std::vector<std::pair<QRectF, QColor>>& highlightRects() const { return m_highlightRects; }
    std::vector<ImageDraw> m_imagesBelow;
    std::vector<ImageDraw> m_imagesAbove;
    /// The pictures on display under the text and over it, in drawing order (logical pixels).
    const std::vector<ImageDraw>& imagesBelowText() const { return m_imagesBelow; }
    const std::vector<ImageDraw>& imagesAboveText() const { return m_imagesAbove; }
    /// The terminal's image protocols (kitty graphics, sixel, inline images).
    TerminalGraphics& graphics() { return *m_graphics; }

    QString fontFamily() const { return m_fontFamily; }
    void setFontFamily(const QString& family);
    qreal fontSize() const { return m_fontSize; }
    void setFontSize(qreal points);
    QColor nativeBackgroundColor() const { return QColor::fromRgba(m_colors.background); }
    void setNativeBackgroundColor(const QColor& color);
    QColor nativeForegroundColor() const { return QColor::fromRgba(m_colors.foreground); }
    void setNativeForegroundColor(const QColor& color);
    QColor caretColor() const;
    void setCaretColor(const QColor& color);
    QColor caretTextColor() const;
    void setCaretTextColor(const QColor& color);
    int cols() const { return m_cols; }
    int rows() const { return m_rows; }
    QString title() const { return m_title; }
    const RendererStatus& rendererStatus() const { return m_health.status(); }
    QString rendererStatusText() const {
        return QString::fromLatin1(RendererStatus::describe(m_health.status().state));
    }
    /// Whether the rows are drawn by the GPU path (not the software scene graph or the fallback).
    bool usesGpu() const { return m_usesGpu; }
    /// Cell size in device pixels.
    const CellMetrics& cellMetrics() const { return m_fonts->metrics(); }
    const ProgressBarState& progressBar() const { return m_progress; }
    /// Whether the text blink timer runs (only with blinking cells on screen in an active window).
    bool textBlinkRunning() const { return m_textBlinkTimer.isActive(); }
    /// Frames presented so far; tests and benchmarks wait on it.
    uint64_t presentedFrames() const { return m_health.status().presentedFrameCount; }
    /// How many times the row cache was dropped whole (new size, scroll, font...).
    uint64_t rowCacheDrops() { return m_frames ? m_frames->cache().drops() : 0; }
    /// The bytes received so far that a presented frame shows; with `bytesFed` it tells
    /// whether the screen is up to date.
    uint64_t bytesPresented() const { return m_bytesPresented; }
    uint64_t bytesFed() const { return m_bytesFed; }
    /// The device's largest texture, once the render thread has read it (0 when unknown).
    int deviceMaxTextureSize() const { return m_deviceMaxTextureSize; }
    /// Makes the next frames refuse as a broken device would (tests of recovery).
    void simulateFrameRefusals(std::optional<FrameRefusalReason> reason) { m_simulatedRefusal = reason; }
    /// The timings of the frame coordinator, replaceable before the first frame (tests).
    void setFrameTiming(FrameCoordinator::Timing timing);
    /// Whether resizes are throttled (see `kLiveResizeThrottle`); from the environment by default.
    void setLiveResizeThrottle(bool enabled) { m_liveResizeThrottle = enabled; }
    /// The recovery policy, replaceable in tests.
    void setRecoveryPolicy(AutomaticRecoveryPolicy policy) { m_health = RendererHealth(policy); }

signals:
    void fontChanged();
    void colorsChanged();
    void terminalSizeChanged();
    void titleChanged();
    void rendererStatusChanged();
    void scrolledChanged();
    /// A frame reached the screen.
    void framePresented();
    /// The bell rang (after the style's sound and flash).
    void bellRang();
    /// The person asked for the find bar (Ctrl+Shift+F).
    void findRequested();
    void searchChanged();
    void selectionChanged();

protected:
    // QQuickItem
    QSGNode* updatePaintNode(QSGNode* oldNode, UpdatePaintNodeData* data) override;
    void updatePolish() override;
    void geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry) override;
    void itemChange(ItemChange change, const ItemChangeData& value) override;
    void releaseResources() override;
    void keyPressEvent(QKeyEvent* event) override;
    void keyReleaseEvent(QKeyEvent* event) override;
    void inputMethodEvent(QInputMethodEvent* event) override;
    QVariant inputMethodQuery(Qt::InputMethodQuery query) const override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void hoverMoveEvent(QHoverEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;

    // TerminalDelegate
    void send(Terminal& source, std::span<const uint8_t> data) override;
    void setTerminalTitle(Terminal& source, const std::string& title) override;
    void sizeChanged(Terminal& source) override;
    void scrolled(Terminal& source, LineIndex yDisp) override;
    void bell(Terminal& source) override;
    void synchronizedOutputChanged(Terminal& source, bool active) override;
    void progressReport(Terminal& source, const ProgressReport& report) override;
    void hostCurrentDirectoryUpdated(Terminal& source) override;
    void clipboardCopy(Terminal& source, std::vector<uint8_t> content) override;
    std::optional<std::vector<uint8_t>> clipboardRead(Terminal& source) override;
    void iTermContent(Terminal& source, std::span<const uint8_t> content) override;
    void cursorStyleChanged(Terminal& source, CursorStyle style) override;
    std::optional<std::pair<int, int>> cellSizeInPixels(Terminal& source) override;
    void createImage(Terminal& source, std::vector<uint8_t> data, ImageSizeRequest width,
                     ImageSizeRequest height, bool preserveAspectRatio) override;

    /// Writes bytes the person produced (keys, pastes, pointer): through the terminal's user
    /// input path, after the view has scrolled to the bottom and noted the moment.
    void sendUserInput(std::span<const uint8_t> data);
    /// The view's size in cells changed; the default tells the delegate.
    virtual void terminalResized(int cols, int rows);
    /// The directory the program last reported (OSC 7), or nothing before it has.
    static std::optional<std::string> reportedDirectory(const Terminal& terminal);

private:
    friend class ViewRootNode;
    struct PendingFrame;

    // What the view reads of the terminal's state
    /// The modes the key, pointer and paste encoders follow, as the program set them now.
    InputModes inputModes() const;
    /// How many lines the display is scrolled back from the bottom.
    int linesScrolledBack() const;
    /// The caret blinks: by its style, or because the program turned blinking on.
    bool caretBlinks() const;

    // Display
    void queuePendingDisplay();
    void displayTimerFired();
    void rebuildFonts();
    void attachToWindow(QQuickWindow* window);
    void makeCoordinator();
    void relayout();
    void updateTimers();
    CacheSignature signature() const;
    void buildFrame();
    void buildCaret();
    void framePresentedOnRenderThread();
    void framePresentedOnMainThread();
    void requestRecovery(const RendererRecoveryReport& report);
    void sceneGraphFailed(const QString& message);
    void deviceLost();
    void updateRowNodes(ViewRootNode& root, QQuickWindow* window);
    void updateCaretNode(ViewRootNode& root, QQuickWindow* window);
    void updateOverlayNodes(ViewRootNode& root);
    void updateHighlightNodes(ViewRootNode& root);
    void readDeviceLimits(QQuickWindow* window);
    void setUsesGpu(bool gpu);
    std::chrono::nanoseconds now() const;

    // Input
    MouseEvent mouseEventAt(MouseAction action, MouseButton button, QPointF position,
                            Qt::KeyboardModifiers modifiers) const;
    bool reportMouse(const MouseEvent& event, Qt::KeyboardModifiers modifiers);
    void sendFocusReport(bool focused);
    bool sendKittyKey(const QKeyEvent& event);
    bool handleViewShortcut(QKeyEvent* event);

    // Selection and search (TerminalViewSelection.cpp)
    Position bufferCell(QPointF position) const;
    Position bufferBoundary(QPointF position) const;

    // Right-to-left text (TerminalViewBidi.cpp): rows are drawn in visual order, so the
    // caret, highlights and the pointer go through the layout of their row.
    TerminalBidi* bidiForDisplay() const;
    /// The layout of a line, or none for a line shown in logical order.
    std::optional<BidiRowLayout> displayLayout(LineIndex line) const;
    int visualColumn(LineIndex line, int logicalCol) const;
    int logicalColumn(LineIndex line, int visualCol) const;
    /// The logical boundary between cells nearest to a visual position given in columns.
    int logicalBoundary(LineIndex line, double visualPosition) const;
    BidiDirection cursorParagraphDirection() const;
    void selectionPress(QMouseEvent* event);
    void selectionMove(QMouseEvent* event);
    void selectionRelease(QMouseEvent* event);
    void pastePrimarySelection();
    void followRingRecycling();
    bool find(const QString& term, bool caseSensitive, bool regex, bool wholeWord, bool forward);
    void refreshSearchHits();
    void reveal(LineIndex row);
    void buildHighlightRects();
    void buildImageDraws();
    void buildSliceDraws();
    void buildPlaceholderDraws();

    // Links (TerminalViewLinks.cpp)
    bool openLinkAt(QPointF position);
    void hoverLink(QPointF position, Qt::KeyboardModifiers modifiers);
    void addLinkUnderline(double cellWidth, double cellHeight, int top);
    void setLinkModifierHeld(bool held);

    std::unique_ptr<QtTerminalScheduler> m_terminalScheduler;
    std::unique_ptr<SemanticPrompts> m_semantic;
    // Pictures first, then the rest: the terminal hands other extension calls on to them.
    std::unique_ptr<TerminalGraphics> m_graphics;
    std::unique_ptr<Terminal> m_terminal;
    TerminalViewDelegate* m_delegate = nullptr;
    Extensions m_extensions;
    TerminalViewSettings m_settings;
    ViewColors m_colors;
    // Layouts are cached per paragraph; reading them from const members fills the cache.
    mutable TerminalBidi m_bidi;
    QString m_fontFamily;
    qreal m_fontSize;
    QString m_title;
    int m_cols = 0;
    int m_rows = 0;
    bool m_userScrolling = false;
    qreal m_devicePixelRatio = 1;

    // Drawing, built on the main thread in updatePolish and handed to the render thread.
    std::unique_ptr<FontSet> m_fonts;
    std::unique_ptr<GlyphCache> m_glyphs;
    std::unique_ptr<FrameBuilder> m_frames;
    SoftwareRowPainter m_software;
    std::set<int> m_pendingRows;
    bool m_pendingAllRows = true;
    bool m_softwareImageDirty = true;
    bool m_useSoftware = false;
    bool m_usesGpu = false;
    bool m_replaceRenderer = false;
    QImage m_caretImage;
    QRectF m_caretRect;
    bool m_caretVisible = false;
    bool m_caretDirty = true;
    bool m_bellFlash = false;
    uint64_t m_bytesFed = 0;
    uint64_t m_bytesInFrame = 0;
    std::atomic<uint64_t> m_bytesOnScreen{0};
    uint64_t m_bytesPresented = 0;

    // Pacing, blinking, bell, progress.
    DisplayPacing m_pacing;
    QTimer m_displayTimer;
    TextBlink m_textBlink;
    QTimer m_textBlinkTimer;
    bool m_caretBlinkShown = true;
    QTimer m_caretBlinkTimer;
    QTimer m_bellTimer;
    ProgressBarState m_progress;
    QTimer m_progressTimer;
    QElapsedTimer m_clock;
    ScrollAccumulator m_scrollAccumulator;
    std::optional<MouseButton> m_pressedButton;

    // Selection and search.
    std::unique_ptr<SelectionService> m_selection;
    std::unique_ptr<SearchService> m_search;
    std::string m_searchTerm;
    SearchOptions m_searchOptions;
    std::vector<SearchResult> m_searchHits;
    std::optional<SearchResult> m_currentHit;
    bool m_searchHitsStale = false;
    std::vector<std::pair<QRectF, QColor>> m_highlightRects;
    std::optional<LinkMatch> m_hoveredLink;
    // Whether Control is held, for the highlight modes that show links only with it.
    bool m_linkModifierHeld = false;
    bool m_selectingWithPointer = false;
    int m_clickCount = 0;
    QElapsedTimer m_lastClick;
    Position m_lastClickCell;
    // A single click in a marked command line waits out the coalescing delay before its
    // cursor keys go: a second click in time makes it a word selection instead.
    SemanticPromptPointerSnapshot m_semanticPointer;
    Position m_semanticPressCell;
    QTimer m_semanticClickTimer;
    std::string m_semanticClickBytes;
    // Lines that had left the ring's top when the view last looked: the selection follows.
    long long m_linesTop = 0;
    bool m_liveResizeThrottle = true;
    QTimer m_resizeTimer;
    bool m_resizePending = false;

    // Frame pacing and renderer health.
    class ClockAdapter : public FrameClock {
    public:
        explicit ClockAdapter(const QElapsedTimer& timer) : m_timer(timer) {}
        std::chrono::nanoseconds now() const override {
            return std::chrono::nanoseconds(m_timer.nsecsElapsed());
        }

    private:
        const QElapsedTimer& m_timer;
    };
    ClockAdapter m_frameClock{m_clock};
    QtFrameScheduler m_frameScheduler;
    std::unique_ptr<FrameCoordinator> m_coordinator;
    FrameCoordinator::Timing m_frameTiming;
    QMutex m_tokenLock;
    std::optional<FrameCoordinator::Token> m_submitted;
    RendererHealth m_health;
    std::optional<FrameRefusalReason> m_simulatedRefusal;
    QPointer<QQuickWindow> m_window;
    QMetaObject::Connection m_swapConnection;
    QMetaObject::Connection m_errorConnection;
    QMetaObject::Connection m_activeConnection;
    QMetaObject::Connection m_invalidatedConnection;
    // The device's largest texture, read on the render thread once it is known (0 before).
    int m_deviceMaxTextureSize = 0;
};

} // namespace termkit
