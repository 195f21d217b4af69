#include "Termkit/links/TerminalLinks.h"

#include <gtest/gtest.h>

#include "Termkit/engine/Terminal.h"

namespace termkit {
namespace {

class Discard : public TerminalDelegate {
public:
    void send(Terminal&, std::span<const uint8_t>) override {}
};

TerminalOptions sized(int cols, int rows) {
    TerminalOptions o;
    o.cols = cols;
    o.rows = rows;
    o.scrollback = 100;
    return o;
}

std::optional<LinkMatch> at(const Terminal& t, int col, int row,
                            LinkLookupMode mode = LinkLookupMode::explicitAndImplicit) {
    return TerminalLinks::link(t, LinkLookupLocation::buffer({Col(col), LineIndex(row)}), mode);
}

TEST(TerminalLinksTest, AnExplicitLinkCoversItsCellsAndClosesWithASemicolonBody) {
    Discard host;
    Terminal t(&host, sized(40, 3));
    // OSC 8 ;; URI opens with empty parameters; OSC 8 ; ; (a body of one ";") closes.
    t.feed("go \x1b]8;;http://a.example/x\x1b\\here\x1b]8;;\x1b\\ then");
    const auto m = at(t, 4, 0, LinkLookupMode::explicitOnly);
    ASSERT_TRUE(m);
    EXPECT_TRUE(m->isExplicit);
    EXPECT_EQ(m->text, "http://a.example/x");
    EXPECT_EQ(m->params, "");
    EXPECT_EQ(m->range, std::pair(3, 7));
    ASSERT_EQ(m->rowRanges.size(), 1u);
    EXPECT_FALSE(at(t, 8, 0, LinkLookupMode::explicitOnly));
    EXPECT_FALSE(at(t, 1, 0, LinkLookupMode::explicitOnly));
    EXPECT_FALSE(t.activeHyperlink());
}

TEST(TerminalLinksTest, ParametersArePassedOn) {
    Discard host;
    Terminal t(&host, sized(40, 3));
    t.feed("\x1b]8;id=doc7;file:///tmp/notes.txt\x1b\\notes\x1b]8;;\x1b\\");
    const auto m = at(t, 2, 0);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->params, "id=doc7");
    EXPECT_EQ(m->text, "file:///tmp/notes.txt");
    const auto [params, uri] = TerminalLinks::parseHyperlinkPayload("a=1:b=2;https://x;y");
    EXPECT_EQ(params, "a=1:b=2");
    EXPECT_EQ(uri, "https://x;y");
}

TEST(TerminalLinksTest, LinkTextWrappedAtTheRightEdgeIsOneMatchWithTwoRowRanges) {
    Discard host;
    Terminal t(&host, sized(10, 4));
    t.feed("abcdef\x1b]8;;https://wrap.example\x1b\\0123456789\x1b]8;;\x1b\\ z");
    for (const auto& [col, row] : {std::pair(7, 0), std::pair(3, 1)}) {
        const auto m = at(t, col, row);
        ASSERT_TRUE(m);
        EXPECT_EQ(m->text, "https://wrap.example");
        ASSERT_EQ(m->rowRanges.size(), 2u);
        EXPECT_EQ(m->rowRanges[0].row, LineIndex(0));
        EXPECT_EQ(m->rowRanges[0].range, std::pair(6, 10));
        EXPECT_EQ(m->rowRanges[1].row, LineIndex(1));
        EXPECT_EQ(m->rowRanges[1].range, std::pair(0, 6));
    }
}

TEST(TerminalLinksTest, AnImplicitUrlLeavesOutATrailingFullStop) {
    Discard host;
    Terminal t(&host, sized(60, 3));
    t.feed("docs at https://example.org/guide/page. and more");
    const auto m = at(t, 12, 0);
    ASSERT_TRUE(m);
    EXPECT_FALSE(m->isExplicit);
    EXPECT_EQ(m->text, "https://example.org/guide/page");
    EXPECT_EQ(m->range, std::pair(8, 38));
    EXPECT_FALSE(at(t, 12, 0, LinkLookupMode::explicitOnly));
    EXPECT_FALSE(at(t, 2, 0));
}

TEST(TerminalLinksTest, AnImplicitUrlAcrossAWrapIsFoundFromEitherRow) {
    Discard host;
    Terminal t(&host, sized(20, 4));
    t.feed("see https://example.org/a/long/path ok");
    for (const auto& [col, row] : {std::pair(6, 0), std::pair(5, 1)}) {
        const auto m = at(t, col, row);
        ASSERT_TRUE(m);
        EXPECT_EQ(m->text, "https://example.org/a/long/path");
        EXPECT_EQ(m->rowRanges.size(), 2u);
    }
}

TEST(TerminalLinksTest, PathsAreImplicitLinks) {
    Discard host;
    Terminal t(&host, sized(60, 3));
    t.feed("edit ./src/main.cpp then ~/notes/todo.md");
    auto m = at(t, 8, 0);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->text, "./src/main.cpp");
    m = at(t, 30, 0);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->text, "~/notes/todo.md");
}

TEST(TerminalLinksTest, PastAFullPayloadTableCellsCarryNoLinkAndTextPrintsAsUsual) {
    Discard host;
    TerminalOptions o = sized(20, 3);
    o.payloadTableCapacity = 2;
    Terminal t(&host, o);
    t.feed("\x1b]8;;http://one\x07"
           "a\x1b]8;;\x07"
           "\x1b]8;;http://two\x07"
           "b\x1b]8;;\x07"
           "\x1b]8;;http://three\x07"
           "cd\x1b]8;;\x07 e");
    EXPECT_EQ(t.getCharData(Col(0), ScreenRow(0))->payload, 1);
    EXPECT_EQ(t.getCharData(Col(1), ScreenRow(0))->payload, 2);
    EXPECT_EQ(t.getCharData(Col(2), ScreenRow(0))->payload, 0);
    EXPECT_EQ(t.getCharData(Col(3), ScreenRow(0))->payload, 0);
    EXPECT_EQ(t.buffer().line(LineIndex(0)).translateToString(t.tables().characters), "abcd e");
    EXPECT_EQ(at(t, 1, 0, LinkLookupMode::explicitOnly).value_or(LinkMatch{}).text, "http://two");
    EXPECT_FALSE(at(t, 2, 0, LinkLookupMode::explicitOnly));
    // While the refused link is open it stays refused.
    t.feed("\x1b]8;;http://four\x07"
           "f");
    ASSERT_TRUE(t.activeHyperlink());
    EXPECT_EQ(t.activeHyperlink()->state, ActiveHyperlink::State::exhausted);
    t.feed("g");
    EXPECT_EQ(t.getCharData(Col(7), ScreenRow(0))->payload, 0);
    // Freeing handles does not make room: the counter never goes back.
    t.feed("\x1b]8;;\x07\x1b[2J\x1b[H");
    t.garbageCollectPayload();
    t.feed("\x1b]8;;http://five\x07"
           "h\x1b]8;;\x07");
    EXPECT_EQ(t.getCharData(Col(0), ScreenRow(0))->payload, 0);
    EXPECT_EQ(t.getCharacter(Col(0), ScreenRow(0)), "h");
}

TEST(TerminalLinksTest, TheTableHolds65534LinksAndEachTerminalHasItsOwn) {
    Discard host;
    Terminal full(&host, sized(20, 3));
    std::string links;
    for (int i = 0; i < TinyAtom::kMaxCode; ++i)
        links += "\x1b]8;;u\x07x\x1b]8;;\x07";
    full.feed(links);
    EXPECT_EQ(full.tables().payloads.issuedCount(), 65534u);
    full.feed("\r\n\x1b]8;;http://late\x07"
              "late\x1b]8;;\x07");
    const auto [col, row] = full.getCursorLocation();
    EXPECT_EQ(full.getCharData(Col(0), row)->payload, 0);
    EXPECT_EQ(full.getCharacter(Col(3), row), "e");
    EXPECT_FALSE(TerminalLinks::link(full, LinkLookupLocation::screen(Position(Col(1), LineIndex(row.value))),
                                     LinkLookupMode::explicitOnly));
    // A second terminal in the same process still links.
    Terminal fresh(&host, sized(20, 3));
    fresh.feed("\x1b]8;;http://new\x07"
               "n\x1b]8;;\x07");
    EXPECT_EQ(at(fresh, 0, 0, LinkLookupMode::explicitOnly).value_or(LinkMatch{}).text, "http://new");
}

TEST(TerminalLinksTest, AUrlAProgramBrokeAcrossRowsByHandIsOneLink) {
    Discard host;
    Terminal t(&host, sized(20, 4));
    // The program wrote the row to its last column and went on after CR LF: no wrap flag.
    t.feed("xx https://example.c\r\nom/a b");
    ASSERT_FALSE(t.buffer().line(LineIndex(1)).isWrapped());
    for (const auto& [col, row] : {std::pair(5, 0), std::pair(1, 1)}) {
        const auto m = at(t, col, row);
        ASSERT_TRUE(m) << col << "," << row;
        EXPECT_EQ(m->text, "https://example.com/a");
        ASSERT_EQ(m->rowRanges.size(), 2u);
        EXPECT_EQ(m->rowRanges[0].range, std::pair(3, 20));
        EXPECT_EQ(m->rowRanges[1].row, LineIndex(1));
        EXPECT_EQ(m->rowRanges[1].range, std::pair(0, 4));
    }
    EXPECT_FALSE(at(t, 5, 1));
}

TEST(TerminalLinksTest, RowsAreNotJoinedByHandWithoutALinkAcrossTheBreak) {
    Discard host;
    Terminal t(&host, sized(20, 6));
    // Short of the edge: the URL ends with its row.
    t.feed("xx https://example.c\r\n");
    t.feed("yy https://example.\r\nom/a\r\n");
    const auto shortRow = at(t, 5, 1);
    ASSERT_TRUE(shortRow);
    EXPECT_EQ(shortRow->text, "https://example");
    EXPECT_EQ(shortRow->rowRanges.size(), 1u);
    // The next row starts with a blank: no join either.
    t.feed("zz https://example.c\r\n m/a");
    const auto blankNext = at(t, 5, 3);
    ASSERT_TRUE(blankNext);
    EXPECT_EQ(blankNext->text, "https://example.c");
    // A path at the start of a row under a row of words short of the edge: the path alone.
    t.feed("\r\nplain words, short\r\n./run.sh");
    const auto path = at(t, 3, 6);
    ASSERT_TRUE(path);
    EXPECT_EQ(path->text, "./run.sh");
    EXPECT_EQ(path->rowRanges.size(), 1u);
}

TEST(TerminalLinksTest, AllLinksOfSomeRowsAreListedOnceEach) {
    Discard host;
    Terminal t(&host, sized(10, 5));
    // An explicit link wrapped over two rows, then an implicit URL wrapped over two more.
    t.feed("ab\x1b]8;;http://e\x07"
           "0123456789\x1b]8;;\x07\r\n"
           "https://x.io/abc");
    const std::vector<LinkMatch> all =
        TerminalLinks::links(t, LineIndex(0), LineIndex(4), LinkLookupMode::explicitAndImplicit);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[0].isExplicit);
    EXPECT_EQ(all[0].text, "http://e");
    ASSERT_EQ(all[0].rowRanges.size(), 2u);
    EXPECT_EQ(all[0].rowRanges[1].range, std::pair(0, 2));
    EXPECT_FALSE(all[1].isExplicit);
    EXPECT_EQ(all[1].text, "https://x.io/abc");
    EXPECT_EQ(all[1].row, LineIndex(2));
    // From the second row on, the wrapped explicit link is still listed, once.
    const auto later = TerminalLinks::links(t, LineIndex(1), LineIndex(1), LinkLookupMode::explicitOnly);
    ASSERT_EQ(later.size(), 1u);
    EXPECT_EQ(later[0].row, LineIndex(0));
}

} // namespace
} // namespace termkit
