#include "QuillmereDesktop/common/WireKeys.h"

namespace wire {

namespace {

// A capital starts a new word after a lower-case letter or a digit, and also at the last
// capital of an acronym that is followed by a lower-case letter ("URLString" -> "url_string").
bool startsWord(const QString& name, qsizetype i) {
    if (i == 0 || !name.at(i).isUpper())
        return false;
    const QChar previous = name.at(i - 1);
    if (previous.isLower() || previous.isDigit())
        return true;
    const bool nextIsLower = i + 1 < name.size() && name.at(i + 1).isLower();
    return previous.isUpper() && nextIsLower;
}

} // namespace

QString toSnakeCase(const QString& name) {
    QString snake;
    snake.reserve(name.size() + 4);
    for (qsizetype i = 0; i < name.size(); ++i) {
        if (startsWord(name, i))
            snake.append(QLatin1Char('_'));
        snake.append(name.at(i).toLower());
    }
    return snake;
}

} // namespace wire
