#include "Termkit/buffer/Attribute.h"

namespace termkit {

namespace {

void appendColor(std::string& out, const Attribute::Color& color, const char* prefix) {
    switch (color.kind) {
    case Attribute::Color::Kind::ansi256:
        out += ";";
        out += prefix;
        out += ";5;" + std::to_string(color.code());
        break;
    case Attribute::Color::Kind::trueColor:
        out += ";";
        out += prefix;
        out += ";2;" + std::to_string(color.red) + ";" + std::to_string(color.green) + ";" +
               std::to_string(color.blue);
        break;
    case Attribute::Color::Kind::defaultColor:
    case Attribute::Color::Kind::defaultInvertedColor:
        break;
    }
}

} // namespace

std::string Attribute::toSgr() const {
    std::string out = "0";
    if (style.contains(CharacterStyle::bold))
        out += ";1";
    if (style.contains(CharacterStyle::dim))
        out += ";2";
    if (style.contains(CharacterStyle::italic))
        out += ";3";
    if (underlineStyle == UnderlineStyle::single) {
        out += ";4";
    } else if (underlineStyle != UnderlineStyle::none) {
        out += ";4:" + std::to_string(static_cast<int>(underlineStyle));
    } else if (style.contains(CharacterStyle::underline)) {
        out += ";4";
    }
    if (style.contains(CharacterStyle::blink))
        out += ";5";
    if (style.contains(CharacterStyle::inverse))
        out += ";7";
    if (style.contains(CharacterStyle::invisible))
        out += ";8";
    if (style.contains(CharacterStyle::crossedOut))
        out += ";9";
    appendColor(out, fg, "38");
    appendColor(out, bg, "48");
    if (underlineColor)
        appendColor(out, *underlineColor, "58");
    return out;
}

uint64_t Attribute::hash() const {
    // Read field by field for the same reason equality is (store forwarding).
    const uint64_t colours = static_cast<uint64_t>(fg.packed()) << 32 | bg.packed();
    const uint64_t rest =
        static_cast<uint64_t>(style.bits) | static_cast<uint64_t>(underlineStyle) << 8 |
        (underlineColor ? (static_cast<uint64_t>(underlineColor->packed()) << 24 | 1u << 16) : 0);
    uint64_t h = (colours ^ (rest * 0xD6E8FEB86659FD93ull)) * 0x9E3779B97F4A7C15ull;
    h ^= h >> 32;
    h *= 0xC2B2AE3D27D4EB4Full;
    return h ^ (h >> 29);
}

} // namespace termkit
