#include "Termkit/buffer/CircularBufferLineList.h"

#include <algorithm>
#include <string>

namespace termkit {

CircularBufferLineList::CircularBufferLineList(int maxLength) { m_array.resize(static_cast<size_t>(std::max(maxLength, 1))); }

void CircularBufferLineList::materialize(LinePtr& slot) {
  TERMKIT_INVARIANT(static_cast<bool>(makeEmpty), "line list has no factory for empty slots");
  slot = makeEmpty();
  attach(*slot);
}

void CircularBufferLineList::setMaxLength(int maxLength) {
  maxLength = std::max(maxLength, 1);
  if (maxLength == this->maxLength()) return;
  std::vector<LinePtr> next(static_cast<size_t>(maxLength));
  const int kept = std::min(m_count, maxLength);
  for (int i = 0; i < kept; ++i) next[i] = std::move(m_array[physical(i)]);
  for (int i = kept; i < m_count; ++i) removed(m_array[physical(i)]);
  m_array = std::move(next);
  m_startIndex = 0;
  m_count = kept;
}

void CircularBufferLineList::set(int index, LinePtr line) {
  TERMKIT_INVARIANT(index >= 0 && index < m_count, "set outside the line list");
  LinePtr& slot = m_array[physical(index)];
  removed(slot);
  if (line) attach(*line);
  slot = std::move(line);
}

void CircularBufferLineList::push(LinePtr line) {
  if (line) attach(*line);
  const bool hasImages = line && line->hasImages();
  LinePtr& slot = m_array[physical(m_count)];
  if (m_count == maxLength()) {
    removed(slot);
    m_startIndex = physical(1);
  } else {
    ++m_count;
  }
  slot = std::move(line);
  if (hasImages && onLinePushed) onLinePushed(*slot);
}

CircularBufferLineList::LinePtr CircularBufferLineList::pop() {
  TERMKIT_INVARIANT(m_count > 0, "pop from an empty line list");
  --m_count;
  return std::move(m_array[physical(m_count)]);
}

BufferLine& CircularBufferLineList::recycle(AttributeId clearAttribute) {
  TERMKIT_INVARIANT(m_count == maxLength(), "recycle can only be called on a full line list");
  LinePtr& slot = m_array[m_startIndex];
  m_startIndex = physical(1);
  if (!slot) {
    materialize(slot);
  }
  BufferLine& line = *slot;
  const bool hadImages = line.hasImages();
  line.clearImages();
  line.clear(clearAttribute);
  line.destroySemanticState();
  ++line.recycleGeneration;
  if (onLineRecycled) onLineRecycled(hadImages);
  return line;
}

int CircularBufferLineList::splice(int start, int deleteCount, std::vector<LinePtr> items) {
  TERMKIT_INVARIANT(start >= 0 && start <= m_count, "splice outside the line list");
  deleteCount = std::clamp(deleteCount, 0, m_count - start);
  std::vector<LinePtr> all = takeAll();
  for (int i = start; i < start + deleteCount; ++i) {
    if (all[i] && onLineRemoved) onLineRemoved(*all[i]);
  }
  for (auto& item : items) {
    if (item) attach(*item);
  }
  all.erase(all.begin() + start, all.begin() + start + deleteCount);
  all.insert(all.begin() + start, std::make_move_iterator(items.begin()), std::make_move_iterator(items.end()));
  const int overflow = std::max(0, static_cast<int>(all.size()) - maxLength());
  for (int i = 0; i < overflow; ++i) {
    if (all[i] && onLineRemoved) onLineRemoved(*all[i]);
  }
  all.erase(all.begin(), all.begin() + overflow);
  for (size_t i = 0; i < all.size(); ++i) m_array[i] = std::move(all[i]);
  m_startIndex = 0;
  m_count = static_cast<int>(all.size());
  return overflow;
}

void CircularBufferLineList::trimStart(int n) {
  n = std::clamp(n, 0, m_count);
  for (int i = 0; i < n; ++i) removed(m_array[physical(i)]);
  m_startIndex = physical(n);
  m_count -= n;
}

void CircularBufferLineList::shiftElements(int start, int count, int offset) {
  if (count <= 0) return;
  TERMKIT_INVARIANT(start >= 0, "start < 0");
  TERMKIT_INVARIANT(start < m_count, "start >= self.count");
  TERMKIT_INVARIANT(start + offset >= 0, "start+offset <= 0");
  if (offset > 0) {
    for (int i = count - 1; i >= 0; --i) {
      const int dst = start + i + offset;
      if (dst >= m_count) {
        const int grow = dst - m_count + 1;
        for (int g = 0; g < grow; ++g) push(nullptr);
      }
      LinePtr& to = m_array[physical(dst)];
      removed(to);
      to = std::move(m_array[physical(start + i)]);
    }
  } else if (offset < 0) {
    for (int i = 0; i < count; ++i) {
      LinePtr& to = m_array[physical(start + i + offset)];
      removed(to);
      to = std::move(m_array[physical(start + i)]);
    }
  }
  TERMKIT_INVARIANT(start + count + offset <= m_count,
                    "Assertion at start=" + std::to_string(start) + " count=" + std::to_string(count) +
                        " offset=" + std::to_string(offset));
}

void CircularBufferLineList::rotate(int from, int to) {
  TERMKIT_INVARIANT(from >= 0 && from < m_count && to >= 0 && to < m_count, "rotate outside the line list");
  LinePtr moving = std::move(m_array[physical(from)]);
  if (from < to) {
    for (int i = from; i < to; ++i) m_array[physical(i)] = std::move(m_array[physical(i + 1)]);
  } else {
    for (int i = from; i > to; --i) m_array[physical(i)] = std::move(m_array[physical(i - 1)]);
  }
  m_array[physical(to)] = std::move(moving);
}

std::vector<CircularBufferLineList::LinePtr> CircularBufferLineList::takeAll() {
  std::vector<LinePtr> out;
  out.reserve(static_cast<size_t>(m_count));
  for (int i = 0; i < m_count; ++i) out.push_back(std::move(m_array[physical(i)]));
  m_startIndex = 0;
  m_count = 0;
  return out;
}

void CircularBufferLineList::assign(std::vector<LinePtr> lines) {
  TERMKIT_INVARIANT(m_count == 0, "assign to a line list that is not empty");
  const int overflow = std::max(0, static_cast<int>(lines.size()) - maxLength());
  for (int i = 0; i < overflow; ++i) {
    if (lines[i] && onLineRemoved) onLineRemoved(*lines[i]);
  }
  for (size_t i = static_cast<size_t>(overflow); i < lines.size(); ++i) {
    m_array[i - overflow] = std::move(lines[i]);
  }
  m_startIndex = 0;
  m_count = static_cast<int>(lines.size()) - overflow;
}

}  // namespace termkit
