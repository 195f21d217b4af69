#include "Termkit/buffer/TinyAtom.h"

#include <mutex>
#include <unordered_map>

namespace termkit {

namespace {

struct AtomTable {
    std::mutex lock;
    std::unordered_map<uint16_t, std::any> values;
    uint32_t counter = 0;
};

// The one lock of the core: handles are shared by every terminal of the process.
AtomTable& table() {
    static AtomTable t;
    return t;
}

} // namespace

std::optional<TinyAtom> TinyAtom::lookup(std::any value) {
    AtomTable& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    if (t.counter + 1 > kMaxCode)
        return std::nullopt;
    const auto code = static_cast<uint16_t>(++t.counter);
    t.values[code] = std::move(value);
    return TinyAtom{code};
}

std::any TinyAtom::target(uint16_t code) {
    AtomTable& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.values.find(code);
    return it == t.values.end() ? std::any() : it->second;
}

void TinyAtom::release(std::span<const uint16_t> codes) {
    AtomTable& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    for (uint16_t code : codes)
        t.values.erase(code);
}

uint32_t TinyAtom::issuedCount() {
    AtomTable& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    return t.counter;
}

} // namespace termkit
