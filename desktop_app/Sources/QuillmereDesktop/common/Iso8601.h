#pragma once

#include <QDateTime>
#include <QString>

#include <optional>

namespace iso8601 {

// Reads an internet date-time with a zone and no fractional seconds,
// "2026-01-31T09:30:00Z" or "2026-01-31T10:30:00+01:00". Anything else is refused,
// fractional seconds included, so that both ends agree on one exact form.
std::optional<QDateTime> parse(const QString& text);

// Writes the same form in UTC: "2026-01-31T09:30:00Z".
QString format(const QDateTime& moment);

} // namespace iso8601
