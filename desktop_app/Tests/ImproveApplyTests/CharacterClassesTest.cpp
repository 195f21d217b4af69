#include "ImproveApply/CharacterClasses.h"

#include <gtest/gtest.h>
#include <unicode/uchar.h>
#include <unicode/unorm2.h>

using namespace improve;

namespace {

constexpr char32_t kLastCodePoint = 0x10FFFF;

QString fromCodePoint(char32_t c) {
    return QString::fromUcs4(&c, 1);
}

} // namespace

// Compared against ICU's own category data over the whole code space, planes beyond the
// first included, so no Zs character can be missing from the horizontal class.
TEST(CharacterClassesTest, HorizontalClassIsTabPlusEveryZsCharacter) {
    int zsCount = 0;
    for (char32_t c = 0; c <= kLastCodePoint; ++c) {
        const bool isZs = u_charType(UChar32(c)) == U_SPACE_SEPARATOR;
        zsCount += isZs ? 1 : 0;
        ASSERT_EQ(text::isHorizontalSpace(c), isZs || c == 0x09) << std::hex << uint32_t(c);
    }
    EXPECT_EQ(zsCount, 17); // U+0020, U+00A0, U+1680, U+2000..U+200A, U+202F, U+205F, U+3000
}

TEST(CharacterClassesTest, NoZsCharacterLiesOutsideTheBasicPlane) {
    // Trimming tests UTF-16 code units one by one, which is only right while this holds.
    for (char32_t c = 0x10000; c <= kLastCodePoint; ++c)
        ASSERT_NE(u_charType(UChar32(c)), U_SPACE_SEPARATOR) << std::hex << uint32_t(c);
}

TEST(CharacterClassesTest, NewlineClassIsExactlyTheLineEndingCharacters) {
    const std::u32string expected = U"\u000A\u000B\u000C\u000D\u0085\u2028\u2029";
    for (char32_t c = 0; c <= kLastCodePoint; ++c) {
        const bool member = expected.find(c) != std::u32string::npos;
        ASSERT_EQ(text::isNewline(c), member) << std::hex << uint32_t(c);
    }
}

TEST(CharacterClassesTest, WhiteSpaceIsTheUnionOfBothClasses) {
    for (char32_t c = 0; c <= 0x3000; ++c)
        ASSERT_EQ(text::isWhiteSpace(c), text::isHorizontalSpace(c) || text::isNewline(c));
    EXPECT_TRUE(text::isWhiteSpace(U'\u2029'));
    EXPECT_TRUE(text::isWhiteSpace(U'\u3000'));
    EXPECT_FALSE(text::isWhiteSpace(U'\uFEFF')); // a byte-order mark is format, not space
    EXPECT_FALSE(text::isWhiteSpace(U'\u200B')); // zero width space is format too
}

TEST(CharacterClassesTest, TrimmingTakesOnlyTheEnds) {
    const QString s = QStringLiteral("\u00A0\t a \u3000b\u2003\t");
    EXPECT_EQ(text::trimHorizontal(s), QStringLiteral("a \u3000b"));
    EXPECT_EQ(text::trimNewlines(QStringLiteral("\r\n\u2028 x \n\u0085")), QStringLiteral(" x "));
    EXPECT_EQ(text::trimWhiteSpace(QStringLiteral("\n \t\u2029x\u00A0\r")), QStringLiteral("x"));
}

TEST(CharacterClassesTest, EachTrimLeavesTheOtherClassAlone) {
    EXPECT_EQ(text::trimHorizontal(QStringLiteral("\r- a\r")), QStringLiteral("\r- a\r"));
    EXPECT_EQ(text::trimNewlines(QStringLiteral("  - a\t")), QStringLiteral("  - a\t"));
}

TEST(CharacterClassesTest, BlankLinesHoldOnlyHorizontalSpace) {
    EXPECT_TRUE(text::isBlank(QString()));
    EXPECT_TRUE(text::isBlank(QStringLiteral(" \t\u00A0\u202F")));
    EXPECT_FALSE(text::isBlank(QStringLiteral("\r"))); // a carriage return stays on its line
    EXPECT_FALSE(text::isBlank(QStringLiteral(" x ")));
}

TEST(CharacterClassesTest, CanonicallyEquivalentTextIsTheSame) {
    EXPECT_TRUE(text::sameText(QStringLiteral("caf\u00E9"), QStringLiteral("cafe\u0301")));
    // Marks of different combining classes are put in canonical order before comparing.
    EXPECT_TRUE(text::sameText(QStringLiteral("a\u0323\u0301"), QStringLiteral("a\u0301\u0323")));
    EXPECT_TRUE(text::sameText(QStringLiteral("\u212B"), QStringLiteral("\u00C5"))); // angstrom sign
    EXPECT_TRUE(text::sameText(QStringLiteral("\uD55C"), QStringLiteral("\u1112\u1161\u11AB"))); // Hangul
}

TEST(CharacterClassesTest, CompatibilityEquivalentTextIsNotTheSame) {
    EXPECT_FALSE(text::sameText(QStringLiteral("\uFB01"), QStringLiteral("fi")));
    EXPECT_FALSE(text::sameText(QStringLiteral("Rules"), QStringLiteral("rules")));
    EXPECT_FALSE(text::sameText(QStringLiteral("caf\u00E9"), QStringLiteral("cafe")));
}

// The shortcut in sameText assumes that nothing below the threshold is changed by NFC or
// combines with a neighbour; ICU's quick-check data confirms it for every such code point.
TEST(CharacterClassesTest, NormalisationShortcutThresholdIsSafe) {
    for (char32_t c = 0; c < text::kFirstNormalizationSensitive; ++c) {
        ASSERT_EQ(u_getIntPropertyValue(UChar32(c), UCHAR_NFC_QUICK_CHECK), UNORM_YES) << uint32_t(c);
        ASSERT_EQ(u_getCombiningClass(UChar32(c)), 0) << uint32_t(c);
        ASSERT_EQ(fromCodePoint(c).normalized(QString::NormalizationForm_C), fromCodePoint(c));
    }
    EXPECT_NE(u_getCombiningClass(UChar32(text::kFirstNormalizationSensitive)), 0);
}
