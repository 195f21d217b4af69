#include "Termkit/graphics/KittyGraphics.h"

#include <gtest/gtest.h>

#include <map>

#include "TermkitTests/graphics/GraphicsTestSupport.h"

namespace termkit {
namespace {

using testing::apc;
using testing::base64;
using testing::gradient;
using testing::GraphicsTerminal;
using testing::kittyReply;

// Cells are 10x20 pixels in these tests: a 20x40 picture covers 2x2 cells.
std::string png(int w, int h) {
    return base64(encodePng(gradient(w, h)));
}

std::pair<int, int> cursor(const GraphicsTerminal& t) {
    return {t.terminal->buffer().y().value, t.terminal->buffer().x().value};
}

// (image id, placement id, row, col, cols, rows) of every placement on screen, in z-order.
std::vector<std::array<int, 6>> shown(const GraphicsTerminal& t) {
    std::vector<std::array<int, 6>> out;
    for (const auto& p : t.placements())
        out.push_back(
            {int(p.slice->imageId), int(p.slice->placementId), p.row, p.col, p.slice->cols, p.slice->rows});
    return out;
}

TEST(KittyPlacementTest, TransmitAndDisplayCoversTheCellsAndMovesTheCursor) {
    GraphicsTerminal t;
    t.feed("ab");
    t.feed(apc("a=T,f=100,i=1,p=4", png(20, 40)));
    EXPECT_EQ(shown(t), (std::vector<std::array<int, 6>>{{1, 4, 0, 2, 2, 2}}));
    EXPECT_EQ(cursor(t), std::make_pair(1, 4));
    // Each covered line carries its own row of the picture.
    const auto* first = t.terminal->buffer().screenLine(ScreenRow(0)).images();
    const auto* second = t.terminal->buffer().screenLine(ScreenRow(1)).images();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(imageSlice(first->at(0)).row, 0);
    EXPECT_EQ(imageSlice(second->at(0)).row, 1);
}

TEST(KittyPlacementTest, CursorPolicyOneLeavesTheCursor) {
    GraphicsTerminal t;
    t.feed("\x1b[3;4H");
    t.feed(apc("a=T,f=100,i=1,C=1", png(20, 40)));
    EXPECT_EQ(cursor(t), std::make_pair(2, 3));
    EXPECT_EQ(shown(t)[0][2], 2);
    EXPECT_EQ(shown(t)[0][3], 3);
}

TEST(KittyPlacementTest, SizeInCellsAndPixelOffsets) {
    GraphicsTerminal t;
    t.feed(apc("a=T,f=100,i=1,c=5,r=3,C=1", png(20, 40)));
    EXPECT_EQ(shown(t), (std::vector<std::array<int, 6>>{{1, 1, 0, 0, 5, 3}}));
    const ImageSlice& s = *t.placements()[0].slice;
    EXPECT_DOUBLE_EQ(s.widthInCells, 5);
    EXPECT_DOUBLE_EQ(s.heightInCells, 3);
    t.feed(apc("a=p,i=1,p=9,X=5,Y=10,C=1"));
    const auto all = t.placements();
    ASSERT_EQ(all.size(), 2u);
    // The pixel offset widens the covered area: 5 + 20 pixels are three cells.
    EXPECT_EQ(all[1].slice->cols, 3);
    EXPECT_DOUBLE_EQ(all[1].slice->offsetXInCells, 0.5);
    EXPECT_DOUBLE_EQ(all[1].slice->offsetYInCells, 0.5);
}

TEST(KittyPlacementTest, AtTheBottomTheImageScrollsTheScreen) {
    GraphicsTerminal t(20, 10);
    t.feed("\x1b[10;1H");
    t.feed(apc("a=T,f=100,i=1", png(10, 60))); // three rows
    EXPECT_EQ(shown(t), (std::vector<std::array<int, 6>>{{1, 1, 7, 0, 1, 3}}));
    EXPECT_EQ(cursor(t), std::make_pair(9, 1));
}

TEST(KittyPlacementTest, ImagesScrollWithTheTextAndLeaveWithTheirLastLine) {
    GraphicsTerminal t(20, 5, 3);
    t.feed(apc("a=T,f=100,i=1,p=1", png(20, 40)));
    t.feed("\r\n\r\n\r\n"); // the cursor was on row 1: now on the last row
    EXPECT_EQ(shown(t)[0][2], 0);
    t.feed("\r\n");
    EXPECT_EQ(shown(t)[0][2], -1); // half scrolled away
    t.feed("\r\n");
    EXPECT_TRUE(shown(t).empty());
    EXPECT_EQ(t.kitty().placementsByKey().size(), 1u); // still in the scrollback
    for (int i = 0; i < 10; ++i)
        t.feed("\r\n");
    t.kitty().prunePlacements();
    EXPECT_TRUE(t.kitty().placementsByKey().empty());
    EXPECT_TRUE(t.kitty().imagesById().contains(1)); // the data stays
}

TEST(KittyPlacementTest, EraseDisplayAndResetClearImageCells) {
    GraphicsTerminal t;
    t.feed(apc("a=T,f=100,i=1", png(20, 40)));
    t.feed("\x1b[2J");
    EXPECT_TRUE(shown(t).empty());
    t.kitty().prunePlacements();
    EXPECT_TRUE(t.kitty().placementsByKey().empty());
    t.feed(apc("a=p,i=1"));
    EXPECT_EQ(shown(t).size(), 1u);
    t.feed("\x1b"
           "c");
    EXPECT_TRUE(shown(t).empty());
    EXPECT_TRUE(t.kitty().imagesById().empty());
    EXPECT_EQ(t.kitty().totalImageBytes(), 0u);
}

TEST(KittyPlacementTest, SoftResetDropsOnlyATransferInProgress) {
    GraphicsTerminal t;
    t.feed(apc("a=T,f=100,i=1", png(20, 40)));
    t.feed(apc("a=t,f=100,i=2,m=1", "AAAA"));
    t.feed("\x1b[!p");
    EXPECT_FALSE(t.kitty().pending().has_value());
    EXPECT_EQ(shown(t).size(), 1u);
}

TEST(KittyPlacementTest, ZIndexOrdersPlacementsAndTheSameKeyReplaces) {
    GraphicsTerminal t;
    t.feed(apc("a=t,f=100,i=1", png(10, 20)));
    t.feed(apc("a=p,i=1,p=1,z=5,C=1"));
    t.feed(apc("a=p,i=1,p=2,z=-3,C=1"));
    t.feed(apc("a=p,i=1,p=3,C=1"));
    auto z = [&] {
        std::vector<int> out;
        for (const auto& p : t.placements())
            out.push_back(p.slice->zIndex);
        return out;
    };
    EXPECT_EQ(z(), (std::vector<int>{-3, 0, 5}));
    t.feed("\x1b[5;5H");
    t.feed(apc("a=p,i=1,p=1,z=5,C=1"));
    EXPECT_EQ(t.placements().size(), 3u);
    EXPECT_EQ(t.placements().back().row, 4);
    // With no placement id, every put is a new placement.
    t.feed(apc("a=p,i=1,C=1"));
    t.feed(apc("a=p,i=1,C=1"));
    EXPECT_EQ(t.placements().size(), 5u);
}

TEST(KittyPlacementTest, Crops) {
    GraphicsTerminal t;
    const std::string raw(4 * 4 * 4, '\x7f');
    t.feed(apc("a=t,f=32,s=4,v=4,i=1", base64(raw)));
    t.feed(apc("a=p,i=1,x=1,y=2,w=2,h=2,C=1"));
    ASSERT_EQ(t.placements().size(), 1u);
    const ImageSlice& s = *t.placements()[0].slice;
    EXPECT_EQ((std::array<int, 4>{s.sourceX, s.sourceY, s.sourceWidth, s.sourceHeight}),
              (std::array<int, 4>{1, 2, 2, 2}));
    t.feed(apc("a=p,i=1,x=3,w=2"));
    EXPECT_EQ(t.host.replies.back(), kittyReply("i=1", "EINVAL: bad crop"));
    t.feed(apc("a=t,f=100,i=2", png(4, 4)));
    t.feed(apc("a=p,i=2,x=1"));
    EXPECT_EQ(t.host.replies.back(), kittyReply("i=2", "ENOTSUP: cannot crop png"));
}

TEST(KittyPlacementTest, RelativePlacementsStartFromTheirParent) {
    GraphicsTerminal t;
    t.feed(apc("a=t,f=100,i=1", png(10, 20)));
    t.feed("\x1b[3;5H");
    t.feed(apc("a=p,i=1,p=1,C=1"));
    t.feed("\x1b[1;1H");
    t.feed(apc("a=p,i=1,p=2,P=1,Q=1,H=3,V=2"));
    const auto s = shown(t);
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[1], (std::array<int, 6>{1, 2, 4, 7, 1, 1}));
    EXPECT_EQ(cursor(t), std::make_pair(0, 0)); // relative placements never move the cursor
    t.feed(apc("a=p,i=1,p=3,P=1,Q=9"));
    EXPECT_EQ(t.host.replies.back(), kittyReply("i=1,p=3", "ENOPARENT: parent placement not found"));
    t.feed("\x1b[?1049h");
    t.feed(apc("a=p,i=1,p=3,P=1,Q=1"));
    EXPECT_EQ(t.host.replies.back(),
              kittyReply("i=1,p=3", "ENOPARENT: parent placement not in current buffer"));
}

TEST(KittyPlacementTest, RelativePlacementsFollowTheirParentWhenItMoves) {
    GraphicsTerminal t;
    t.feed(apc("a=t,f=100,i=1", png(10, 20)));
    t.feed("\x1b[3;5H");
    t.feed(apc("a=p,i=1,p=1,C=1"));
    t.feed(apc("a=p,i=1,p=2,P=1,Q=1,H=1,V=1"));
    t.feed(apc("a=p,i=1,p=3,P=1,Q=2,H=1")); // a grandchild
    t.feed("\x1b[6;2H");
    t.feed(apc("a=p,i=1,p=1,C=1")); // the parent moves to row 5, column 1
    std::map<int, std::pair<int, int>> where;
    for (const auto& s : shown(t))
        where[s[1]] = {s[2], s[3]};
    EXPECT_EQ(where[1], std::make_pair(5, 1));
    EXPECT_EQ(where[2], std::make_pair(6, 2));
    EXPECT_EQ(where[3], std::make_pair(6, 3));
    EXPECT_EQ(where.size(), 3u);
    // Two placements each relative to the other: following them stops at the depth limit.
    t.feed("\x1b[1;1H");
    t.feed(apc("a=p,i=1,p=6,C=1"));
    t.feed(apc("a=p,i=1,p=7,P=1,Q=6,H=1"));
    t.feed(apc("a=p,i=1,p=6,P=1,Q=7,H=1"));
    EXPECT_EQ(t.kitty().placementsByKey().count({1, 6}), 1u);
    EXPECT_EQ(t.kitty().placementsByKey().count({1, 7}), 1u);
}

TEST(KittyPlacementTest, VirtualPlacementsAndRangeErrors) {
    GraphicsTerminal t;
    t.feed(apc("a=t,f=100,i=1", png(10, 20)));
    t.feed(apc("a=p,i=1,p=1,U=1,c=4,r=2"));
    EXPECT_EQ(t.host.replies.back(), kittyReply("i=1,p=1", "OK"));
    EXPECT_TRUE(shown(t).empty());
    ASSERT_EQ(t.kitty().placementsByKey().size(), 1u);
    EXPECT_TRUE(t.kitty().placementsByKey().begin()->second.isVirtual);
    t.feed(apc("a=p,i=1,p=2,U=1,P=1,Q=1"));
    EXPECT_EQ(t.host.replies.back(),
              kittyReply("i=1,p=2", "EINVAL: virtual placement cannot refer to parent"));
    t.feed(apc("a=p,i=1,p=3,c=20000"));
    EXPECT_EQ(t.host.replies.back(), kittyReply("i=1,p=3", "EINVAL: placement out of range"));
    t.feed(apc("a=p,i=1,p=4,P=1,Q=1,H=-5"));
    EXPECT_EQ(t.host.replies.back(), kittyReply("i=1,p=4", "EINVAL: placement out of range"));
}

// --- Delete -----------------------------------------------------------------------------------------

// Three placements: image 1 at (0,0) 2x2 z=0, image 2 at (4,10) 1x1 z=7, image 3 at (6,0) 3x1 z=0.
GraphicsTerminal& threePlacements(GraphicsTerminal& t) {
    t.feed(apc("a=t,f=100,i=1", png(20, 40)));
    t.feed(apc("a=t,f=100,i=2", png(10, 20)));
    t.feed(apc("a=t,f=100,i=3", png(30, 20)));
    t.feed(apc("a=p,i=1,p=1,C=1"));
    t.feed("\x1b[5;11H");
    t.feed(apc("a=p,i=2,p=1,z=7,C=1"));
    t.feed("\x1b[7;1H");
    t.feed(apc("a=p,i=3,p=1,C=1"));
    t.host.replies.clear();
    return t;
}

std::vector<int> shownIds(const GraphicsTerminal& t) {
    std::vector<int> ids;
    for (const auto& s : shown(t))
        ids.push_back(s[0]);
    std::sort(ids.begin(), ids.end());
    return ids;
}

TEST(KittyDeleteTest, AllVisibleLowercaseKeepsDataUppercaseFreesIt) {
    GraphicsTerminal t;
    threePlacements(t);
    t.feed(apc("a=d"));
    EXPECT_TRUE(shownIds(t).empty());
    EXPECT_EQ(t.kitty().imagesById().size(), 3u);
    EXPECT_TRUE(t.host.replies.empty());
    GraphicsTerminal u;
    threePlacements(u);
    u.feed(apc("a=t,f=100,i=4", png(10, 20))); // never placed: an uppercase delete of placements keeps it
    u.feed(apc("a=d,d=A"));
    EXPECT_EQ(u.kitty().imagesById().size(), 1u);
    EXPECT_TRUE(u.kitty().imagesById().contains(4));
}

TEST(KittyDeleteTest, ByIdAndPlacementAndNumber) {
    GraphicsTerminal t;
    threePlacements(t);
    t.feed(apc("a=p,i=1,p=2,C=1"));
    t.feed(apc("a=d,d=i,i=1,p=2"));
    EXPECT_EQ(shownIds(t), (std::vector<int>{1, 2, 3}));
    t.feed(apc("a=d,d=i,i=1"));
    EXPECT_EQ(shownIds(t), (std::vector<int>{2, 3}));
    EXPECT_TRUE(t.kitty().imagesById().contains(1));
    t.feed(apc("a=d,d=I,i=1"));
    EXPECT_FALSE(t.kitty().imagesById().contains(1));
    t.feed(apc("a=t,f=100,I=5,q=2", png(10, 20)));
    t.feed(apc("a=p,I=5,C=1"));
    EXPECT_EQ(shownIds(t).size(), 3u);
    t.feed(apc("a=d,d=N,I=5"));
    EXPECT_EQ(shownIds(t), (std::vector<int>{2, 3}));
    EXPECT_TRUE(t.kitty().imageNumbers().empty());
    t.host.replies.clear();
    t.feed(apc("a=d,d=i"));
    t.feed(apc("a=d,d=n"));
    t.feed(apc("a=d,d=W,i=4"));
    // The two missing-argument errors name no image, so they have no reply; the last one does.
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=4", "EINVAL: unsupported delete")});
}

TEST(KittyDeleteTest, ByCellCursorColumnRowAndZ) {
    {
        GraphicsTerminal t;
        threePlacements(t);
        t.feed("\x1b[2;2H");
        t.feed(apc("a=d,d=c"));
        EXPECT_EQ(shownIds(t), (std::vector<int>{2, 3}));
    }
    {
        GraphicsTerminal t;
        threePlacements(t);
        t.feed(apc("a=d,d=p,x=11,y=5"));
        EXPECT_EQ(shownIds(t), (std::vector<int>{1, 3}));
        t.feed(apc("a=d,d=q,x=3,y=7,z=1"));
        EXPECT_EQ(shownIds(t), (std::vector<int>{1, 3}));
        t.feed(apc("a=d,d=q,x=3,y=7,z=0"));
        EXPECT_EQ(shownIds(t), (std::vector<int>{1}));
    }
    {
        GraphicsTerminal t;
        threePlacements(t);
        t.feed(apc("a=d,d=x,x=2"));
        EXPECT_EQ(shownIds(t), (std::vector<int>{2}));
    }
    {
        GraphicsTerminal t;
        threePlacements(t);
        t.feed(apc("a=d,d=y,y=7"));
        EXPECT_EQ(shownIds(t), (std::vector<int>{1, 2}));
        t.feed(apc("a=d,d=z,z=7"));
        EXPECT_EQ(shownIds(t), (std::vector<int>{1}));
    }
    {
        GraphicsTerminal t;
        threePlacements(t);
        t.feed(apc("a=d,d=R,x=2,y=3"));
        EXPECT_EQ(shownIds(t), (std::vector<int>{1}));
        EXPECT_EQ(t.kitty().imagesById().size(), 1u);
    }
}

TEST(KittyDeleteTest, MissingArgumentsAreErrors) {
    GraphicsTerminal t;
    threePlacements(t);
    // An id makes the errors visible; the id itself is not what these modes use.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"d=i,p=3", ""},
        {"d=n,i=9", "EINVAL: missing image number"},
        {"d=p,i=9,x=1", "EINVAL: missing cell position"},
        {"d=q,i=9,y=1", "EINVAL: missing cell position"},
        {"d=x,i=9", "EINVAL: missing column"},
        {"d=y,i=9", "EINVAL: missing row"},
        {"d=r,i=9,x=3", "EINVAL: missing id range"},
        {"d=r,i=9,x=3,y=2", "EINVAL: missing id range"},
    };
    for (const auto& [control, error] : cases) {
        t.host.replies.clear();
        t.feed(apc("a=d," + control));
        if (error.empty())
            EXPECT_TRUE(t.host.replies.empty()) << control;
        else
            EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=9", error)}) << control;
    }
    t.host.replies.clear();
    t.feed(apc("a=d,d=i,I=3"));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("I=3", "EINVAL: missing image id")});
    EXPECT_EQ(shownIds(t), (std::vector<int>{1, 2, 3}));
}

} // namespace
} // namespace termkit
