#include "Termkit/view/TextBlink.h"

namespace termkit {

bool TextBlink::update(bool blinkingCellsVisible, bool windowActive) {
    m_running = blinkingCellsVisible && windowActive;
    if (!m_running)
        m_shown = true;
    return m_running;
}

} // namespace termkit
