#include "QuillmereDesktop/terminal/Utf8Repair.h"

namespace utf8 {

namespace {

constexpr char16_t replacement = 0xFFFD;

// What a lead byte promises: the sequence's length and the range its second byte must
// fall in (the ranges exclude overlong forms, surrogates and values above U+10FFFF).
struct Lead {
    int length = 0; // 0: the byte cannot start a sequence
    uchar secondLow = 0x80;
    uchar secondHigh = 0xBF;
};

Lead leadOf(uchar byte) {
    if (byte >= 0xC2 && byte <= 0xDF)
        return {2};
    if (byte == 0xE0)
        return {3, 0xA0, 0xBF};
    if ((byte >= 0xE1 && byte <= 0xEC) || byte == 0xEE || byte == 0xEF)
        return {3};
    if (byte == 0xED)
        return {3, 0x80, 0x9F};
    if (byte == 0xF0)
        return {4, 0x90, 0xBF};
    if (byte >= 0xF1 && byte <= 0xF3)
        return {4};
    if (byte == 0xF4)
        return {4, 0x80, 0x8F};
    return {};
}

// How many bytes from `at` form a valid prefix of a sequence (lead included).
int validPrefix(QByteArrayView bytes, qsizetype at, const Lead& lead) {
    int taken = 1;
    while (taken < lead.length && at + taken < bytes.size()) {
        const uchar byte = uchar(bytes[at + taken]);
        const uchar low = taken == 1 ? lead.secondLow : 0x80;
        const uchar high = taken == 1 ? lead.secondHigh : 0xBF;
        if (byte < low || byte > high)
            break;
        ++taken;
    }
    return taken;
}

void appendCodePoint(QString& text, QByteArrayView bytes, qsizetype at, int length) {
    char32_t value = uchar(bytes[at]) & (0x7F >> length);
    for (int i = 1; i < length; ++i)
        value = (value << 6) | (uchar(bytes[at + i]) & 0x3F);
    if (value >= 0x10000) {
        text.append(QChar(QChar::highSurrogate(value)));
        text.append(QChar(QChar::lowSurrogate(value)));
    } else {
        text.append(QChar(char16_t(value)));
    }
}

QString decodeSlowly(QByteArrayView bytes) {
    QString text;
    text.reserve(bytes.size());
    qsizetype at = 0;
    while (at < bytes.size()) {
        const uchar byte = uchar(bytes[at]);
        if (byte < 0x80) {
            text.append(QChar(char16_t(byte)));
            ++at;
            continue;
        }
        const Lead lead = leadOf(byte);
        if (lead.length == 0) {
            text.append(QChar(replacement));
            ++at;
            continue;
        }
        const int taken = validPrefix(bytes, at, lead);
        if (taken == lead.length)
            appendCodePoint(text, bytes, at, lead.length);
        else
            text.append(QChar(replacement)); // one mark for the whole broken prefix
        at += taken;
    }
    return text;
}

// The length of a cut character at the very end of `bytes`, which the next read may complete.
qsizetype incompleteTail(QByteArrayView bytes) {
    for (qsizetype back = 1; back <= 3 && back <= bytes.size(); ++back) {
        const qsizetype at = bytes.size() - back;
        const Lead lead = leadOf(uchar(bytes[at]));
        if (lead.length == 0)
            continue; // a continuation byte (or an invalid one): look further back
        return (lead.length > back && validPrefix(bytes, at, lead) == back) ? back : 0;
    }
    return 0;
}

} // namespace

QString decodeWithRepair(QByteArrayView bytes) {
    // Valid text, the usual case, takes the fast road.
    if (bytes.isValidUtf8())
        return QString::fromUtf8(bytes);
    return decodeSlowly(bytes);
}

QString StreamDecoder::decode(QByteArrayView bytes) {
    QByteArray joined = m_carry + bytes.toByteArray();
    const qsizetype held = incompleteTail(joined);
    m_carry = joined.right(held);
    joined.chop(held);
    return decodeWithRepair(joined);
}

QString StreamDecoder::finish() {
    const QString rest = decodeWithRepair(m_carry);
    m_carry.clear();
    return rest;
}

} // namespace utf8
