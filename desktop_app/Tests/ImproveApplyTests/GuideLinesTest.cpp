#include "ImproveApply/GuideMerge.h"

#include <gtest/gtest.h>

using namespace improve;
using GuideMerge::endOfSection;
using GuideMerge::headingLevel;
using GuideMerge::indexOfBlock;
using GuideMerge::indexOfHeading;
using GuideMerge::splitLines;

namespace {

QStringList lines(std::initializer_list<const char16_t*> items) {
    QStringList out;
    for (const char16_t* item : items)
        out << QString::fromUtf16(item);
    return out;
}

} // namespace

TEST(SplitLinesTest, DropsOnlyTheOneEmptyPieceOfAFinalNewline) {
    EXPECT_EQ(splitLines(QStringLiteral("a\n")), lines({u"a"}));
    EXPECT_EQ(splitLines(QStringLiteral("a\n\n")), lines({u"a", u""}));
    EXPECT_EQ(splitLines(QString()), QStringList());
    EXPECT_EQ(splitLines(QStringLiteral("\n")), lines({u""}));
    EXPECT_EQ(splitLines(QStringLiteral("a\nb")), lines({u"a", u"b"}));
}

TEST(SplitLinesTest, SplitsAtLineFeedOnly) {
    EXPECT_EQ(splitLines(QStringLiteral("a\r\nb\r\n")), lines({u"a\r", u"b\r"}));
    EXPECT_EQ(splitLines(QStringLiteral("a\u2028b\rc\n")), lines({u"a\u2028b\rc"}));
}

TEST(HeadingLevelTest, CountsTheHashRunBeforeNothingOrASpace) {
    EXPECT_EQ(headingLevel(u"#"), 1);
    EXPECT_EQ(headingLevel(u"## "), 2);
    EXPECT_EQ(headingLevel(u"## Rules"), 2);
    EXPECT_EQ(headingLevel(u"######"), 6);
    EXPECT_EQ(headingLevel(u"###  two spaces"), 3);
}

TEST(HeadingLevelTest, AnythingElseIsNoHeading) {
    EXPECT_EQ(headingLevel(u"##x"), 0);
    EXPECT_EQ(headingLevel(u"#######  x"), 0);
    EXPECT_EQ(headingLevel(u"#######"), 0);
    EXPECT_EQ(headingLevel(u"#\tx"), 0);
    EXPECT_EQ(headingLevel(u"#\u00A0x"), 0); // only U+0020 may follow the run
    EXPECT_EQ(headingLevel(u"Rules"), 0);
    EXPECT_EQ(headingLevel(u""), 0);
    EXPECT_EQ(headingLevel(u" # x"), 0); // callers trim first; the line is taken as given
}

TEST(HeadingLevelTest, CodeFencesAreNotRecognised) {
    const QStringList file = lines({u"## Rules", u"```", u"# comment", u"```"});
    EXPECT_EQ(headingLevel(file[2]), 1);
    EXPECT_EQ(endOfSection(0, file, u"## Rules"), 2);
}

TEST(IndexOfBlockTest, FindsTheFirstRunIgnoringIndentationAndTrailingBlanks) {
    const QStringList file = lines({u"# T", u"  - a\t", u"- b", u"- a", u"- b"});
    EXPECT_EQ(indexOfBlock(lines({u"- a", u"  - b \u00A0"}), file), 1);
    EXPECT_EQ(indexOfBlock(lines({u"- b"}), file), 2);
    EXPECT_EQ(indexOfBlock(lines({u"- c"}), file), std::nullopt);
}

TEST(IndexOfBlockTest, EmptyAndOverlongBlocksAreNeverFound) {
    EXPECT_EQ(indexOfBlock({}, lines({u"a"})), std::nullopt);
    EXPECT_EQ(indexOfBlock({}, {}), std::nullopt);
    EXPECT_EQ(indexOfBlock(lines({u"a", u"a"}), lines({u"a"})), std::nullopt);
}

TEST(IndexOfBlockTest, BlankLinesMustMeetBlankLines) {
    const QStringList file = lines({u"- a", u"- x", u"- b", u"- a", u" \t", u"- b"});
    EXPECT_EQ(indexOfBlock(lines({u"- a", u"", u"- b"}), file), 3);
    EXPECT_EQ(indexOfBlock(lines({u"- a", u"- b"}), file), std::nullopt);
}

TEST(IndexOfBlockTest, ComparesUnderCanonicalEquivalence) {
    const QStringList file = lines({u"- caf\u00E9 au lait"});
    EXPECT_EQ(indexOfBlock(lines({u"- cafe\u0301 au lait"}), file), 0);
}

TEST(IndexOfBlockTest, ACarriageReturnIsPartOfItsLine) {
    EXPECT_EQ(indexOfBlock(lines({u"- a"}), lines({u"- a\r"})), std::nullopt);
}

TEST(IndexOfBlockTest, TheLastPossibleStartIsSearched) {
    EXPECT_EQ(indexOfBlock(lines({u"b", u"c"}), lines({u"a", u"b", u"c"})), 1);
    EXPECT_EQ(indexOfBlock(lines({u"a", u"b"}), lines({u"a", u"b"})), 0);
}

TEST(IndexOfHeadingTest, MatchesTheWholeTrimmedLineExactly) {
    const QStringList file = lines({u"# T", u"\u3000## Rules \t", u"## rules", u"## Rules"});
    EXPECT_EQ(indexOfHeading(u"## Rules", file), 1);
    EXPECT_EQ(indexOfHeading(u"## rules", file), 2);
    EXPECT_EQ(indexOfHeading(u"Rules", file), std::nullopt); // the marks are part of the line
    EXPECT_EQ(indexOfHeading(u"### Rules", file), std::nullopt);
}

TEST(IndexOfHeadingTest, EmptyHeadingOrEmptyListIsNeverFound) {
    EXPECT_EQ(indexOfHeading(u"", lines({u"", u"x"})), std::nullopt);
    EXPECT_EQ(indexOfHeading(u"## Rules", {}), std::nullopt);
}

TEST(IndexOfHeadingTest, ComparesUnderCanonicalEquivalence) {
    EXPECT_EQ(indexOfHeading(u"## Re\u0301sume\u0301", lines({u"x", u"## R\u00E9sum\u00E9"})), 1);
}

TEST(EndOfSectionTest, EndsAtTheNextHeadingOfTheSameOrHigherLevel) {
    const QStringList file = lines({u"# T", u"## Rules", u"- a", u"### Sub", u"- s", u"## Next", u"- b"});
    EXPECT_EQ(endOfSection(1, file, u"## Rules"), 5);
    EXPECT_EQ(endOfSection(0, file, u"# T"), file.size());
    EXPECT_EQ(endOfSection(3, file, u"### Sub"), 5);
}

TEST(EndOfSectionTest, TheLevelComesFromTheSectionStringNotTheFileLine) {
    const QStringList file = lines({u"## Rules", u"- a", u"## Next", u"# Top"});
    EXPECT_EQ(endOfSection(0, file, u"Rules"), file.size());
    EXPECT_EQ(endOfSection(0, file, u"# Rules"), 3);
}

TEST(EndOfSectionTest, IndentedHeadingsCountAndNonHeadingsDoNot) {
    const QStringList file = lines({u"## Rules", u"##x", u"#######  x", u"\t## Next"});
    EXPECT_EQ(endOfSection(0, file, u"## Rules"), 3);
}
