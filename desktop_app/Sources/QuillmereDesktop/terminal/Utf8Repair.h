#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

namespace utf8 {

// Decodes UTF-8; where the bytes are not valid UTF-8 (a character cut at a read boundary,
// binary output), each maximal invalid subpart becomes one U+FFFD, so a cut four-byte
// character reads as one replacement character, not three.
QString decodeWithRepair(QByteArrayView bytes);

// The same for a stream read in pieces: a character cut at the end of one read is held
// back and completed by the next, so only truly invalid bytes are replaced.
class StreamDecoder {
public:
    QString decode(QByteArrayView bytes);
    // Decodes whatever is held back at the end of the stream (a cut character: U+FFFD).
    QString finish();

private:
    QByteArray m_carry;
};

} // namespace utf8
