#include "Termkit/buffer/TinyAtom.h"

namespace termkit {

std::optional<TinyAtom> TinyAtomTable::lookup(std::any value) {
    if (m_counter + 1 > m_capacity)
        return std::nullopt;
    const auto code = static_cast<uint16_t>(++m_counter);
    m_values[code] = std::move(value);
    return TinyAtom{code};
}

std::any TinyAtomTable::target(uint16_t code) const {
    auto it = m_values.find(code);
    return it == m_values.end() ? std::any() : it->second;
}

void TinyAtomTable::release(std::span<const uint16_t> codes) {
    for (uint16_t code : codes)
        m_values.erase(code);
}

} // namespace termkit
