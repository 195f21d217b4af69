// Selection and search in the view: the pointer selects when the program does not take it,
// a finished selection becomes the primary selection, the middle button pastes it, and the
// find bar's searches are highlighted and brought into view.

#include <QClipboard>
#include <QGuiApplication>
#include <QStyleHints>

#include <algorithm>

#include "Termkit/view/TerminalView.h"
#include "Termkit/view/render/FontSet.h"

namespace termkit {

namespace {

QClipboard* clipboard() {
    return QGuiApplication::clipboard();
}

QColor withAlpha(QColor color, qreal alpha) {
    color.setAlphaF(alpha);
    return color;
}

// How strongly highlights tint the text under them.
constexpr qreal kSelectionAlpha = 0.35;
constexpr qreal kSearchHitAlpha = 0.35;
constexpr qreal kCurrentHitAlpha = 0.6;
const QColor kSearchHitColor(0xFF, 0xD0, 0x00);
const QColor kCurrentHitColor(0xFF, 0x80, 0x00);

} // namespace

// --- Positions ------------------------------------------------------------------------------

Position TerminalView::bufferCell(QPointF position) const {
    const MouseEvent e = mouseEventAt(MouseAction::press, MouseButton::none, position, Qt::NoModifier);
    const LineIndex line = m_terminal->buffer().yDisp() + e.row;
    return {Col(logicalColumn(line, e.col)), line};
}

// The boundary between cells nearest to the pointer: a drag that ends in the left half of a
// cell leaves that cell out, as text editors do.
Position TerminalView::bufferBoundary(QPointF position) const {
    const CellMetrics& cell = m_fonts->metrics();
    const double px = std::max(0.0, position.x() * m_devicePixelRatio);
    Position p = bufferCell(position);
    p.col = Col(std::clamp(logicalBoundary(p.row, px / cell.width), 0, m_cols));
    return p;
}

// --- Pointer --------------------------------------------------------------------------------

void TerminalView::selectionPress(QMouseEvent* event) {
    if (event->button() == Qt::MiddleButton) {
        pastePrimarySelection();
        return;
    }
    if (event->button() != Qt::LeftButton)
        return;
    // Control-click opens the link under the pointer instead of selecting.
    if (event->modifiers().testFlag(Qt::ControlModifier) && openLinkAt(event->position()))
        return;
    const Position cell = bufferCell(event->position());
    const int interval = QGuiApplication::styleHints()->mouseDoubleClickInterval();
    const bool repeat = m_lastClick.isValid() && m_lastClick.elapsed() <= interval && cell == m_lastClickCell;
    m_clickCount = repeat ? m_clickCount % 3 + 1 : 1;
    m_lastClick.start();
    m_lastClickCell = cell;
    // A second press within the coalescing delay takes the pending cursor move back.
    m_semanticClickTimer.stop();
    m_semanticClickBytes.clear();
    m_semanticPointer = SemanticPromptPointerSnapshot{hasSelection(), false, m_clickCount,
                                                      m_semantic->isSemanticClickEligible(*m_terminal, cell)};
    m_semanticPressCell = cell;
    m_selectingWithPointer = true;
    switch (m_clickCount) {
    case 2:
        m_selection->selectWordOrExpression(cell);
        break;
    case 3:
        m_selection->selectRow(cell);
        break;
    default:
        if (event->modifiers().testFlag(Qt::ShiftModifier) && m_selection->active())
            m_selection->shiftExtend(bufferBoundary(event->position()));
        else
            m_selection->startSelection(cell.row, bufferBoundary(event->position()).col);
        break;
    }
}

void TerminalView::selectionMove(QMouseEvent* event) {
    if (!m_selectingWithPointer || !event->buttons().testFlag(Qt::LeftButton))
        return;
    // Dragging past the top or bottom edge scrolls the scrollback along.
    if (event->position().y() < 0)
        scrollUp(1);
    else if (event->position().y() > height())
        scrollDown(1);
    if (bufferCell(event->position()) != m_semanticPressCell)
        m_semanticPointer.didDrag = true;
    const Position target = m_selection->selectionMode() == SelectionMode::character
                                ? bufferBoundary(event->position())
                                : bufferCell(event->position());
    m_selection->dragExtend(target);
}

void TerminalView::selectionRelease(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton || !m_selectingWithPointer)
        return;
    m_selectingWithPointer = false;
    if (!hasSelection()) {
        // A plain click: nothing selected, and any old selection goes. Inside the command
        // line of a marked prompt it moves the shell's cursor there, by cursor keys.
        if (m_clickCount == 1)
            m_selection->selectNone();
        if (SemanticPrompts::mightRouteSemanticPromptClick(m_semanticPointer)) {
            const Qt::KeyboardModifiers held = event->modifiers();
            SemanticPromptClickModifiers modifiers;
            if (held.testFlag(Qt::ShiftModifier))
                modifiers.bits |= SemanticPromptClickModifiers::shift;
            if (held.testFlag(Qt::AltModifier))
                modifiers.bits |= SemanticPromptClickModifiers::alt;
            if (held.testFlag(Qt::ControlModifier))
                modifiers.bits |= SemanticPromptClickModifiers::control;
            if (held.testFlag(Qt::MetaModifier))
                modifiers.bits |= SemanticPromptClickModifiers::super;
            if (auto keys = m_semantic->handleSemanticPromptClick(*m_terminal, bufferCell(event->position()),
                                                                  modifiers)) {
                m_semanticClickBytes = std::move(*keys);
                m_semanticClickTimer.start(m_settings.semanticClickCoalescingDelay);
            }
        }
        return;
    }
    // The Linux convention: what is selected is at once the primary selection.
    if (QClipboard* board = clipboard(); board && board->supportsSelection())
        board->setText(selectedText(), QClipboard::Selection);
}

void TerminalView::pastePrimarySelection() {
    QClipboard* board = clipboard();
    if (board == nullptr)
        return;
    const QString text = board->supportsSelection() ? board->text(QClipboard::Selection) : QString();
    if (!text.isEmpty())
        paste(text);
}

// --- Selection ------------------------------------------------------------------------------

QString TerminalView::selectedText() const {
    return QString::fromStdString(m_selection->getSelectedText());
}

void TerminalView::copySelection() {
    if (!hasSelection())
        return;
    if (QClipboard* board = clipboard())
        board->setText(selectedText(), QClipboard::Clipboard);
}

void TerminalView::selectAll() {
    m_selection->selectAll();
}

void TerminalView::clearSelection() {
    m_selection->selectNone();
}

// A full ring drops its oldest line for each new one: rows of the selection and of search
// matches move up by as many.
void TerminalView::followRingRecycling() {
    const Buffer& buffer = m_terminal->buffer();
    const long long top = buffer.invariantBase() - buffer.yBase().value;
    if (top > m_linesTop) {
        const auto gone = static_cast<int>(std::min<long long>(top - m_linesTop, buffer.lineCount()));
        m_selection->adjustForInPlaceScroll(LineIndex(0), LineIndex(buffer.lineCount() - 1), gone);
    } else if (top < m_linesTop) {
        m_selection->selectNone(); // the buffer was cleared or replaced
    }
    m_linesTop = top;
    if (!m_searchTerm.empty())
        m_searchHitsStale = true;
}

// --- Search ---------------------------------------------------------------------------------

bool TerminalView::findNext(const QString& term, bool caseSensitive, bool regex, bool wholeWord) {
    return find(term, caseSensitive, regex, wholeWord, true);
}

bool TerminalView::findPrevious(const QString& term, bool caseSensitive, bool regex, bool wholeWord) {
    return find(term, caseSensitive, regex, wholeWord, false);
}

int TerminalView::highlightAll(const QString& term, bool caseSensitive, bool regex, bool wholeWord) {
    m_searchTerm = term.toStdString();
    m_searchOptions = {caseSensitive, regex, wholeWord};
    refreshSearchHits();
    return searchMatchCount();
}

bool TerminalView::find(const QString& term, bool caseSensitive, bool regex, bool wholeWord, bool forward) {
    highlightAll(term, caseSensitive, regex, wholeWord);
    const std::optional<SearchResult> hit = forward ? m_search->findNext(m_searchTerm, m_searchOptions)
                                                    : m_search->findPrevious(m_searchTerm, m_searchOptions);
    m_currentHit = hit;
    if (hit) {
        const SearchSelection cells = selectionOf(*hit, m_terminal->cols());
        m_selection->setSelection(cells.start, cells.end);
        reveal(hit->row);
    }
    polish();
    return hit.has_value();
}

void TerminalView::clearSearch() {
    m_searchTerm.clear();
    m_searchHits.clear();
    m_currentHit.reset();
    m_search->reset();
    m_searchHitsStale = false;
    emit searchChanged();
    polish();
}

void TerminalView::refreshSearchHits() {
    m_searchHitsStale = false;
    m_searchHits = m_searchTerm.empty()
                       ? std::vector<SearchResult>()
                       : m_search->findAll(m_searchTerm, m_searchOptions, kMaxHighlightedMatches);
    emit searchChanged();
    polish();
}

// Scrolls the display so that a row is on it, centred when it was off screen.
void TerminalView::reveal(LineIndex row) {
    const Buffer& buffer = m_terminal->buffer();
    const int top = buffer.yDisp().value;
    if (row.value >= top && row.value < top + m_terminal->rows())
        return;
    const int wantedTop = std::clamp(row.value - m_terminal->rows() / 2, 0, buffer.yBase().value);
    scrollTo(buffer.yBase().value - wantedTop);
}

// --- Drawing --------------------------------------------------------------------------------

void TerminalView::buildHighlightRects() {
    m_highlightRects.clear();
    if (!m_fonts)
        return;
    const CellMetrics& cell = m_fonts->metrics();
    const double cw = cell.width / m_devicePixelRatio;
    const double ch = cell.height / m_devicePixelRatio;
    const int top = m_terminal->buffer().yDisp().value;
    const int rows = m_terminal->rows();
    const int cols = m_terminal->cols();
    // One rectangle per row a span covers on display.
    const auto addSpan = [&](Position start, Position end, const QColor& color) {
        for (int r = std::max(start.row.value, top); r <= std::min(end.row.value, top + rows - 1); ++r) {
            const int from = r == start.row.value ? start.col.value : 0;
            const int to = r == end.row.value ? end.col.value : cols;
            if (to <= from)
                continue;
            // In a row shown in visual order a logical span may fall into several pieces.
            if (const std::optional<BidiRowLayout> layout = displayLayout(LineIndex(r))) {
                for (const auto& [left, right] : TerminalBidi::visualRanges(*layout, from, to))
                    m_highlightRects.emplace_back(QRectF(left * cw, (r - top) * ch, (right - left) * cw, ch),
                                                  color);
                continue;
            }
            m_highlightRects.emplace_back(QRectF(from * cw, (r - top) * ch, (to - from) * cw, ch), color);
        }
    };
    for (const SearchResult& hit : m_searchHits) {
        const SearchSelection span = selectionOf(hit, cols);
        if (span.end.row.value < top || span.start.row.value >= top + rows)
            continue;
        const bool current = m_currentHit && m_currentHit->row == hit.row && m_currentHit->col == hit.col;
        addSpan(span.start, span.end,
                withAlpha(current ? kCurrentHitColor : kSearchHitColor,
                          current ? kCurrentHitAlpha : kSearchHitAlpha));
    }
    addLinkUnderline(cw, ch, top);
    if (hasSelection()) {
        const std::optional<Color>& chosen = m_settings.selectedTextBackgroundColor;
        const QColor selection = chosen ? QColor::fromRgba64(chosen->red, chosen->green, chosen->blue)
                                        : QColor::fromRgba(m_colors.foreground);
        addSpan(m_selection->start(), m_selection->end(), withAlpha(selection, kSelectionAlpha));
    }
}

} // namespace termkit
