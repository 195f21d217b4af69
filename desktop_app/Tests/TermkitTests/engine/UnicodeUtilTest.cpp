#include "Termkit/engine/UnicodeUtil.h"

#include <gtest/gtest.h>
#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <memory>
#include <random>

namespace termkit {
namespace {

TEST(UnicodeUtilTest, WidthRules) {
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0), 0);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x07), -1);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x7F), -1);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x9F), -1);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth('A'), 1);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0xA0), 1);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x0301), 0);  // nonspacing mark
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x0903), 0);  // spacing mark
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x20DD), 0);  // enclosing mark
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x1F3FB), 0); // skin tone
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0xFF3E), 2);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0xFFE3), 2);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0xFF40), 2);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x02C2), 1); // another modifier symbol
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x2028), 0); // line separator
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x2029), 0); // paragraph separator
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x200B), 0); // format
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0xAD), 1);   // soft hyphen
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x1160), 0); // conjoining jamo
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0xD7B0), 0);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x1F1E6), 2); // regional indicator
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x4E16), 2);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x1F600), 2);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x2764), 1);
    EXPECT_EQ(UnicodeUtil::computeColumnWidth(0x231A), 2);
}

TEST(UnicodeUtilTest, PackedTableAgreesWithTheRulesForEveryScalar) {
    for (char32_t c = 0; c <= 0x10FFFF; ++c) {
        ASSERT_EQ(UnicodeUtil::width(c), UnicodeUtil::computeColumnWidth(c))
            << std::hex << static_cast<uint32_t>(c);
    }
}

TEST(UnicodeUtilTest, LowPlaneTableAgreesWithTheRules) {
    const auto& widths = UnicodeUtil::lowPlaneWidths();
    EXPECT_EQ(widths.size(), 8192u);
    for (char32_t c = 0; c < 8192; ++c)
        ASSERT_EQ(widths[c], UnicodeUtil::computeColumnWidth(c)) << static_cast<uint32_t>(c);
}

TEST(UnicodeUtilTest, WideRangesAreSortedAndSearchable) {
    const auto& ranges = UnicodeUtil::eastAsianWideRanges();
    ASSERT_GT(ranges.size(), 50u);
    for (size_t i = 1; i < ranges.size(); ++i)
        EXPECT_LT(ranges[i - 1].hi + 1, ranges[i].lo);
    const int max = static_cast<int>(ranges.size()) - 1;
    EXPECT_TRUE(UnicodeUtil::bisearch(0x4E16, ranges.data(), max));
    EXPECT_TRUE(UnicodeUtil::bisearch(0x1100, ranges.data(), max));
    EXPECT_FALSE(UnicodeUtil::bisearch('A', ranges.data(), max));
    EXPECT_FALSE(UnicodeUtil::bisearch(0x10FFFF, ranges.data(), max));
}

TEST(UnicodeUtilTest, JoiningAndEmojiProperties) {
    EXPECT_TRUE(UnicodeUtil::info(0x0301) & UnicodeUtil::kJoins);
    EXPECT_TRUE(UnicodeUtil::info(0x200D) & UnicodeUtil::kJoins);
    EXPECT_TRUE(UnicodeUtil::info(0xFE0F) & UnicodeUtil::kJoins);
    EXPECT_TRUE(UnicodeUtil::info(0xE0100) & UnicodeUtil::kJoins);
    EXPECT_TRUE(UnicodeUtil::info(0x180B) & UnicodeUtil::kJoins);
    EXPECT_TRUE(UnicodeUtil::info(0x1F3FD) & UnicodeUtil::kJoins);
    EXPECT_FALSE(UnicodeUtil::info('a') & UnicodeUtil::kJoins);
    EXPECT_FALSE(UnicodeUtil::info(0x4E16) & UnicodeUtil::kJoins);
    EXPECT_TRUE(UnicodeUtil::isEmojiVariationBase(0x2764));
    EXPECT_TRUE(UnicodeUtil::isEmojiVariationBase(0x231A));
    EXPECT_FALSE(UnicodeUtil::isEmojiVariationBase('a'));
    EXPECT_FALSE(UnicodeUtil::isEmojiVariationBase(0x1F3FB));
    EXPECT_TRUE(UnicodeUtil::prefersTextPresentation(0x2764));
    EXPECT_FALSE(UnicodeUtil::prefersTextPresentation(0x1F600));
    EXPECT_EQ(UnicodeUtil::textPresentationAdjusted(0x2764, 2), 1);
    EXPECT_EQ(UnicodeUtil::textPresentationAdjusted(0x1F600, 2), 2);
}

TEST(UnicodeUtilTest, PlainWidthAgreesWithTheFullPropertiesAcrossTheBasicPlane) {
    // Printable ASCII is known before any block is built.
    EXPECT_EQ(UnicodeUtil::plainWidth('~'), 1u);
    for (char32_t c = 0; c < 0x10000; ++c) {
        const uint8_t info = UnicodeUtil::info(c);
        const int width = (info & UnicodeUtil::kWidthMask) - 1;
        const bool surrogate = c >= 0xD800 && c <= 0xDFFF;
        const bool plain =
            width > 0 && (info & (UnicodeUtil::kJoins | UnicodeUtil::kRegionalIndicator)) == 0 && !surrogate;
        ASSERT_EQ(UnicodeUtil::plainWidth(c), plain ? static_cast<unsigned>(width) : 0u)
            << std::hex << static_cast<uint32_t>(c);
    }
    EXPECT_EQ(UnicodeUtil::plainWidth('a'), 1u);
    EXPECT_EQ(UnicodeUtil::plainWidth(0x0416), 1u);
    EXPECT_EQ(UnicodeUtil::plainWidth(0x4E16), 2u);
    EXPECT_EQ(UnicodeUtil::plainWidth(0x0301), 0u);
    EXPECT_EQ(UnicodeUtil::plainWidth(0x200D), 0u);
    EXPECT_EQ(UnicodeUtil::plainWidth(0x7F), 0u);
    EXPECT_EQ(UnicodeUtil::plainWidth(0xD800), 0u);
}

// Whether ICU's own grapheme iterator keeps a scalar sequence in one cluster.
bool icuSingleCluster(const std::u32string& s) {
    UErrorCode status = U_ZERO_ERROR;
    static std::unique_ptr<icu::BreakIterator> it(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    const icu::UnicodeString text = icu::UnicodeString::fromUTF32(reinterpret_cast<const UChar32*>(s.data()),
                                                                  static_cast<int32_t>(s.size()));
    it->setText(text);
    it->first();
    return it->next() == text.length();
}

TEST(UnicodeUtilTest, ClusterContinuationAgreesWithIcuOnRandomSequences) {
    // Scalars from every grapheme break class, including pictographs, joiners and indicators.
    const std::u32string pool = {U'a',   U'\r',   U'\n',   0x07,    0x0301,  0x0903, 0x200D,
                                 0xFE0F, 0x1F3FB, 0x1F1E6, 0x1F1E9, 0x1F468, 0x2764, 0x1100,
                                 0x1161, 0x11A8,  0xAC00,  0xAC01,  0x0600,  0x4E16, 0x0E33};
    std::mt19937 rng(42);
    for (int trial = 0; trial < 20000; ++trial) {
        std::u32string seq;
        const int n = 1 + static_cast<int>(rng() % 5);
        for (int i = 0; i < n; ++i)
            seq.push_back(pool[rng() % pool.size()]);
        if (!icuSingleCluster(seq))
            continue; // the stored cluster is always one cluster
        const char32_t next = pool[rng() % pool.size()];
        std::u32string joined = seq;
        joined.push_back(next);
        EXPECT_EQ(UnicodeUtil::continuesCluster(seq.data(), static_cast<int>(seq.size()), next),
                  icuSingleCluster(joined))
            << "trial " << trial;
    }
}

} // namespace
} // namespace termkit
