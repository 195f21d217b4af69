#pragma once

#include <QDateTime>
#include <QLocale>
#include <QString>

namespace formatting {

// An age in whole seconds: "42s" under a minute, "7m" under an hour, else "1h 5m".
// A negative age, from a clock that runs behind, reads as "0s".
QString duration(qint64 seconds);

// "<n> <word>" with the English plural: "1 approval", "2 approvals".
QString counted(qint64 count, const QString& singular);

// A deadline as an abbreviated date and a time with seconds, in the person's locale.
QString deadline(const QDateTime& moment, const QLocale& locale = QLocale());

} // namespace formatting
