#include "Termkit/buffer/CircularBufferLineList.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace termkit {

CircularBufferLineList::CircularBufferLineList(int maxLength) {
    m_array.resize(static_cast<size_t>(std::max(maxLength, 1)), nullptr);
}

CircularBufferLineList::~CircularBufferLineList() {
    for (BufferLine* line : m_array)
        delete line;
}

void CircularBufferLineList::materialize(BufferLine*& slot) {
    TERMKIT_INVARIANT(static_cast<bool>(makeEmpty), "line list has no factory for empty slots");
    slot = makeEmpty().release();
    attach(*slot);
}

void CircularBufferLineList::setMaxLength(int maxLength) {
    maxLength = std::max(maxLength, 1);
    if (maxLength == this->maxLength())
        return;
    std::vector<BufferLine*> next(static_cast<size_t>(maxLength), nullptr);
    const int kept = std::min(m_count, maxLength);
    for (int i = 0; i < kept; ++i) {
        next[i] = m_array[physical(i)];
        m_array[physical(i)] = nullptr;
    }
    for (int i = kept; i < m_count; ++i)
        removed(m_array[physical(i)]);
    m_array = std::move(next);
    m_startIndex = 0;
    m_count = kept;
}

void CircularBufferLineList::set(int index, LinePtr line) {
    TERMKIT_INVARIANT(index >= 0 && index < m_count, "set outside the line list");
    BufferLine*& slot = m_array[physical(index)];
    removed(slot);
    if (line)
        attach(*line);
    slot = line.release();
}

void CircularBufferLineList::push(LinePtr line) {
    if (line)
        attach(*line);
    const bool hasImages = line && line->hasImages();
    BufferLine*& slot = m_array[physical(m_count)];
    if (m_count == maxLength()) {
        removed(slot);
        m_startIndex = physical(1);
    } else {
        ++m_count;
    }
    slot = line.release();
    if (hasImages && onLinePushed)
        onLinePushed(*slot);
}

CircularBufferLineList::LinePtr CircularBufferLineList::pop() {
    TERMKIT_INVARIANT(m_count > 0, "pop from an empty line list");
    --m_count;
    BufferLine*& slot = m_array[physical(m_count)];
    LinePtr line(slot);
    slot = nullptr;
    return line;
}

BufferLine& CircularBufferLineList::recycleSlow(AttributeId clearAttribute) {
    TERMKIT_INVARIANT(m_count == maxLength(), "recycle can only be called on a full line list");
    BufferLine*& slot = m_array[m_startIndex];
    m_startIndex = physical(1);
    if (slot == nullptr)
        materialize(slot);
    BufferLine& line = *slot;
    bool hadImages = false;
    if (line.hasAnnotations()) [[unlikely]] {
        hadImages = line.hasImages();
        line.clearImages();
        line.destroySemanticState();
    }
    line.clear(clearAttribute);
    line.markRecycled();
    if (hadImages && onLineRecycled)
        onLineRecycled(true);
    return line;
}

int CircularBufferLineList::splice(int start, int deleteCount, std::vector<LinePtr> items) {
    TERMKIT_INVARIANT(start >= 0 && start <= m_count, "splice outside the line list");
    deleteCount = std::clamp(deleteCount, 0, m_count - start);
    std::vector<LinePtr> all = takeAll();
    for (int i = start; i < start + deleteCount; ++i) {
        if (all[i] && onLineRemoved)
            onLineRemoved(*all[i]);
    }
    for (auto& item : items) {
        if (item)
            attach(*item);
    }
    all.erase(all.begin() + start, all.begin() + start + deleteCount);
    all.insert(all.begin() + start, std::make_move_iterator(items.begin()),
               std::make_move_iterator(items.end()));
    const int overflow = std::max(0, static_cast<int>(all.size()) - maxLength());
    for (int i = 0; i < overflow; ++i) {
        if (all[i] && onLineRemoved)
            onLineRemoved(*all[i]);
    }
    all.erase(all.begin(), all.begin() + overflow);
    for (size_t i = 0; i < all.size(); ++i)
        m_array[i] = all[i].release();
    m_startIndex = 0;
    m_count = static_cast<int>(all.size());
    return overflow;
}

void CircularBufferLineList::trimStart(int n) {
    n = std::clamp(n, 0, m_count);
    for (int i = 0; i < n; ++i)
        removed(m_array[physical(i)]);
    m_startIndex = physical(n);
    m_count -= n;
}

void CircularBufferLineList::shiftElements(int start, int count, int offset) {
    if (count <= 0)
        return;
    TERMKIT_INVARIANT(start >= 0, "start < 0");
    TERMKIT_INVARIANT(start < m_count, "start >= self.count");
    TERMKIT_INVARIANT(start + offset >= 0, "start+offset <= 0");
    if (offset > 0) {
        for (int i = count - 1; i >= 0; --i) {
            const int dst = start + i + offset;
            if (dst >= m_count) {
                const int grow = dst - m_count + 1;
                for (int g = 0; g < grow; ++g)
                    push(nullptr);
            }
            BufferLine*& to = m_array[physical(dst)];
            removed(to);
            to = m_array[physical(start + i)];
            m_array[physical(start + i)] = nullptr;
        }
    } else if (offset < 0) {
        for (int i = 0; i < count; ++i) {
            BufferLine*& to = m_array[physical(start + i + offset)];
            removed(to);
            to = m_array[physical(start + i)];
            m_array[physical(start + i)] = nullptr;
        }
    }
    TERMKIT_INVARIANT(start + count + offset <= m_count, "Assertion at start=" + std::to_string(start) +
                                                             " count=" + std::to_string(count) +
                                                             " offset=" + std::to_string(offset));
}

void CircularBufferLineList::rotate(int from, int to) {
    TERMKIT_INVARIANT(from >= 0 && from < m_count && to >= 0 && to < m_count, "rotate outside the line list");
    if (from == to)
        return;
    const int lo = std::min(from, to);
    const int hi = std::max(from, to);
    BufferLine** base = m_array.data();
    const int pl = physical(lo);
    const int ph = physical(hi);
    if (pl <= ph) {
        // The range does not wrap around the end of the array: one pointer move does it.
        BufferLine* moving = base[physical(from)];
        if (from < to) {
            std::memmove(base + pl, base + pl + 1, static_cast<size_t>(hi - lo) * sizeof(BufferLine*));
        } else {
            std::memmove(base + pl + 1, base + pl, static_cast<size_t>(hi - lo) * sizeof(BufferLine*));
        }
        base[physical(to)] = moving;
        return;
    }
    BufferLine* moving = base[physical(from)];
    if (from < to) {
        for (int i = from; i < to; ++i)
            base[physical(i)] = base[physical(i + 1)];
    } else {
        for (int i = from; i > to; --i)
            base[physical(i)] = base[physical(i - 1)];
    }
    base[physical(to)] = moving;
}

std::vector<CircularBufferLineList::LinePtr> CircularBufferLineList::takeAll() {
    std::vector<LinePtr> out;
    out.reserve(static_cast<size_t>(m_count));
    for (int i = 0; i < m_count; ++i) {
        BufferLine*& slot = m_array[physical(i)];
        out.emplace_back(slot);
        slot = nullptr;
    }
    m_startIndex = 0;
    m_count = 0;
    return out;
}

void CircularBufferLineList::assign(std::vector<LinePtr> lines) {
    TERMKIT_INVARIANT(m_count == 0, "assign to a line list that is not empty");
    const int overflow = std::max(0, static_cast<int>(lines.size()) - maxLength());
    for (int i = 0; i < overflow; ++i) {
        if (lines[i] && onLineRemoved)
            onLineRemoved(*lines[i]);
    }
    for (size_t i = static_cast<size_t>(overflow); i < lines.size(); ++i) {
        m_array[i - overflow] = lines[i].release();
    }
    m_startIndex = 0;
    m_count = static_cast<int>(lines.size()) - overflow;
}

} // namespace termkit
