#include "Termkit/search/SearchService.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <random>

#include "Termkit/engine/Terminal.h"
#include "Termkit/selection/SelectionService.h"

namespace termkit {
namespace {

class Discard : public TerminalDelegate {
public:
    void send(Terminal&, std::span<const uint8_t>) override {}
};

TerminalOptions sized(int cols, int rows, int scrollback = 1000) {
    TerminalOptions o;
    o.cols = cols;
    o.rows = rows;
    o.scrollback = scrollback;
    return o;
}

std::vector<uint8_t> session(const std::string& name) {
    std::ifstream in(std::string(TERMKIT_TEST_DATA) + "/sessions/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The text a result covers, read back through a selection of its cells.
std::string textOf(const Terminal& t, const SearchResult& r) {
    SelectionService s(t);
    const SearchSelection sel = selectionOf(r, t.cols());
    s.setSelection(sel.start, sel.end);
    return s.getSelectedText();
}

TEST(SearchServiceTest, WholeWordSkipsPartsOfWordsAndAcceptsPunctuation) {
    Discard host;
    Terminal t(&host, sized(40, 3));
    t.feed("concat (cat) cats");
    SearchService search(t);
    SearchOptions whole;
    whole.wholeWord = true;
    const auto all = search.findAll("cat", whole);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].col, Col(8));
    EXPECT_EQ(search.findAll("cat", {}).size(), 3u);
}

TEST(SearchServiceTest, CaseInsensitiveAcrossAWrapStartsInTheFirstRow) {
    Discard host;
    Terminal t(&host, sized(10, 4));
    t.feed("xxxxxxxHELLO world");
    SearchService search(t);
    const auto r = search.findNext("hello");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->row, LineIndex(0));
    EXPECT_EQ(r->col, Col(7));
    EXPECT_EQ(r->size, 5);
    EXPECT_EQ(textOf(t, *r), "HELLO");
    SearchOptions exact;
    exact.caseSensitive = true;
    EXPECT_FALSE(search.findNext("hello", exact));
}

TEST(SearchServiceTest, AWideCharacterBeforeAMatchKeepsTheColumn) {
    Discard host;
    Terminal t(&host, sized(20, 3));
    t.feed("\xe4\xb8\x96\xe7\x95\x8c needle"); // 世界 needle
    SearchService search(t);
    const auto r = search.findNext("needle");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->col, Col(5));
    EXPECT_EQ(r->size, 6);
}

TEST(SearchServiceTest, FindNextPastTheLastMatchGoesBackToTheFirst) {
    Discard host;
    Terminal t(&host, sized(20, 4));
    t.feed("one\r\ntwo one\r\nthree");
    SearchService search(t);
    auto r = search.findNext("one");
    ASSERT_TRUE(r);
    EXPECT_EQ(std::pair(r->row, r->col), std::pair(LineIndex(0), Col(0)));
    r = search.findNext("one");
    EXPECT_EQ(std::pair(r->row, r->col), std::pair(LineIndex(1), Col(4)));
    r = search.findNext("one");
    EXPECT_EQ(std::pair(r->row, r->col), std::pair(LineIndex(0), Col(0)));
    // Backward from the first wraps to the last.
    r = search.findPrevious("one");
    EXPECT_EQ(std::pair(r->row, r->col), std::pair(LineIndex(1), Col(4)));
    r = search.findPrevious("one");
    EXPECT_EQ(std::pair(r->row, r->col), std::pair(LineIndex(0), Col(0)));
}

TEST(SearchServiceTest, ABadPatternFindsNothingAndAnEmptyTermNothingEither) {
    Discard host;
    Terminal t(&host, sized(20, 3));
    t.feed("a(b");
    SearchService search(t);
    SearchOptions regex;
    regex.regex = true;
    EXPECT_FALSE(search.findNext("(", regex));
    EXPECT_TRUE(search.findNext("\\(", regex));
    EXPECT_FALSE(search.findNext("", {}));
}

TEST(SearchServiceTest, RegexHonoursCaseAndWholeWord) {
    Discard host;
    Terminal t(&host, sized(40, 3));
    t.feed("Error: error42 ERROR errors");
    SearchService search(t);
    SearchOptions o;
    o.regex = true;
    EXPECT_EQ(search.findAll("error\\d*", o).size(), 4u);
    o.caseSensitive = true;
    EXPECT_EQ(search.findAll("error\\d*", o).size(), 2u);
    o.caseSensitive = false;
    o.wholeWord = true;
    EXPECT_EQ(search.findAll("error\\d*", o).size(), 3u);
}

TEST(SearchServiceTest, TheCacheFollowsChangedLinesAndKeepsTheRest) {
    Discard host;
    Terminal t(&host, sized(20, 5, 100));
    for (int i = 0; i < 40; ++i)
        t.feed("line " + std::to_string(i) + " alpha\r\n");
    SearchService search(t);
    EXPECT_EQ(search.findAll("alpha").size(), 40u);
    const uint64_t cold = search.lineCache().translations();
    EXPECT_EQ(search.findAll("alpha").size(), 40u);
    EXPECT_EQ(search.lineCache().translations(), cold);
    // One line changes: only it (and the new one) are read again.
    t.feed("beta alpha\r\n");
    EXPECT_EQ(search.findAll("alpha").size(), 41u);
    EXPECT_LE(search.lineCache().translations() - cold, 3u);
    // An erased line is not found any more.
    t.feed("\x1b[2J");
    EXPECT_EQ(search.findAll("alpha").size(), 37u); // the four on the screen are gone
}

TEST(SearchServiceTest, ACacheSurvivesAFullRingScrolling) {
    Discard host;
    Terminal t(&host, sized(20, 5, 20));
    for (int i = 0; i < 60; ++i)
        t.feed("row " + std::to_string(i) + "\r\n");
    SearchService search(t);
    auto all = search.findAll("row");
    ASSERT_EQ(all.size(), 24u);
    const uint64_t cold = search.lineCache().translations();
    t.feed("row 60\r\n");
    all = search.findAll("row");
    ASSERT_EQ(all.size(), 24u);
    EXPECT_EQ(textOf(t, all.back()), "row");
    EXPECT_LE(search.lineCache().translations() - cold, 3u);
    // The oldest kept is now row 37; the results follow the ring.
    SelectionService s(t);
    s.setSelection({Col(0), all.front().row}, {Col(6), all.front().row});
    EXPECT_EQ(s.getSelectedText(), "row 37");
}

TEST(SearchServiceTest, RepeatedFindAllSeesScrollbackBroughtBackAndChanged) {
    Discard host;
    Terminal t(&host, sized(20, 4, 100));
    for (int i = 0; i < 12; ++i)
        t.feed("gamma " + std::to_string(i) + "\r\n");
    SearchService search(t);
    EXPECT_EQ(search.findAll("gamma").size(), 12u);
    // Taller: scrollback comes back onto the screen, where a program may overwrite it.
    t.resize(20, 10);
    t.feed("\x1b[1;1Hdelta\x1b[K");
    EXPECT_EQ(search.findAll("gamma").size(), 11u);
    EXPECT_EQ(search.findAll("delta").size(), 1u);
    // Clearing the scrollback leaves only what the screen shows: as many as the buffer's
    // plain text holds.
    t.feed("\x1b[3J");
    const std::vector<uint8_t> data = t.getBufferAsData();
    const std::string text(data.begin(), data.end());
    size_t inText = 0;
    for (size_t at = text.find("gamma"); at != std::string::npos; at = text.find("gamma", at + 1))
        ++inText;
    EXPECT_LT(inText, 11u);
    EXPECT_EQ(search.findAll("gamma").size(), inText);
}

// --- Lines passed over by their cells ----------------------------------------------------------

TEST(SearchServiceTest, AColdSearchMakesTextOnlyForLinesThatMayHoldAMatch) {
    Discard host;
    Terminal t(&host, sized(30, 5, 200));
    for (int i = 0; i < 100; ++i)
        t.feed(i % 25 == 7 ? "a line with latency\r\n"
                           : "a line of other words " + std::to_string(i) + "\r\n");
    SearchService search(t);
    EXPECT_EQ(search.findAll("LATENCY").size(), 4u);
    EXPECT_EQ(search.lineCache().translations(), 4u);
    SearchOptions regex;
    regex.regex = true;
    EXPECT_EQ(search.findAll("lat[a-z]+cy", regex).size(), 4u);
    EXPECT_EQ(search.lineCache().translations(), 4u); // the same four lines' text, kept
    // A term the cells hold but only as part of a word: the text decides.
    SearchOptions whole;
    whole.wholeWord = true;
    EXPECT_EQ(search.findAll("ate", whole).size(), 0u);
    EXPECT_EQ(search.findAll("ate").size(), 4u);
}

TEST(SearchServiceTest, LettersThatFoldToAsciiAreFoundWithoutTheirTextMadeFirst) {
    Discard host;
    Terminal t(&host, sized(40, 4));
    // KELVIN SIGN and LONG S fold to k and s: a search for "kiss" finds "Kiſs".
    t.feed("plain words\r\n\xe2\x84\xaai\xc5\xbfs here\r\nmore plain words");
    SearchService search(t);
    const auto all = search.findAll("KISS");
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].row, LineIndex(1));
    EXPECT_EQ(all[0].col, Col(0));
    EXPECT_EQ(all[0].size, 4);
    SearchOptions exact;
    exact.caseSensitive = true;
    EXPECT_TRUE(search.findAll("kiss", exact).empty());
    // A pattern without case goes by the matcher's folding, which knows them too.
    SearchOptions regex;
    regex.regex = true;
    EXPECT_EQ(search.findAll("ki[a-z]s", regex).size(), 1u);
}

TEST(SearchServiceTest, AClusterWhoseTextStartsWithTheTermIsFound) {
    Discard host;
    Terminal t(&host, sized(40, 4));
    // "cafe" with a combining acute on the e: one cell holds "e\u0301", and the text holds "cafe".
    t.feed("x\r\ncafe\xcc\x81 au lait\r\ny");
    SearchService search(t);
    const auto all = search.findAll("cafe");
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].row, LineIndex(1));
    EXPECT_EQ(all[0].col, Col(0));
    SearchOptions regex;
    regex.regex = true;
    EXPECT_EQ(search.findAll("caf.", regex).size(), 1u);
}

TEST(SearchServiceTest, PatternsWhoseStartIsNotFixedStillFindEveryMatch) {
    Discard host;
    Terminal t(&host, sized(40, 6));
    t.feed("color\r\ncolour\r\nac\r\nabbc\r\ndog\r\nCAT");
    SearchService search(t);
    SearchOptions regex;
    regex.regex = true;
    EXPECT_EQ(search.findAll("colou?r", regex).size(), 2u);
    EXPECT_EQ(search.findAll("ab*c", regex).size(), 2u);
    EXPECT_EQ(search.findAll("ab{0,2}c", regex).size(), 2u);
    EXPECT_EQ(search.findAll("cat|dog", regex).size(), 2u);
    regex.caseSensitive = true;
    EXPECT_EQ(search.findAll("cat|dog", regex).size(), 1u);
    EXPECT_EQ(search.findAll("CAT", regex).size(), 1u);
}

// Counts a term in the buffer's logical lines read as UTF-8 (rows trimmed and joined), with
// ASCII letters folded when the case does not matter: what a search must find, made without
// the search's own text or filters.
size_t occurrencesInText(const Terminal& t, const std::string& term, bool caseSensitive) {
    const auto fold = [&](std::string text) {
        if (!caseSensitive)
            for (char& c : text)
                if (c >= 'A' && c <= 'Z')
                    c = static_cast<char>(c - 'A' + 'a');
        return text;
    };
    const std::string needle = fold(term);
    const Buffer& b = t.buffer();
    size_t count = 0;
    for (int r = 0; r < b.lineCount();) {
        std::string line;
        int next = r;
        do {
            line += b.line(LineIndex(next)).translateToString(t.tables().characters);
            ++next;
        } while (next < b.lineCount() && b.line(LineIndex(next)).isWrapped());
        line = fold(line);
        for (size_t at = line.find(needle); at != std::string::npos;
             at = line.find(needle, at + needle.size()))
            ++count;
        r = next;
    }
    return count;
}

TEST(SearchServiceTest, FindAllCountsWhatTheTextHoldsOverMixedScripts) {
    // Words, wide characters, combining marks, emoji and long wrapped lines, in a fixed
    // random mix; every count must be the text's, whichever lines the cells ruled out.
    const std::vector<std::string> pieces = {"lat",
                                             "ency",
                                             "latency",
                                             "LATENCY",
                                             " ",
                                             "  ",
                                             "x",
                                             "e\xcc\x81",
                                             "caf",
                                             "\xe4\xb8\x96",
                                             "\xf0\x9f\x9a\x80",
                                             "ab",
                                             "a b",
                                             "-",
                                             "\t",
                                             "\xc3\xa9",
                                             "\xe2\x9c\x85",
                                             "Lat",
                                             "cy",
                                             "1\xef\xb8\x8f\xe2\x83\xa3"};
    // With and without clusters of several characters: without any, lines are ruled out by
    // their cells without a look at every cell.
    for (const bool clusters : {true, false}) {
        std::mt19937 random(20261124);
        Discard host;
        Terminal t(&host, sized(17, 6, 400));
        for (int line = 0; line < 300; ++line) {
            const int count = static_cast<int>(random() % 14);
            std::string text;
            for (int k = 0; k < count; ++k) {
                const std::string& piece = pieces[random() % pieces.size()];
                const bool multiScalar =
                    piece.find("\xcc") != std::string::npos || piece.find("\xe2\x83") != std::string::npos;
                if (clusters || !multiScalar)
                    text += piece;
            }
            t.feed(text + "\r\n");
        }
        ASSERT_EQ(t.tables().characters.multiScalarCount() != 0, clusters);
        SearchService search(t);
        for (const std::string term : {"latency", "lat", "a b", "cafe", "y l", "ab"}) {
            for (const bool caseSensitive : {false, true}) {
                SearchOptions o;
                o.caseSensitive = caseSensitive;
                EXPECT_EQ(search.findAll(term, o, 100000).size(), occurrencesInText(t, term, caseSensitive))
                    << term << (caseSensitive ? " (case-sensitive)" : "");
            }
        }
        // Patterns that can only match "latency" in any case, each match on its own.
        SearchOptions regex;
        regex.regex = true;
        for (const std::string pattern : {"latency", "lat(ency)", "LAT[e]NCY", "l?atency"})
            EXPECT_EQ(search.findAll(pattern, regex, 100000).size(), occurrencesInText(t, "latency", false))
                << pattern;
    }
}

// --- Over recorded sessions ------------------------------------------------------------------

TEST(SearchServiceTest, RegexFindsATermSplitAcrossAWrapInARecordedSession) {
    Discard host;
    Terminal t(&host, sized(100, 30));
    t.feed(session("git-log-graph-100x30.bin"));
    SearchService search(t);
    SearchOptions regex;
    regex.regex = true;
    // git wrote "lazy attrib" at the end of one row and "ute interning" at the start of the next.
    const auto all = search.findAll("lazy\\s+attrib\\w+\\s+interning", regex);
    ASSERT_EQ(all.size(), 1u);
    const SearchResult& r = all[0];
    const Buffer& b = t.buffer();
    EXPECT_EQ(b.line(r.row).translateToString(t.tables().characters).substr(0, 9), "* 6a81273");
    EXPECT_EQ(r.col, Col(89));
    EXPECT_TRUE(b.line(r.row + 1).isWrapped());
    EXPECT_EQ(textOf(t, r), "lazy attribute interning");
    // A plain search for the broken word finds it too.
    const auto plain = search.findAll("attribute interning");
    ASSERT_FALSE(plain.empty());
    EXPECT_EQ(plain[0].col, Col(94));
    EXPECT_EQ(plain[0].size, 19);
}

TEST(SearchServiceTest, CjkAndEmojiHitsInARecordedSessionSelectTheRightCells) {
    Discard host;
    Terminal t(&host, sized(60, 20));
    t.feed(session("jq-color-60x20.bin"));
    SearchService search(t);
    auto r = search.findNext("\xe7\x95\x8c"); // 界
    ASSERT_TRUE(r);
    EXPECT_EQ(r->row, LineIndex(5));
    EXPECT_EQ(r->col, Col(7));
    EXPECT_EQ(r->size, 2);
    EXPECT_EQ(textOf(t, *r), "\xe7\x95\x8c");
    r = search.findNext("\xe2\x9c\x85"); // ✅
    ASSERT_TRUE(r);
    EXPECT_EQ(r->row, LineIndex(16));
    EXPECT_EQ(r->col, Col(14));
    EXPECT_EQ(r->size, 2);
    EXPECT_EQ(textOf(t, *r), "\xe2\x9c\x85");
    r = search.findNext("\xf0\x9f\x9a\x80\xe2\x9c\x85\""); // 🚀✅"
    ASSERT_TRUE(r);
    EXPECT_EQ(r->col, Col(12));
    EXPECT_EQ(r->size, 5);
    r = search.findNext("\xc3\x9cN\xc3\x8f"); // ÜNÏ, case-insensitive
    ASSERT_TRUE(r);
    EXPECT_EQ(r->row, LineIndex(4));
    EXPECT_EQ(r->col, Col(5));
    EXPECT_EQ(textOf(t, *r), "\xc3\xbcn\xc3\xaf");
}

} // namespace
} // namespace termkit
