#include "QuillmereDesktop/agents/Graphemes.h"

#include <QTextBoundaryFinder>

#include <optional>

namespace graphemes {

namespace {

QTextBoundaryFinder finderFor(QStringView text) {
    return QTextBoundaryFinder(QTextBoundaryFinder::Grapheme, text.data(), text.size());
}

} // namespace

qsizetype count(QStringView text) {
    QTextBoundaryFinder finder = finderFor(text);
    qsizetype clusters = 0;
    while (finder.toNextBoundary() != -1)
        ++clusters;
    return clusters;
}

std::optional<qsizetype> prefixEnd(QStringView text, qsizetype clusters) {
    QTextBoundaryFinder finder = finderFor(text);
    qsizetype seen = 0;
    qsizetype end = 0;
    while (seen < clusters) {
        const qsizetype next = finder.toNextBoundary();
        if (next == -1)
            return std::nullopt; // fewer than `clusters`
        end = next;
        ++seen;
    }
    // Exactly `clusters` characters fit only if nothing follows.
    if (end >= text.size())
        return std::nullopt;
    return end;
}

void Tally::update(const QString& text) {
    if (text.isEmpty()) {
        *this = Tally();
        return;
    }
    const QStringView tail = QStringView(text).mid(m_lastStart);
    QTextBoundaryFinder finder = finderFor(tail);
    qsizetype clusters = 0;
    qsizetype lastStart = 0;
    for (qsizetype at = 0; at != -1 && at < tail.size(); at = finder.toNextBoundary()) {
        lastStart = at;
        ++clusters;
    }
    m_count = m_countBeforeLast + clusters;
    m_countBeforeLast = m_count - 1;
    m_lastStart += lastStart;
}

} // namespace graphemes
