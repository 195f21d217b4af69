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

void Terminal::cmdCsiM(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (!collect.empty())
        return;
    Attribute& a = m_curAttr;
    const Attribute before = a;
    if (pars.count == 1 && pars.values[0] == 0) {
        a = kEmptyAttribute;
        if (a != before)
            m_attrDirty = true;
        return;
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
}

} // namespace termkit
