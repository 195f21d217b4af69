// The view's input: keys and input-method text, the pointer, the wheel and focus, each turned
// into bytes for the program as its modes say, or kept by the view.

#include <QClipboard>
#include <QGuiApplication>
#include <QInputMethodEvent>

#include <algorithm>

#include "Termkit/view/TerminalView.h"
#include "Termkit/view/input/BidiArrowKeys.h"
#include "Termkit/view/input/KeyEncoder.h"
#include "Termkit/view/input/MouseEncoder.h"
#include "Termkit/view/qt/QtKeyMapping.h"
#include "Termkit/view/qt/QtKittyKeyMapping.h"

namespace termkit {

namespace {

KeyModifiers modifiersOf(Qt::KeyboardModifiers m) {
    KeyModifiers k;
    k.shift = m.testFlag(Qt::ShiftModifier);
    k.alt = m.testFlag(Qt::AltModifier);
    k.control = m.testFlag(Qt::ControlModifier);
    k.super = m.testFlag(Qt::MetaModifier);
    return k;
}

MouseButton buttonOf(Qt::MouseButton button) {
    switch (button) {
    case Qt::LeftButton:
        return MouseButton::left;
    case Qt::MiddleButton:
        return MouseButton::middle;
    case Qt::RightButton:
        return MouseButton::right;
    default:
        return MouseButton::none;
    }
}

} // namespace

// --- Keys -----------------------------------------------------------------------------------------

// The view's own chords: copy, paste and find (Ctrl+Shift+C, V, F), and scrolling back
// (Shift+Page Up and Down). Ctrl+` belongs to the window (the drawer toggle).
bool TerminalView::handleViewShortcut(QKeyEvent* event) {
    const Qt::KeyboardModifiers plain = event->modifiers() & ~Qt::KeypadModifier;
    if (QtKeyMapping::isApplicationShortcut(event->key(), event->modifiers())) {
        if (event->key() == Qt::Key_V)
            paste(QGuiApplication::clipboard() ? QGuiApplication::clipboard()->text() : QString());
        else if (event->key() == Qt::Key_C)
            copySelection();
        else
            event->ignore();
        return true;
    }
    if (event->key() == Qt::Key_F && plain == (Qt::ControlModifier | Qt::ShiftModifier)) {
        emit findRequested();
        return true;
    }
    if (event->key() == Qt::Key_PageUp && event->modifiers() == Qt::ShiftModifier) {
        pageUp();
        return true;
    }
    if (event->key() == Qt::Key_PageDown && event->modifiers() == Qt::ShiftModifier) {
        pageDown();
        return true;
    }
    return false;
}

// While the program has asked for keyboard enhancements, every key goes through the kitty
// encoder (which also decides what a release or a lone modifier sends).
bool TerminalView::sendKittyKey(const QKeyEvent& event) {
    const uint8_t flags = m_terminal->keyboardEnhancementFlags();
    if (flags == 0)
        return false;
    const KittyKeyEvent kitty = QtKittyKeyMapping::toKittyEvent(QtKittyKeyMapping::partsOf(event));
    if (auto bytes = KittyKeyboardEncoder::encode(kitty, flags, m_terminal->applicationCursor()))
        sendUserInput(std::span(reinterpret_cast<const uint8_t*>(bytes->data()), bytes->size()));
    return true;
}

void TerminalView::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Control)
        setLinkModifierHeld(true);
    if (handleViewShortcut(event))
        return;
    const KeyPress press = withBidiArrowKeySwap(
        QtKeyMapping::fromEvent(*event), m_terminal->bidiArrowKeySwap(),
        m_terminal->bidiArrowKeySwap() ? cursorParagraphDirection() : BidiDirection::leftToRight);
    const InputModes modes = inputModes();
    // A host's own encoder for enhanced keys wins; else the built-in kitty encoder.
    std::optional<std::string> bytes;
    if (modes.keyboardEnhancementFlags != 0 && m_extensions.encodeEnhancedKey)
        bytes = m_extensions.encodeEnhancedKey(press, modes);
    else if (sendKittyKey(*event)) {
        event->accept();
        return;
    }
    KeyEncoderOptions options;
    options.optionAsMetaKey = m_settings.optionAsMetaKey;
    options.backspaceSendsControlH = m_settings.backspaceSendsControlH;
    if (!bytes)
        bytes = KeyEncoder::encode(press, modes, options);
    if (!bytes) {
        event->ignore();
        return;
    }
    sendUserInput(std::span(reinterpret_cast<const uint8_t*>(bytes->data()), bytes->size()));
    event->accept();
}

void TerminalView::keyReleaseEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Control)
        setLinkModifierHeld(false);
    // Releases mean something only to a program that asked for key events.
    if (!m_extensions.encodeEnhancedKey && sendKittyKey(*event)) {
        event->accept();
        return;
    }
    QQuickItem::keyReleaseEvent(event);
}

void TerminalView::inputMethodEvent(QInputMethodEvent* event) {
    // Composed and CJK text arrives here once the input method has finished with it.
    if (!event->commitString().isEmpty())
        sendText(event->commitString());
    event->accept();
}

QVariant TerminalView::inputMethodQuery(Qt::InputMethodQuery query) const {
    switch (query) {
    case Qt::ImEnabled:
        return true;
    case Qt::ImCursorRectangle:
        return m_caretRect;
    case Qt::ImHints:
        return static_cast<int>(Qt::ImhNoPredictiveText | Qt::ImhNoAutoUppercase);
    default:
        return QQuickItem::inputMethodQuery(query);
    }
}

// --- Pointer --------------------------------------------------------------------------------------

MouseEvent TerminalView::mouseEventAt(MouseAction action, MouseButton button, QPointF position,
                                      Qt::KeyboardModifiers modifiers) const {
    const CellMetrics& cell = m_fonts->metrics();
    const double px = std::max(0.0, position.x() * m_devicePixelRatio);
    const double py = std::max(0.0, position.y() * m_devicePixelRatio);
    MouseEvent e;
    e.action = action;
    e.button = button;
    e.modifiers = modifiersOf(modifiers);
    e.col = std::clamp(static_cast<int>(px / cell.width), 0, std::max(0, m_cols - 1));
    e.row = std::clamp(static_cast<int>(py / cell.height), 0, std::max(0, m_rows - 1));
    e.pixelX = static_cast<int>(px);
    e.pixelY = static_cast<int>(py);
    return e;
}

bool TerminalView::reportMouse(const MouseEvent& event, Qt::KeyboardModifiers modifiers) {
    const InputModes modes = inputModes();
    if (!MouseEncoder::reportsMouse(modes, m_settings.allowMouseReporting, modifiersOf(modifiers))) {
        // The pointer is the terminal's own: selection and links take it from here.
        if (m_extensions.pointer)
            m_extensions.pointer(event);
        return false;
    }
    if (auto bytes = MouseEncoder::encode(event, modes))
        send(std::span(reinterpret_cast<const uint8_t*>(bytes->data()), bytes->size()));
    return true;
}

void TerminalView::mousePressEvent(QMouseEvent* event) {
    forceActiveFocus(Qt::MouseFocusReason);
    const MouseButton button = buttonOf(event->button());
    m_pressedButton = button;
    if (!reportMouse(mouseEventAt(MouseAction::press, button, event->position(), event->modifiers()),
                     event->modifiers()) &&
        !m_extensions.pointer)
        selectionPress(event);
    event->accept();
}

void TerminalView::mouseMoveEvent(QMouseEvent* event) {
    if (!reportMouse(mouseEventAt(MouseAction::motion, m_pressedButton.value_or(MouseButton::none),
                                  event->position(), event->modifiers()),
                     event->modifiers()) &&
        !m_extensions.pointer)
        selectionMove(event);
    event->accept();
}

void TerminalView::mouseReleaseEvent(QMouseEvent* event) {
    if (!reportMouse(mouseEventAt(MouseAction::release, buttonOf(event->button()), event->position(),
                                  event->modifiers()),
                     event->modifiers()) &&
        !m_extensions.pointer)
        selectionRelease(event);
    m_pressedButton.reset();
    event->accept();
}

void TerminalView::hoverMoveEvent(QHoverEvent* event) {
    hoverLink(event->position(), event->modifiers());
    if (inputModes().mouseMode == MouseMode::anyEvent && !m_pressedButton)
        reportMouse(
            mouseEventAt(MouseAction::motion, MouseButton::none, event->position(), event->modifiers()),
            event->modifiers());
    event->ignore();
}

void TerminalView::wheelEvent(QWheelEvent* event) {
    // One notch of an ordinary wheel is 120 eighths of a degree.
    constexpr double kEighthsPerNotch = 120.0;
    WheelEvent wheel;
    wheel.notches = event->angleDelta().y() / kEighthsPerNotch;
    const MouseEvent at =
        mouseEventAt(MouseAction::press, MouseButton::none, event->position(), event->modifiers());
    wheel.modifiers = at.modifiers;
    wheel.col = at.col;
    wheel.row = at.row;
    wheel.pixelX = at.pixelX;
    wheel.pixelY = at.pixelY;
    const WheelOutcome outcome = WheelScroll::handle(wheel, inputModes(), m_settings.allowMouseReporting,
                                                     m_settings.scrollSensitivity, m_scrollAccumulator);
    switch (outcome.kind) {
    case WheelOutcome::Kind::report:
        send(std::span(reinterpret_cast<const uint8_t*>(outcome.bytes.data()), outcome.bytes.size()));
        break;
    case WheelOutcome::Kind::arrowKeys:
        sendUserInput(
            std::span(reinterpret_cast<const uint8_t*>(outcome.bytes.data()), outcome.bytes.size()));
        break;
    case WheelOutcome::Kind::scrollView:
        scrollUp(outcome.lines);
        break;
    case WheelOutcome::Kind::none:
        break;
    }
    event->accept();
}

void TerminalView::focusInEvent(QFocusEvent* event) {
    QQuickItem::focusInEvent(event);
    sendFocusReport(true);
    m_caretDirty = true;
    updateTimers();
    polish();
}

void TerminalView::focusOutEvent(QFocusEvent* event) {
    QQuickItem::focusOutEvent(event);
    sendFocusReport(false);
    m_caretDirty = true;
    updateTimers();
    polish();
}

void TerminalView::sendFocusReport(bool focused) {
    if (!inputModes().sendFocus)
        return;
    const std::string_view report = focused ? "\x1b[I" : "\x1b[O";
    send(std::span(reinterpret_cast<const uint8_t*>(report.data()), report.size()));
}

} // namespace termkit
