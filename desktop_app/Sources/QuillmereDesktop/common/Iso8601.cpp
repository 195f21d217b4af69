#include "QuillmereDesktop/common/Iso8601.h"

#include <QRegularExpression>

namespace iso8601 {

std::optional<QDateTime> parse(const QString& text) {
    static const QRegularExpression pattern(
        QStringLiteral(R"(^(\d{4})-(\d{2})-(\d{2})T(\d{2}):(\d{2}):(\d{2})(Z|([+-])(\d{2}):(\d{2}))$)"));
    const QRegularExpressionMatch m = pattern.match(text);
    if (!m.hasMatch())
        return std::nullopt;
    const QDate date(m.captured(1).toInt(), m.captured(2).toInt(), m.captured(3).toInt());
    const QTime time(m.captured(4).toInt(), m.captured(5).toInt(), m.captured(6).toInt());
    if (!date.isValid() || !time.isValid())
        return std::nullopt;
    int offsetSeconds = 0;
    if (m.captured(7) != QLatin1String("Z")) {
        const int hours = m.captured(9).toInt();
        const int minutes = m.captured(10).toInt();
        if (hours > 23 || minutes > 59)
            return std::nullopt;
        offsetSeconds = (hours * 3600 + minutes * 60) * (m.captured(8) == QLatin1String("-") ? -1 : 1);
    }
    // The wall-clock time less its offset is the moment in UTC.
    return QDateTime(date, time, Qt::UTC).addSecs(-offsetSeconds);
}

QString format(const QDateTime& moment) {
    return moment.toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss")) + QLatin1Char('Z');
}

} // namespace iso8601
