// The diff the person reads before a write: one hunk around one pure insertion.
#include "ImproveApply/GuideMerge.h"

#include <algorithm>

namespace improve::GuideMerge {

QString unifiedDiff(const QStringList& old, const QStringList& updated, const QString& path,
                    qsizetype insertedAt, qsizetype insertedCount, qsizetype context) {
    if (insertedCount < 1)
        return {};
    const qsizetype start = std::max<qsizetype>(0, insertedAt - context);
    const qsizetype end = std::min(insertedAt + context, old.size());
    // An empty old range is numbered from line 0, as unified diffs write a file's creation.
    const qsizetype oldStart = end == start ? 0 : start + 1;

    QStringList out;
    out << QStringLiteral("--- a/") + path << QStringLiteral("+++ b/") + path
        << QStringLiteral("@@ -%1,%2 +%3,%4 @@")
               .arg(oldStart)
               .arg(end - start)
               .arg(start + 1)
               .arg(end - start + insertedCount);
    for (qsizetype i = start; i < insertedAt; ++i)
        out << QChar(u' ') + old[i];
    for (qsizetype i = insertedAt; i < insertedAt + insertedCount; ++i)
        out << QChar(u'+') + updated[i];
    for (qsizetype i = insertedAt; i < end; ++i)
        out << QChar(u' ') + old[i];
    return out.join(QChar(u'\n'));
}

} // namespace improve::GuideMerge
