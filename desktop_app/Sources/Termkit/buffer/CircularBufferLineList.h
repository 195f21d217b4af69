#pragma once
// The ring of lines that holds scrollback and screen together.

#include <functional>
#include <memory>
#include <vector>

#include "Termkit/buffer/BufferLine.h"
#include "Termkit/buffer/Invariant.h"

namespace termkit {

/// A ring of at most `maxLength()` lines. A slot may be empty: it stands for a blank line
/// and is made by `makeEmpty` on first read, so rows never used cost nothing. Once full,
/// the oldest line is reused for the newest (`recycle`), so steady output allocates nothing.
class CircularBufferLineList {
public:
    using LinePtr = std::unique_ptr<BufferLine>;

    explicit CircularBufferLineList(int maxLength);
    ~CircularBufferLineList();
    CircularBufferLineList(const CircularBufferLineList&) = delete;
    CircularBufferLineList& operator=(const CircularBufferLineList&) = delete;

    /// Makes the line for an empty slot.
    std::function<LinePtr()> makeEmpty;
    /// Told when the oldest line was reused while it had images (the owner counts such lines);
    /// a line without images is reused without a call, as every line feed of plain output does.
    std::function<void(bool hadImages)> onLineRecycled;
    /// Told when a pushed line has images.
    std::function<void(BufferLine&)> onLinePushed;
    /// Told whenever a line enters the ring.
    std::function<void(BufferLine&)> onLineAttached;
    /// Told when a line leaves the ring for good.
    std::function<void(BufferLine&)> onLineRemoved;

    int count() const { return m_count; }
    int maxLength() const { return static_cast<int>(m_array.size()); }
    int startIndex() const { return m_startIndex; }
    bool isFull() const { return m_count == maxLength(); }
    /// Changes the capacity, keeping the first min(old, new) lines; the start goes back to 0.
    void setMaxLength(int maxLength);

    /// The line at an index, made on first read.
    BufferLine& operator[](int index) {
        BufferLine*& slot = m_array[physical(index)];
        if (slot == nullptr) [[unlikely]]
            materialize(slot);
        return *slot;
    }
    /// The line at an index, or nullptr for a slot never read.
    BufferLine* peek(int index) const { return m_array[physical(index)]; }
    /// Replaces the line at an index.
    void set(int index, LinePtr line);
    /// Appends a line (nullptr for a lazy blank one); a full ring drops its oldest line.
    void push(LinePtr line);
    /// Removes and returns the newest line (which may be nullptr for a lazy slot).
    LinePtr pop();
    /// Reuses the oldest line as the newest: cleared with the attribute, no semantic state,
    /// not wrapped. Only valid on a full ring.
    /// Inline for the common line (made, without images or semantic state): every line feed
    /// at the bottom of a full ring comes here.
    BufferLine& recycle(AttributeId clearAttribute) {
        BufferLine* line = m_array[m_startIndex];
        if (line == nullptr || line->hasAnnotations() || m_count != maxLength()) [[unlikely]]
            return recycleSlow(clearAttribute);
        m_startIndex = physical(1);
        line->clear(clearAttribute);
        line->markRecycled();
        return *line;
    }
    /// Removes `deleteCount` lines at `start` and inserts `items` there. A ring that overflows
    /// drops its oldest lines; returns how many were dropped.
    int splice(int start, int deleteCount, std::vector<LinePtr> items);
    /// Drops the `n` oldest lines.
    void trimStart(int n);
    /// Moves `count` lines from `start` by `offset` positions (negative moves toward the top).
    /// Lines that are overwritten are dropped; slots left behind become lazy blank lines.
    void shiftElements(int start, int count, int offset);
    /// Moves the line at `from` to `to`, the lines between sliding by one. Allocation free.
    void rotate(int from, int to);

    /// Takes every line out, oldest first, leaving the ring empty.
    std::vector<LinePtr> takeAll();
    /// Fills an empty ring with lines, oldest first; the newest `maxLength()` are kept.
    void assign(std::vector<LinePtr> lines);

private:
    int physical(int index) const {
        int p = m_startIndex + index;
        const int size = static_cast<int>(m_array.size());
        return p >= size ? p - size : p;
    }
    void materialize(BufferLine*& slot);
    BufferLine& recycleSlow(AttributeId clearAttribute);
    void attach(BufferLine& line) {
        if (onLineAttached)
            onLineAttached(line);
    }
    // Deletes the line in a slot (telling the owner) and empties the slot.
    void removed(BufferLine*& line) {
        if (line != nullptr && onLineRemoved)
            onLineRemoved(*line);
        delete line;
        line = nullptr;
    }

    // Owning raw pointers: plain pointers let lines move through the ring with memmove.
    std::vector<BufferLine*> m_array;
    int m_startIndex = 0;
    int m_count = 0;
};

} // namespace termkit
