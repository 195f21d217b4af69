#include "QuillmereDesktop/terminal/DrawerLayout.h"

#include <algorithm>

namespace drawerLayout {

QRect frame(const QRect& mainFrame, const std::optional<QRect>& availableGeometry, int width) {
    const QRect visible = availableGeometry.value_or(mainFrame);
    const int x = std::max(mainFrame.left() - width, visible.left());
    return QRect(x, mainFrame.top(), width, mainFrame.height());
}

} // namespace drawerLayout
