#include "Termkit/buffer/CharacterTable.h"

#include "Termkit/buffer/CharData.h"

namespace termkit {

void appendUtf8(char32_t c, std::string& out) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

namespace {

// Decodes a string that holds exactly one scalar; returns -1 otherwise.
int32_t singleScalar(std::string_view s) {
  if (s.empty()) return -1;
  const auto b0 = static_cast<uint8_t>(s[0]);
  size_t n = b0 < 0x80 ? 1 : b0 < 0xE0 ? 2 : b0 < 0xF0 ? 3 : 4;
  if (s.size() != n) return -1;
  if (n == 1) return b0;
  int32_t c = b0 & (0x7F >> n);
  for (size_t i = 1; i < n; ++i) c = c << 6 | (static_cast<uint8_t>(s[i]) & 0x3F);
  return c;
}

}  // namespace

int32_t CharacterTable::store(std::string cluster) {
  const int32_t code = lastCharIndex++;
  indexToCharMap.push_back(cluster);
  charToIndexMap.emplace(std::move(cluster), code);
  return code;
}

int32_t CharacterTable::astralCode(char32_t scalar) {
  if (auto it = m_astralCodes.find(scalar); it != m_astralCodes.end()) return it->second;
  std::string s;
  appendUtf8(scalar, s);
  const int32_t c = code(std::string_view(s));
  m_astralCodes.emplace(scalar, c);
  return c;
}

int32_t CharacterTable::code(std::string_view cluster) {
  if (cluster == "\r\n") return 10;
  const int32_t scalar = singleScalar(cluster);
  if (scalar >= 0 && scalar < 0x10000) return scalar;
  if (auto it = charToIndexMap.find(std::string(cluster)); it != charToIndexMap.end()) return it->second;
  return store(std::string(cluster));
}

void CharacterTable::appendCharacter(int32_t code, std::string& out) const {
  if (code <= kCharacterTableBase) {
    const bool valid = code >= 0 && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF);
    appendUtf8(valid ? static_cast<char32_t>(code) : U' ', out);
    return;
  }
  const int64_t index = static_cast<int64_t>(code) - kFirstIndex;
  if (index < 0 || index >= static_cast<int64_t>(indexToCharMap.size())) {
    out += ' ';
    return;
  }
  out += indexToCharMap[static_cast<size_t>(index)];
}

std::string CharacterTable::character(int32_t code) const {
  std::string out;
  appendCharacter(code, out);
  return out;
}

}  // namespace termkit
