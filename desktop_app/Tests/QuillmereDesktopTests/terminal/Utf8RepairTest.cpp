#include "QuillmereDesktop/terminal/Utf8Repair.h"

#include <gtest/gtest.h>

#include <QRandomGenerator>

namespace {

QString repaired(const QByteArray& bytes) {
    return utf8::decodeWithRepair(bytes);
}

const QString mark = QString(QChar(0xFFFD));

} // namespace

TEST(Utf8Repair, ValidTextIsDecodedAsItIs) {
    EXPECT_EQ(repaired(""), "");
    EXPECT_EQ(repaired("plain \x1b[0m\r\n"), "plain \x1b[0m\r\n");
    EXPECT_EQ(repaired("caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80"),
              QString::fromUtf8("caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80"));
    EXPECT_EQ(repaired(QByteArray("a\0b", 3)), QStringView(u"a\0b", 3).toString());
}

TEST(Utf8Repair, ACutCharacterIsOneMarkPerSide) {
    const QByteArray grin = "\xf0\x9f\x98\x80";
    EXPECT_EQ(repaired(grin.left(3)), mark);
    EXPECT_EQ(repaired(grin.left(1) + "x"), mark + "x");
    // Continuation bytes without their lead are each invalid on their own.
    EXPECT_EQ(repaired(grin.mid(1)), mark + mark + mark);
    EXPECT_EQ(repaired("\xe4\xb8"), mark);
}

TEST(Utf8Repair, ForbiddenFormsAreReplacedByteByByteWhereNoPrefixIsValid) {
    // Overlong forms, surrogates and values above U+10FFFF never start a valid prefix.
    EXPECT_EQ(repaired("\xc0\x80"), mark + mark);
    EXPECT_EQ(repaired("\xe0\x80\x80"), mark + mark + mark);
    EXPECT_EQ(repaired("\xed\xa0\x80"), mark + mark + mark);
    EXPECT_EQ(repaired("\xf4\x90\x80\x80"), mark + mark + mark + mark);
    EXPECT_EQ(repaired("\xf5\xff"), mark + mark);
    // The highest code point and the last before the surrogates are fine.
    EXPECT_EQ(repaired("\xf4\x8f\xbf\xbf"), QString::fromUcs4(U"\U0010FFFF"));
    EXPECT_EQ(repaired("\xed\x9f\xbf"), QString(QChar(0xD7FF)));
}

TEST(Utf8Repair, AValidPrefixFollowedByAnotherCharacterKeepsTheCharacter) {
    EXPECT_EQ(repaired("\xe4\xb8"
                       "a"),
              mark + "a");
    EXPECT_EQ(repaired("\xf0\x9f\x98\xc3\xa9"), mark + QString::fromUtf8("\xc3\xa9"));
}

TEST(Utf8StreamDecoder, ACharacterCutBetweenReadsIsJoined) {
    utf8::StreamDecoder decoder;
    const QByteArray grin = "\xf0\x9f\x98\x80";
    EXPECT_EQ(decoder.decode("a" + grin.left(1)), "a");
    EXPECT_EQ(decoder.decode(grin.mid(1, 2)), "");
    EXPECT_EQ(decoder.decode(grin.mid(3) + "b"), QString::fromUtf8(grin) + "b");
    EXPECT_EQ(decoder.finish(), "");
}

TEST(Utf8StreamDecoder, WhatIsLeftAtTheEndIsAMark) {
    utf8::StreamDecoder decoder;
    EXPECT_EQ(decoder.decode("x\xe4\xb8"), "x");
    EXPECT_EQ(decoder.finish(), mark);
    EXPECT_EQ(decoder.finish(), "");
}

TEST(Utf8StreamDecoder, InvalidBytesAreNotHeldBack) {
    utf8::StreamDecoder decoder;
    EXPECT_EQ(decoder.decode("a\x80"), "a" + mark);
    EXPECT_EQ(decoder.decode("\xc0"), mark);
    EXPECT_EQ(decoder.decode("\xe0\x80"), mark + mark);
}

// Reading a stream in any pieces gives the same text as reading it whole.
TEST(Utf8StreamDecoder, AnySplitGivesTheWholeDecoding) {
    QRandomGenerator random(7);
    const QByteArray alphabet =
        QByteArray("ab\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80\x80\xc0\xed\xa0\xf4\x90\xff");
    for (int round = 0; round < 500; ++round) {
        QByteArray bytes;
        const int length = random.bounded(1, 24);
        for (int i = 0; i < length; ++i)
            bytes.append(alphabet[random.bounded(int(alphabet.size()))]);
        const QString whole = utf8::decodeWithRepair(bytes);
        for (qsizetype cut = 0; cut <= bytes.size(); ++cut) {
            utf8::StreamDecoder decoder;
            QString pieces = decoder.decode(bytes.left(cut));
            pieces += decoder.decode(bytes.mid(cut));
            pieces += decoder.finish();
            ASSERT_EQ(pieces, whole) << bytes.toHex().constData() << " cut at " << cut;
        }
    }
}
