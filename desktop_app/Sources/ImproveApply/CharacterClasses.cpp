#include "ImproveApply/CharacterClasses.h"

#include <QChar>

namespace improve::text {
namespace {

// Every member of the three classes lies in the Basic Multilingual Plane and none is a
// surrogate, so testing UTF-16 code units one by one gives the same answer as decoding
// code points first: a surrogate half is never a member.
template <class Predicate> QStringView trimBy(QStringView s, Predicate isMember) {
    qsizetype begin = 0;
    qsizetype end = s.size();
    while (begin < end && isMember(s[begin].unicode()))
        ++begin;
    while (end > begin && isMember(s[end - 1].unicode()))
        --end;
    return s.sliced(begin, end - begin);
}

bool allBelowNormalizationSensitive(QStringView s) {
    for (QChar c : s) {
        if (c.unicode() >= kFirstNormalizationSensitive)
            return false;
    }
    return true;
}

} // namespace

bool isHorizontalSpace(char32_t c) {
    if (c < 0x80)
        return c == 0x20 || c == 0x09;
    return QChar::category(c) == QChar::Separator_Space;
}

bool isNewline(char32_t c) {
    return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

bool isWhiteSpace(char32_t c) {
    return isHorizontalSpace(c) || isNewline(c);
}

QStringView trimHorizontal(QStringView s) {
    return trimBy(s, isHorizontalSpace);
}

QStringView trimNewlines(QStringView s) {
    return trimBy(s, isNewline);
}

QStringView trimWhiteSpace(QStringView s) {
    return trimBy(s, isWhiteSpace);
}

bool isBlank(QStringView line) {
    return trimHorizontal(line).isEmpty();
}

bool sameText(QStringView a, QStringView b) {
    if (a == b)
        return true;
    // Guide files are mostly ASCII: skip the costly normalisation when neither side
    // holds a character that normalisation could change.
    if (allBelowNormalizationSensitive(a) && allBelowNormalizationSensitive(b))
        return false;
    return a.toString().normalized(QString::NormalizationForm_C) ==
           b.toString().normalized(QString::NormalizationForm_C);
}

} // namespace improve::text
