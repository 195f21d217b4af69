// Key to pixels, from outside: presses keys through the X test extension and times how
// long until the screen shows a change in a given rectangle. The same measurement for every
// terminal on the display, whatever draws it, since it looks only at what reached the screen.
//
//   key-to-pixels X Y WIDTH HEIGHT KEYS
//
// Before the first key it clicks the rectangle's centre (to give that window the keyboard).
// Every 60 keys it types Control-U, which a terminal running `cat` wipes from the line, so
// the keys keep landing in the same rectangle. Prints one JSON line.

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Longest wait for one key's glyph.
constexpr auto kKeyTimeout = std::chrono::milliseconds(1000);
// Pause between keys: not a multiple of a frame, so keys land at every phase of one.
constexpr auto kKeyPause = std::chrono::milliseconds(37);
// Quiet time after the line is wiped, before the screen is taken as the new reference.
constexpr auto kSettle = std::chrono::milliseconds(150);
// After a key's glyph shows, how long the rectangle must stay unchanged before the next key:
// a terminal that draws a key in two frames must not have its second frame taken for the
// next key's.
constexpr auto kQuiet = std::chrono::milliseconds(60);

struct Area {
    int x, y, width, height;
};

std::vector<char> grab(Display* display, const Area& r) {
    XImage* image = XGetImage(display, DefaultRootWindow(display), r.x, r.y, static_cast<unsigned>(r.width),
                              static_cast<unsigned>(r.height), AllPlanes, ZPixmap);
    std::vector<char> pixels;
    if (image) {
        pixels.assign(image->data, image->data + static_cast<size_t>(image->bytes_per_line) * image->height);
        XDestroyImage(image);
    }
    return pixels;
}

void tap(Display* display, KeySym symbol, bool control = false) {
    const KeyCode code = XKeysymToKeycode(display, symbol);
    const KeyCode ctrl = XKeysymToKeycode(display, XK_Control_L);
    if (control)
        XTestFakeKeyEvent(display, ctrl, True, CurrentTime);
    XTestFakeKeyEvent(display, code, True, CurrentTime);
    XTestFakeKeyEvent(display, code, False, CurrentTime);
    if (control)
        XTestFakeKeyEvent(display, ctrl, False, CurrentTime);
    XFlush(display);
}

double percentile(std::vector<double> v, double p) {
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5))];
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: key-to-pixels X Y WIDTH HEIGHT KEYS\n");
        return 2;
    }
    const Area region{std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4])};
    const int keys = std::atoi(argv[5]);
    Display* display = XOpenDisplay(nullptr);
    int event, error, major, minor;
    if (!display || !XTestQueryExtension(display, &event, &error, &major, &minor)) {
        std::fprintf(stderr, "key-to-pixels: no display with the test extension\n");
        return 1;
    }
    XTestFakeMotionEvent(display, -1, region.x + region.width / 2, region.y + region.height / 2, CurrentTime);
    XTestFakeButtonEvent(display, 1, True, CurrentTime);
    XTestFakeButtonEvent(display, 1, False, CurrentTime);
    XFlush(display);
    std::this_thread::sleep_for(kSettle);
    tap(display, XK_u, true);
    std::this_thread::sleep_for(kSettle);

    std::vector<double> latencies;
    int missed = 0;
    std::vector<char> reference = grab(display, region);
    for (int i = 0; i < keys; ++i) {
        const auto sent = Clock::now();
        tap(display, static_cast<KeySym>(XK_a + i % 26));
        bool seen = false;
        while (Clock::now() - sent < kKeyTimeout) {
            std::vector<char> now = grab(display, region);
            if (now != reference) {
                latencies.push_back(std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
                reference = std::move(now);
                seen = true;
                break;
            }
        }
        missed += seen ? 0 : 1;
        for (auto quietSince = Clock::now(); Clock::now() - quietSince < kQuiet;) {
            std::vector<char> now = grab(display, region);
            if (now != reference) {
                reference = std::move(now);
                quietSince = Clock::now();
            }
        }
        std::this_thread::sleep_for(kKeyPause);
        if ((i + 1) % 60 == 0) {
            tap(display, XK_u, true);
            std::this_thread::sleep_for(kSettle);
            reference = grab(display, region);
        }
    }
    std::printf("{\"keys\": %zu, \"missed\": %d, \"p50_ms\": %.2f, \"p95_ms\": %.2f, \"max_ms\": %.2f}\n",
                latencies.size(), missed, percentile(latencies, 0.5), percentile(latencies, 0.95),
                percentile(latencies, 1.0));
    XCloseDisplay(display);
    return 0;
}
