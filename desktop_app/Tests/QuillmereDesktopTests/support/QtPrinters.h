#pragma once

// Lets GoogleTest print Qt values in failure messages.

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <ostream>

inline void PrintTo(const QString& value, std::ostream* out) {
    *out << '"' << value.toStdString() << '"';
}

inline void PrintTo(const QByteArray& value, std::ostream* out) {
    *out << value.toStdString();
}

inline void PrintTo(const QDateTime& value, std::ostream* out) {
    *out << value.toString(Qt::ISODate).toStdString();
}
