#include "Termkit/buffer/CharacterTable.h"

#include <algorithm>
#include <cstring>

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

constexpr size_t kInitialSlots = 1024;
constexpr size_t kAstralCacheSize = 512;

// Decodes a string that holds exactly one scalar; returns -1 otherwise.
int32_t singleScalar(std::string_view s) {
  if (s.empty()) return -1;
  const auto b0 = static_cast<uint8_t>(s[0]);
  const size_t n = b0 < 0x80 ? 1 : b0 < 0xE0 ? 2 : b0 < 0xF0 ? 3 : 4;
  if (s.size() != n) return -1;
  if (n == 1) return b0;
  int32_t c = b0 & (0x7F >> n);
  for (size_t i = 1; i < n; ++i) c = c << 6 | (static_cast<uint8_t>(s[i]) & 0x3F);
  return c;
}

// A quick 64-bit hash for short byte strings.
uint64_t hashBytes(std::string_view s) {
  uint64_t h = 0x9E3779B97F4A7C15ull ^ s.size();
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) {
    uint64_t v;
    std::memcpy(&v, s.data() + i, 8);
    h = (h ^ v) * 0xFF51AFD7ED558CCDull;
    h ^= h >> 32;
  }
  uint64_t tail = 0;
  std::memcpy(&tail, s.data() + i, s.size() - i);
  h = (h ^ tail) * 0xC4CEB9FE1A85EC53ull;
  return h ^ (h >> 29);
}

}  // namespace

CharacterTable::CharacterTable() : m_offsets{0}, m_slots(kInitialSlots), m_astral(kAstralCacheSize, {0, 0}) {}

std::string_view CharacterTable::stored(int32_t code) const {
  const int64_t index = static_cast<int64_t>(code) - kFirstIndex;
  if (index < 0 || index >= static_cast<int64_t>(size())) return {};
  const auto i = static_cast<size_t>(index);
  return std::string_view(m_arena.data() + m_offsets[i], m_offsets[i + 1] - m_offsets[i]);
}

CharacterTable::Slot CharacterTable::slotFor(std::string_view cluster, uint64_t hash, uint32_t index) {
  Slot slot;
  const uint32_t length = cluster.size() < 255 ? static_cast<uint32_t>(cluster.size()) : 255;
  slot.tag = length << 24 | (static_cast<uint32_t>(hash) & 0xFFFFFF);
  slot.index = index;
  if (cluster.size() <= 8) std::memcpy(&slot.bytes, cluster.data(), cluster.size());
  return slot;
}

int32_t CharacterTable::find(std::string_view cluster, uint64_t hash) const {
  const size_t mask = m_slots.size() - 1;
  const Slot wanted = slotFor(cluster, hash, 0);
  for (size_t slot = (hash >> 32) & mask; m_slots[slot].index != 0; slot = (slot + 1) & mask) {
    const Slot& entry = m_slots[slot];
    if (entry.tag != wanted.tag) continue;
    const uint32_t index = entry.index - 1;
    if (cluster.size() <= 8) {
      if (entry.bytes == wanted.bytes) return kFirstIndex + static_cast<int32_t>(index);
      continue;
    }
    if (std::string_view(m_arena.data() + m_offsets[index], m_offsets[index + 1] - m_offsets[index]) == cluster) {
      return kFirstIndex + static_cast<int32_t>(index);
    }
  }
  return -1;
}

void CharacterTable::rehash(size_t slots) {
  std::vector<Slot> old = std::move(m_slots);
  m_slots.assign(slots, Slot{});
  const size_t mask = slots - 1;
  for (const Slot& entry : old) {
    if (entry.index == 0) continue;
    size_t slot = m_slotHome[entry.index - 1] & mask;
    while (m_slots[slot].index != 0) slot = (slot + 1) & mask;
    m_slots[slot] = entry;
  }
}

int32_t CharacterTable::store(std::string_view cluster, uint64_t hash) {
  const auto index = static_cast<uint32_t>(size());
  // The arena grows by doubling and is written with a plain copy.
  const size_t used = m_offsets.back();
  if (used + cluster.size() > m_arena.size()) {
    m_arena.resize(std::max<size_t>(m_arena.size() * 2, used + cluster.size() + 4096));
  }
  std::memcpy(m_arena.data() + used, cluster.data(), cluster.size());
  m_offsets.push_back(static_cast<uint32_t>(used + cluster.size()));
  m_slotHome.push_back(static_cast<uint32_t>(hash >> 32));
  const size_t mask = m_slots.size() - 1;
  size_t slot = (hash >> 32) & mask;
  while (m_slots[slot].index != 0) slot = (slot + 1) & mask;
  m_slots[slot] = slotFor(cluster, hash, index + 1);
  // Keep the load factor under one half so probes stay short.
  if ((size() + 1) * 2 > m_slots.size()) rehash(m_slots.size() * 2);
  return kFirstIndex + static_cast<int32_t>(index);
}

int32_t CharacterTable::astralCode(char32_t scalar) {
  auto& cached = m_astral[scalar % kAstralCacheSize];
  if (cached.first == scalar) return cached.second;
  std::string s;
  appendUtf8(scalar, s);
  const int32_t c = code(std::string_view(s));
  cached = {scalar, c};
  return c;
}

int32_t CharacterTable::code(std::string_view cluster) {
  if (cluster == "\r\n") return 10;
  const int32_t scalar = singleScalar(cluster);
  if (scalar >= 0 && scalar < 0x10000) return scalar;
  const uint64_t hash = hashBytes(cluster);
  const int32_t known = find(cluster, hash);
  return known >= 0 ? known : store(cluster, hash);
}

void CharacterTable::appendCharacter(int32_t code, std::string& out) const {
  if (code <= kCharacterTableBase) {
    const bool valid = code >= 0 && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF);
    appendUtf8(valid ? static_cast<char32_t>(code) : U' ', out);
    return;
  }
  const std::string_view s = stored(code);
  if (s.empty()) {
    out += ' ';
    return;
  }
  out += s;
}

std::string CharacterTable::character(int32_t code) const {
  std::string out;
  appendCharacter(code, out);
  return out;
}

}  // namespace termkit
