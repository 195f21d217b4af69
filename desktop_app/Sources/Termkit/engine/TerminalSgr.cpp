// Select graphic rendition, in both the semicolon and the colon forms.

#include <algorithm>
#include <string>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

uint8_t clampByte(int v) {
    return static_cast<uint8_t>(std::clamp(v, 0, 255));
}

} // namespace

// Reads an extended colour whose code (38, 48 or 58) is parameter `i`. Returns how many
// parameters were consumed after it; `out` is set only for a well-formed colour.
int Terminal::extendedColor(const CsiParameters& pars, int i, std::optional<Attribute::Color>& out) {
    out.reset();
    if (pars.colonBefore(i + 1)) {
        // The colon form: the group is every parameter joined to this one by colons.
        int end = i + 1;
        while (end < pars.count && pars.colonBefore(end))
            ++end;
        const int members = end - i; // the code itself included
        const int kind = members > 1 ? pars.values[i + 1] : -1;
        if (kind == 5 && members >= 3) {
            out = Attribute::Color::ansi256(clampByte(pars.values[i + 2]));
        } else if (kind == 2 && members >= 5) {
            // With a colour space id the channels start one later.
            const int first = members >= 6 ? i + 3 : i + 2;
            out =
                Attribute::Color::trueColor(clampByte(pars.values[first]), clampByte(pars.values[first + 1]),
                                            clampByte(pars.values[first + 2]));
        }
        return end - i - 1;
    }
    const int kind = pars.at(i + 1, -1);
    if (kind == 5) {
        if (i + 2 < pars.count)
            out = Attribute::Color::ansi256(clampByte(pars.values[i + 2]));
        return std::min(2, pars.count - i - 1);
    }
    if (kind == 2) {
        if (i + 4 < pars.count) {
            out = Attribute::Color::trueColor(clampByte(pars.values[i + 2]), clampByte(pars.values[i + 3]),
                                              clampByte(pars.values[i + 4]));
        }
        return std::min(4, pars.count - i - 1);
    }
    return pars.count > i + 1 ? 1 : 0;
}

namespace {

// The parameters of an SGR sequence as one number, for the memo: up to six values below 256,
// separated by semicolons, with the count in the low byte. 0 for anything else.
uint64_t sgrMemoKey(const CsiParameters& pars) {
    if (pars.count > 6)
        return 0;
    uint64_t key = static_cast<uint64_t>(pars.count);
    for (int i = 0; i < pars.count; ++i) {
        const auto value = static_cast<uint32_t>(pars.values[i]);
        if (value > 0xFF || (i > 0 && pars.separators[i - 1] != ';'))
            return 0;
        key |= static_cast<uint64_t>(value) << (8 * (i + 1));
    }
    return key;
}

// Slot of a sequence applied to an attribute.
size_t sgrMemoSlot(uint64_t key, const Attribute& from, int bits) {
    const uint64_t colours = static_cast<uint64_t>(from.fg.packed()) << 32 | from.bg.packed();
    const uint64_t rest =
        static_cast<uint64_t>(from.style.bits) | static_cast<uint64_t>(from.underlineStyle) << 8 |
        (from.underlineColor ? static_cast<uint64_t>(from.underlineColor->packed()) << 16 : 0);
    const uint64_t h =
        (key * 0x9E3779B97F4A7C15ull) ^ (colours * 0xC2B2AE3D27D4EB4Full) ^ (rest * 0xD6E8FEB86659FD93ull);
    return static_cast<size_t>((h ^ (h >> 31)) * 0x94D049BB133111EBull >> (64 - bits));
}

} // namespace

void Terminal::cmdCsiM(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (!collect.empty())
        return;
    if (pars.count == 1 && pars.values[0] == 0) {
        // The reset, the commonest sequence by far, needs no table: the empty attribute, and
        // the erase attribute of its default background, are id 0 in every table.
        m_sgrMemoPending = -1;
        m_curAttr = kEmptyAttribute;
        m_modes.curAttr = AttributeTable::kEmpty;
        m_modes.eraseAttr = AttributeTable::kEmpty;
        m_attrDirty = false;
        return;
    }
    // Starting from a true colour, which may never come back, an entry could push out one that
    // is used; such entries only take free slots and slots of their own kind. A true-colour
    // background behind whole lines (diffs) keeps coming back, so they are still looked up.
    const bool rare = m_curAttr.fg.kind == Attribute::Color::Kind::trueColor ||
                      m_curAttr.bg.kind == Attribute::Color::Kind::trueColor;
    const uint64_t key = sgrMemoKey(pars);
    if (key == 0) {
        m_sgrMemoPending = -1;
        applySgr(pars);
        return;
    }
    const size_t slot = sgrMemoSlot(key, m_curAttr, kSgrMemoBits);
    SgrMemo& memo = m_sgrMemo[slot];
    if (memo.parameters == key && memo.from == m_curAttr) {
        m_curAttr = memo.to;
        if (memo.hasIds && memo.collections == m_tables->attributes.collections()) {
            // The ids still name the outcome: nothing is left to intern.
            m_sgrMemoPending = -1;
            m_modes.curAttr = memo.id;
            m_modes.eraseAttr = memo.eraseId;
            m_attrDirty = false;
            return;
        }
        // The next interning tells the entry its ids.
        m_sgrMemoPending = static_cast<int>(slot);
        if (memo.to != memo.from)
            m_attrDirty = true;
        return;
    }
    const Attribute from = m_curAttr;
    if (!applySgr(pars)) {
        // A sequence that logs something is never memorised, so that it logs every time.
        m_sgrMemoPending = -1;
        return;
    }
    if (rare && memo.parameters != 0 && !memo.rare) {
        m_sgrMemoPending = -1;
        return;
    }
    memo = SgrMemo{key, from, m_curAttr};
    memo.rare = rare;
    m_sgrMemoPending = static_cast<int>(slot);
}

// Applies the parameters to the current attribute; false when one of them was unknown.
bool Terminal::applySgr(const CsiParameters& pars) {
    Attribute& a = m_curAttr;
    const Attribute before = a;
    bool known = true;
    if (pars.count == 1 && pars.values[0] == 0) {
        a = kEmptyAttribute;
        if (a != before)
            m_attrDirty = true;
        return true;
    }
    for (int i = 0; i < pars.count; ++i) {
        const int code = pars.values[i];
        switch (code) {
        case 0:
            a = kEmptyAttribute;
            break;
        case 1:
            a.style.insert(CharacterStyle::bold);
            break;
        case 2:
            a.style.insert(CharacterStyle::dim);
            break;
        case 3:
            a.style.insert(CharacterStyle::italic);
            break;
        case 4: {
            UnderlineStyle style = UnderlineStyle::single;
            if (pars.colonBefore(i + 1)) {
                const int sub = pars.values[++i];
                // Sub-parameters beyond the known shapes read as a single underline.
                style = sub == 0   ? UnderlineStyle::none
                        : sub <= 5 ? static_cast<UnderlineStyle>(sub)
                                   : UnderlineStyle::single;
                while (pars.colonBefore(i + 1))
                    ++i;
            }
            a.underlineStyle = style;
            if (style == UnderlineStyle::none) {
                a.style.remove(CharacterStyle::underline);
            } else {
                a.style.insert(CharacterStyle::underline);
            }
            break;
        }
        case 5:
            a.style.insert(CharacterStyle::blink);
            break;
        case 7:
            a.style.insert(CharacterStyle::inverse);
            break;
        case 8:
            a.style.insert(CharacterStyle::invisible);
            break;
        case 9:
            a.style.insert(CharacterStyle::crossedOut);
            break;
        case 21:
            a.underlineStyle = UnderlineStyle::double_;
            a.style.insert(CharacterStyle::underline);
            break;
        case 22:
            a.style.remove(CharacterStyle::bold);
            a.style.remove(CharacterStyle::dim);
            break;
        case 23:
            a.style.remove(CharacterStyle::italic);
            break;
        case 24:
            a.style.remove(CharacterStyle::underline);
            a.underlineStyle = UnderlineStyle::none;
            break;
        case 25:
            a.style.remove(CharacterStyle::blink);
            break;
        case 27:
            a.style.remove(CharacterStyle::inverse);
            break;
        case 28:
            a.style.remove(CharacterStyle::invisible);
            break;
        case 29:
            a.style.remove(CharacterStyle::crossedOut);
            break;
        case 39:
            a.fg = Attribute::Color::defaultColor();
            break;
        case 49:
            a.bg = Attribute::Color::defaultColor();
            break;
        case 59:
            a.underlineColor.reset();
            break;
        case 38:
        case 48:
        case 58: {
            std::optional<Attribute::Color> color;
            i += extendedColor(pars, i, color);
            if (color) {
                if (code == 38) {
                    a.fg = *color;
                } else if (code == 48) {
                    a.bg = *color;
                } else {
                    a.underlineColor = *color;
                }
            }
            break;
        }
        default:
            if (code >= 30 && code <= 37) {
                a.fg = Attribute::Color::ansi256(static_cast<uint8_t>(code - 30));
            } else if (code >= 40 && code <= 47) {
                a.bg = Attribute::Color::ansi256(static_cast<uint8_t>(code - 40));
            } else if (code >= 90 && code <= 97) {
                a.fg = Attribute::Color::ansi256(static_cast<uint8_t>(code - 90 + 8));
            } else if (code >= 100 && code <= 107) {
                a.bg = Attribute::Color::ansi256(static_cast<uint8_t>(code - 100 + 8));
            } else {
                known = false;
                if (!m_silentLog) {
                    std::string all;
                    for (int k = 0; k < pars.count; ++k)
                        all += (k ? ";" : "") + std::to_string(pars.values[k]);
                    log("Unknown SGR attribute: " + std::to_string(code) + " " + all);
                }
            }
            break;
        }
    }
    // The cell ids follow lazily, so a run of SGR sequences interns only its outcome.
    if (a != before)
        m_attrDirty = true;
    return known;
}

} // namespace termkit
