// termkit-dump --cols C --rows R [--scrollback N] [--attrs | --visual] [--images DIR] FILE
//
// Feeds FILE's bytes into a headless terminal of that size and prints the active screen:
// exactly R lines with trailing spaces trimmed, then "cursor ROW COL" (0-based). Replies
// to queries in the stream are not sent anywhere. With --visual each row is printed in
// visual order, shaped and mirrored as the view shows it, and COL is the cursor's visual
// column. With --images, each picture on the final screen is written into DIR as a PNG and
// one "image ..." line per placement follows (see graphics/ImageDump.h); cells are 10x20
// pixels.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Termkit/bidi/VisualScreen.h"
#include "Termkit/engine/ScreenText.h"
#include "Termkit/engine/Terminal.h"
#include "Termkit/graphics/ImageDump.h"
#include "Termkit/graphics/TerminalGraphics.h"

namespace {

class SilentHost : public termkit::TerminalDelegate {
public:
    void send(termkit::Terminal&, std::span<const uint8_t>) override {}
};

int usage() {
    std::fprintf(stderr,
                 "usage: termkit-dump --cols C --rows R [--scrollback N] [--attrs | --visual] [--images DIR] "
                 "FILE\n");
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    int cols = 0;
    int rows = 0;
    int scrollback = 500;
    bool attrs = false;
    bool visual = false;
    const char* imagesDir = nullptr;
    const char* path = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--cols") && i + 1 < argc) {
            cols = std::atoi(argv[++i]);
        } else if (!std::strcmp(argv[i], "--rows") && i + 1 < argc) {
            rows = std::atoi(argv[++i]);
        } else if (!std::strcmp(argv[i], "--scrollback") && i + 1 < argc) {
            scrollback = std::atoi(argv[++i]);
        } else if (!std::strcmp(argv[i], "--images") && i + 1 < argc) {
            imagesDir = argv[++i];
        } else if (!std::strcmp(argv[i], "--attrs")) {
            attrs = true;
        } else if (!std::strcmp(argv[i], "--visual")) {
            visual = true;
        } else if (argv[i][0] != '-' && path == nullptr) {
            path = argv[i];
        } else {
            return usage();
        }
    }
    if (cols <= 0 || rows <= 0 || path == nullptr || (attrs && visual))
        return usage();
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::perror(path);
        return 1;
    }
    const std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

    SilentHost host;
    termkit::TerminalOptions options;
    options.cols = cols;
    options.rows = rows;
    options.scrollback = scrollback;
    termkit::TerminalGraphics graphics;
    termkit::Terminal terminal(&host, options, nullptr, &graphics);
    graphics.attach(terminal);
    terminal.setSilentLog(true);
    terminal.feed(data);
    const std::string out =
        visual ? termkit::dumpVisualScreen(terminal) : termkit::dumpScreen(terminal, attrs);
    std::fwrite(out.data(), 1, out.size(), stdout);
    if (imagesDir != nullptr) {
        const std::string images = termkit::dumpImages(terminal, imagesDir, &graphics.kitty());
        std::fwrite(images.data(), 1, images.size(), stdout);
    }
    return 0;
}
