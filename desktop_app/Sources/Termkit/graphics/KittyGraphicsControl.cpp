#include "Termkit/graphics/KittyGraphicsControl.h"

#include <charconv>

namespace termkit {

namespace {

template <typename T> void parseNumber(std::string_view value, T& out) {
    T parsed{};
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), parsed);
    if (error == std::errc() && end == value.data() + value.size())
        out = parsed;
}

void parseId(std::string_view value, std::optional<uint32_t>& out) {
    uint32_t parsed = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), parsed);
    if (error == std::errc() && end == value.data() + value.size())
        out = parsed;
}

void parseCharacter(std::string_view value, char& out) {
    if (value.size() == 1)
        out = value[0];
}

void parseOptionalCharacter(std::string_view value, std::optional<char>& out) {
    if (value.size() == 1)
        out = value[0];
}

// The one dispatch on the key letter.
void applyPair(KittyGraphicsControl& c, char key, std::string_view v) {
    switch (key) {
    case 'a':
        parseCharacter(v, c.action);
        break;
    case 'q':
        parseNumber(v, c.suppressResponses);
        break;
    case 'f':
        parseNumber(v, c.format);
        break;
    case 't':
        parseCharacter(v, c.transmission);
        break;
    case 's':
        parseNumber(v, c.width);
        break;
    case 'v':
        parseNumber(v, c.height);
        break;
    case 'x':
        parseNumber(v, c.cropX);
        break;
    case 'y':
        parseNumber(v, c.cropY);
        break;
    case 'w':
        parseNumber(v, c.cropWidth);
        break;
    case 'h':
        parseNumber(v, c.cropHeight);
        break;
    case 'S':
        parseNumber(v, c.dataSize);
        break;
    case 'O':
        parseNumber(v, c.dataOffset);
        break;
    case 'i':
        parseId(v, c.imageId);
        break;
    case 'I':
        parseId(v, c.imageNumber);
        break;
    case 'p':
        parseId(v, c.placementId);
        break;
    case 'P':
        parseId(v, c.parentImageId);
        break;
    case 'Q':
        parseId(v, c.parentPlacementId);
        break;
    case 'H':
        parseNumber(v, c.offsetH);
        break;
    case 'V':
        parseNumber(v, c.offsetV);
        break;
    case 'X':
        parseNumber(v, c.pixelOffsetX);
        break;
    case 'Y':
        parseNumber(v, c.pixelOffsetY);
        break;
    case 'U':
        parseNumber(v, c.unicodePlaceholder);
        break;
    case 'z':
        parseNumber(v, c.zIndex);
        break;
    case 'm':
        parseNumber(v, c.more);
        break;
    case 'o':
        parseOptionalCharacter(v, c.compression);
        break;
    case 'c':
        parseNumber(v, c.columns);
        break;
    case 'r':
        parseNumber(v, c.rows);
        break;
    case 'C':
        parseNumber(v, c.cursorPolicy);
        break;
    case 'd':
        parseOptionalCharacter(v, c.deleteMode);
        break;
    default:
        break;
    }
}

bool isAscii(std::string_view s) {
    for (char ch : s)
        if (static_cast<unsigned char>(ch) >= 0x80)
            return false;
    return true;
}

} // namespace

KittyGraphicsControl KittyGraphicsControl::parse(std::span<const uint8_t> data, std::string_view* payload) {
    const std::string_view all(reinterpret_cast<const char*>(data.data()), data.size());
    const size_t semicolon = all.find(';');
    const std::string_view control = all.substr(0, semicolon);
    if (payload != nullptr)
        *payload = semicolon == std::string_view::npos ? std::string_view() : all.substr(semicolon + 1);
    KittyGraphicsControl c;
    size_t start = 0;
    while (start <= control.size()) {
        size_t comma = control.find(',', start);
        if (comma == std::string_view::npos)
            comma = control.size();
        const std::string_view pair = control.substr(start, comma - start);
        const size_t eq = pair.find('=');
        if (eq == 1 && isAscii(pair))
            applyPair(c, pair[0], pair.substr(2));
        start = comma + 1;
    }
    return c;
}

} // namespace termkit
