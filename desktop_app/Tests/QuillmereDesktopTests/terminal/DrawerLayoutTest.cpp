// The drawer's place beside the main window, from given frames.

#include "QuillmereDesktop/terminal/DrawerLayout.h"

#include <gtest/gtest.h>

namespace {

const QRect screen(0, 0, 1920, 1080);
const QRect available(0, 32, 1920, 1048); // below a top panel

TEST(DrawerLayoutTest, SitsAgainstTheMainWindowsLeftEdgeAndIsAsTallAsIt) {
    const QRect main(900, 200, 320, 480);
    const QRect drawer = drawerLayout::frame(main, available);
    EXPECT_EQ(drawer, QRect(440, 200, 460, 480));
    EXPECT_EQ(drawer.right() + 1, main.left());
}

TEST(DrawerLayoutTest, MovingTheMainWindowMovesTheDrawer) {
    EXPECT_EQ(drawerLayout::frame(QRect(1000, 300, 320, 500), available), QRect(540, 300, 460, 500));
    EXPECT_EQ(drawerLayout::frame(QRect(700, 100, 320, 600), available), QRect(240, 100, 460, 600));
}

TEST(DrawerLayoutTest, AtTheScreensLeftEdgeItStaysOnScreenOverTheMainWindow) {
    const QRect drawer = drawerLayout::frame(QRect(100, 200, 320, 480), available);
    EXPECT_EQ(drawer.left(), available.left());
    EXPECT_EQ(drawer, QRect(0, 200, 460, 480));
    // On a second screen to the right, its own left edge is the limit.
    const QRect right(1920, 0, 1280, 1024);
    EXPECT_EQ(drawerLayout::frame(QRect(2000, 50, 320, 480), right).left(), 1920);
}

TEST(DrawerLayoutTest, WithoutAScreenTheMainWindowsFrameIsTheLimit) {
    EXPECT_EQ(drawerLayout::frame(QRect(900, 200, 320, 480), std::nullopt), QRect(900, 200, 460, 480));
}

TEST(DrawerLayoutTest, WidthIsTheDrawersOwn) {
    EXPECT_EQ(drawerLayout::defaultWidth, 460);
    EXPECT_EQ(drawerLayout::frame(QRect(900, 0, 320, 480), screen, 300), QRect(600, 0, 300, 480));
}

} // namespace
