#include "QuillmereDesktop/shell/Formatting.h"

namespace formatting {

QString duration(qint64 seconds) {
    seconds = std::max<qint64>(seconds, 0);
    if (seconds < 60)
        return QStringLiteral("%1s").arg(seconds);
    if (seconds < 3600)
        return QStringLiteral("%1m").arg(seconds / 60);
    return QStringLiteral("%1h %2m").arg(seconds / 3600).arg((seconds % 3600) / 60);
}

QString counted(qint64 count, const QString& singular) {
    return QStringLiteral("%1 %2%3").arg(count).arg(singular, count == 1 ? QString() : QStringLiteral("s"));
}

QString deadline(const QDateTime& moment, const QLocale& locale) {
    const QDateTime local = moment.toLocalTime();
    // The locale's long time format names the zone; a deadline on screen does not need it.
    QString timeFormat = locale.timeFormat(QLocale::LongFormat);
    timeFormat.remove(QLatin1Char('t'));
    return locale.toString(local.date(), QLocale::ShortFormat) + QLatin1Char(' ') +
           locale.toString(local.time(), timeFormat.trimmed());
}

} // namespace formatting
