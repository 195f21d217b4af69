// C0/C1 controls, ESC sequences and character set selection.

#include "Termkit/engine/Terminal.h"

namespace termkit {

void Terminal::dispatchExecute(uint8_t code) {
    ensureAttributes();
    m_hasLastChar = false;
    switch (code) {
    case 0x07:
        if (m_delegate)
            m_delegate->bell(*this);
        break;
    case 0x08:
        cmdBackspace();
        break;
    case 0x09:
        cmdTab(1);
        break;
    case 0x0A:
    case 0x0B:
    case 0x0C:
        cmdLineFeedBasic();
        break;
    case 0x0D:
        cmdCarriageReturn();
        break;
    case 0x0E:
        setgLevel(1);
        break;
    case 0x0F:
        setgLevel(0);
        break;
    case 0x84:
        cmdIndex();
        break;
    case 0x85:
        cmdNextLine();
        break;
    case 0x88:
        cmdTabSet();
        break;
    default:
        // Every other control does nothing.
        break;
    }
}

void Terminal::dispatchEsc(std::span<const uint8_t> collect, uint8_t final) {
    ensureAttributes();
    m_hasLastChar = false;
    if (collect.empty()) {
        switch (final) {
        case '6':
            cmdBackIndex();
            return;
        case '7':
            cmdSaveCursor();
            return;
        case '8':
            cmdRestoreCursor();
            return;
        case '9':
            cmdForwardIndex();
            return;
        case '=':
            cmdSetApplicationKeypad(true);
            return;
        case '>':
            cmdSetApplicationKeypad(false);
            return;
        case 'D':
            cmdIndex();
            return;
        case 'E':
            cmdNextLine();
            return;
        case 'H':
            cmdTabSet();
            return;
        case 'M':
            reverseIndex();
            return;
        case '\\':
            return; // the string terminator after OSC, APC or DCS: nothing more to do
        case 'c':
            m_parser.reset();
            resetToInitialState();
            return;
        case 'n':
        case '}':
            setgLevel(2);
            return;
        case 'o':
        case '|':
            setgLevel(3);
            return;
        case '~':
            setgLevel(1);
            return;
        default:
            break;
        }
    } else if (collect.size() == 1) {
        const uint8_t intermediate = collect[0];
        switch (intermediate) {
        case '#':
            switch (final) {
            case '3':
                setRenderMode(BufferLine::RenderLineMode::doubledTop);
                return;
            case '4':
                setRenderMode(BufferLine::RenderLineMode::doubledDown);
                return;
            case '5':
                setRenderMode(BufferLine::RenderLineMode::single);
                return;
            case '6':
                setRenderMode(BufferLine::RenderLineMode::doubleWidth);
                return;
            case '8':
                cmdScreenAlignmentPattern();
                return;
            default:
                break;
            }
            break;
        case '%':
            if (final == '@' || final == 'G') {
                cmdSelectDefaultCharset();
                return;
            }
            break;
        case ' ':
            if (final == 'F' || final == 'G') {
                cmdSetC1Transmission(final == 'G');
                return;
            }
            break;
        case '(':
        case ')':
        case '*':
        case '+':
        case '-':
        case '.':
        case '/': {
            const CharSet* set = nullptr;
            if (CharSets::find(final, set)) {
                selectCharset(intermediate, final);
                return;
            }
            break;
        }
        default:
            break;
        }
    }
    logUnknownEsc(collect, final);
}

void Terminal::selectCharset(uint8_t intermediate, uint8_t final) {
    const CharSet* set = nullptr;
    CharSets::find(final, set);
    int g = 0;
    switch (intermediate) {
    case '(':
        g = 0;
        break;
    case ')':
    case '-':
        g = 1;
        break;
    case '*':
    case '.':
        g = 2;
        break;
    case '+':
    case '/':
        g = 3;
        break;
    default:
        return;
    }
    setgCharset(g, set);
}

void Terminal::cmdSetApplicationKeypad(bool on) {
    m_applicationKeypad = on;
}

void Terminal::cmdSelectDefaultCharset() {
    // UTF-8 and ISO 2022 both come back to US-ASCII in G0 at level 0.
    setgLevel(0);
    m_gCharsets[0] = nullptr;
    m_charset = nullptr;
}

void Terminal::cmdSetC1Transmission(bool eightBit) {
    // S8C1T and S7C1T: whether replies use the 8-bit forms of the C1 introducers.
    m_cc.send8bit = eightBit;
}

void Terminal::setgCharset(int g, const CharSet* set) {
    m_gCharsets[g] = set;
    if (m_gLevel == g)
        m_charset = set;
}

void Terminal::setgLevel(int level) {
    m_gLevel = level;
    m_gcharset = level;
    m_charset = m_gCharsets[level];
}

} // namespace termkit
