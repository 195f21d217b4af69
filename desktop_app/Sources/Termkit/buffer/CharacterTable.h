#pragma once
// Codes for characters that do not fit a cell's code directly.

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace termkit {

/// Maps grapheme clusters (as UTF-8) to cell codes and back. A single scalar below 0x10000
/// is its own code and CR LF is 10; anything else gets an index above 0x400000 on first use.
/// The tables never shrink.
class CharacterTable {
 public:
  /// First code handed out for a cluster.
  static constexpr int32_t kFirstIndex = 0x400001;

  /// The code of a cluster given as UTF-8.
  int32_t code(std::string_view cluster);
  /// The code of a single scalar; scalars beyond the basic plane go through the table.
  int32_t code(char32_t scalar) {
    if (scalar < 0x10000) return static_cast<int32_t>(scalar);
    return astralCode(scalar);
  }
  /// The cluster of a code as UTF-8: a space for a code that is no valid scalar or unknown.
  std::string character(int32_t code) const;
  /// Appends the cluster of a code to `out` (same rules as `character`).
  void appendCharacter(int32_t code, std::string& out) const;
  /// Number of clusters stored.
  size_t size() const { return indexToCharMap.size(); }

  std::unordered_map<std::string, int32_t> charToIndexMap;
  std::deque<std::string> indexToCharMap;
  int32_t lastCharIndex = kFirstIndex;

 private:
  int32_t astralCode(char32_t scalar);
  int32_t store(std::string cluster);
  // Single scalars beyond the basic plane, looked up without hashing a string.
  std::unordered_map<char32_t, int32_t> m_astralCodes;
};

/// Appends one scalar to a UTF-8 string.
void appendUtf8(char32_t scalar, std::string& out);

}  // namespace termkit
