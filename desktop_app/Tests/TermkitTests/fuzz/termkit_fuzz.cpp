// Fuzz target: random bytes fed to a terminal in random chunks, with resizes, scrollback
// changes and reads between them; some chunks are wrapped as kitty graphics commands, sixel
// strings or inline images, so that the image protocols see bodies of every shape, and
// some draw Unicode placeholder cells of virtual placements. The sanitizers catch
// memory and undefined-behaviour errors; the checks below catch broken buffer invariants.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "Termkit/buffer/Utf8.h"
#include "Termkit/engine/ScreenText.h"
#include "Termkit/engine/Terminal.h"
#include "Termkit/graphics/ImageDump.h"
#include "Termkit/graphics/KittyPlaceholder.h"
#include "Termkit/graphics/TerminalGraphics.h"

namespace {

class Host : public termkit::TerminalDelegate {
public:
    void send(termkit::Terminal&, std::span<const uint8_t>) override {}
    std::optional<std::pair<int, int>> cellSizeInPixels(termkit::Terminal&) override {
        return std::pair(7, 13);
    }
    std::optional<std::vector<uint8_t>> clipboardRead(termkit::Terminal&) override {
        return std::vector<uint8_t>{'x'};
    }
};

void check(bool condition) {
    if (!condition)
        std::abort();
}

// The invariants every operation must keep.
void checkInvariants(const termkit::Terminal& t) {
    for (const termkit::Buffer* b : {&t.normalBuffer(), &t.altBuffer()}) {
        const int x = b->x().value;
        const int y = b->y().value;
        const int yBase = b->yBase().value;
        const int yDisp = b->yDisp().value;
        const int top = b->scrollTop().value;
        const int bottom = b->scrollBottom().value;
        const int left = b->marginLeft().value;
        const int right = b->marginRight().value;
        check(b->cols() == t.cols() && b->rows() == t.rows());
        check(x >= 0 && x <= b->cols());
        check(y >= 0 && y < b->rows());
        check(yBase >= 0 && yDisp >= 0 && yDisp <= yBase);
        check(b->lineCount() == yBase + b->rows());
        check(b->lineCount() <= b->lines().maxLength());
        check(top >= 0 && top < bottom + 1 && bottom < b->rows());
        check(left >= 0 && left <= right && right < b->cols());
        for (int i = 0; i < b->lineCount(); ++i) {
            const termkit::BufferLine* line = b->lines().peek(i);
            if (line == nullptr)
                continue;
            check(line->count() == b->cols());
            // Every picture slice names a row of its placement and pixels that exist.
            if (const auto* images = line->images())
                for (const termkit::TerminalImage& image : *images) {
                    const termkit::ImageSlice& s = termkit::imageSlice(image);
                    check(s.row >= 0 && s.row < s.rows && s.pixels != nullptr);
                    check(s.sourceX >= 0 && s.sourceY >= 0 && s.sourceX + s.sourceWidth <= s.pixels->width &&
                          s.sourceY + s.sourceHeight <= s.pixels->height);
                    check(s.pixels->rgba.size() == size_t(s.pixels->width) * size_t(s.pixels->height) * 4);
                }
            // Cells past the clean mark must really be empty, or a recycled line would show them.
            for (int c = line->cleanFrom(); c < line->count(); ++c)
                check(line->cells()[c] == termkit::CharData::Null);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4)
        return 0;
    Host host;
    termkit::TerminalOptions options;
    options.cols = 2 + data[0] % 100;
    options.rows = 1 + data[1] % 40;
    options.scrollback = data[2] % 50;
    options.regionalIndicatorWidth =
        (data[3] & 1) ? termkit::RegionalIndicatorWidth::narrow : termkit::RegionalIndicatorWidth::wide;
    options.convertEol = (data[3] & 2) != 0;
    termkit::TerminalGraphics graphics;
    // The fuzzer must not read, delete or unlink the machine's files and shared memory.
    graphics.kitty().setLocalTransmissionAllowed(false);
    termkit::Terminal terminal(&host, options, nullptr, &graphics);
    graphics.attach(terminal);
    terminal.setSilentLog(true);
    size_t i = 4;
    while (i < size) {
        const uint8_t op = data[i++];
        if (op < 0xF0) {
            // A chunk of up to 64 bytes.
            const size_t n = std::min<size_t>(op % 64 + 1, size - i);
            terminal.feed(std::span<const uint8_t>(data + i, n));
            i += n;
        } else if (op < 0xF4 && i + 1 < size) {
            terminal.resize(1 + data[i] % 120, data[i + 1] % 50);
            i += 2;
        } else if (op == 0xF4 && i < size) {
            terminal.changeScrollback(data[i] % 3 == 0 ? std::nullopt : std::optional<int>(data[i] % 40));
            ++i;
        } else if (op == 0xF5) {
            terminal.clearScrollback();
        } else if (op == 0xF6) {
            terminal.garbageCollectPayload();
        } else if (op == 0xF7) {
            (void)termkit::dumpScreen(terminal, true);
            (void)terminal.getText(termkit::Position(termkit::Col(0), termkit::LineIndex(0)),
                                   termkit::Position(termkit::Col(3), termkit::LineIndex(5)));
        } else if (op >= 0xF9 && op <= 0xFB && i < size) {
            // A body wrapped as an image command: kitty graphics, sixel or an inline image.
            static const char* const kPrefixes[] = {"\x1b_G", "\x1bPq", "\x1b]1337;File=inline=1:"};
            static const char* const kSuffixes[] = {"\x1b\\", "\x1b\\", "\x07"};
            const size_t n = std::min<size_t>(data[i] * 8 + 1, size - i - 1);
            std::string wrapped = kPrefixes[op - 0xF9];
            wrapped.append(reinterpret_cast<const char*>(data + i + 1), n);
            wrapped += kSuffixes[op - 0xF9];
            terminal.feed(wrapped);
            i += n + 1;
            (void)termkit::visiblePlacements(terminal);
        } else if (op == 0xFC && i + 3 < size) {
            // Unicode placeholders: a virtual placement of a small picture in cells the input
            // chooses, then placeholder cells with diacritics and colours it chooses, resolved
            // as the view resolves them for a frame.
            const uint8_t cols = data[i], rows = data[i + 1], marks = data[i + 2], count = data[i + 3];
            i += 4;
            terminal.feed("\x1b_Ga=T,f=24,s=2,v=3,i=" + std::to_string(1 + cols % 3) +
                          ",U=1,c=" + std::to_string(cols % 12) + ",r=" + std::to_string(rows % 9) +
                          ",p=" + std::to_string(rows % 3) + ",q=2;AAAAAAAAAAAAAAAAAAAAAAAA\x1b\\");
            std::string cells =
                "\x1b[38;5;" + std::to_string(1 + marks % 4) + ";58;5;" + std::to_string(marks % 3) + "m";
            for (int k = 0; k < count % 40 && i < size; ++k, ++i) {
                termkit::appendUtf8(termkit::kKittyPlaceholderCharacter, cells);
                // Up to four marks: row, column, high byte and one too many; some outside the table.
                for (int m = 0; m < data[i] % 5; ++m)
                    termkit::appendUtf8(
                        m == 3 ? U'\u0301' : termkit::kittyDiacritic((data[i] * 37 + m * 11) % 300), cells);
            }
            terminal.feed(cells + "\x1b[m");
            (void)termkit::resolvePlaceholders(terminal, graphics.kitty(), {7, 13});
            (void)termkit::resolvePlaceholders(terminal, graphics.kitty(), {1, 1});
        } else if (op == 0xF8) {
            terminal.setUserScrolling(!terminal.userScrolling());
            terminal.scrollDisplay(termkit::LineIndex(0));
        } else {
            // A longer chunk, to reach states that need many bytes.
            const size_t n = std::min<size_t>(512, size - i);
            terminal.feed(std::span<const uint8_t>(data + i, n));
            i += n;
        }
        checkInvariants(terminal);
    }
    (void)termkit::dumpScreen(terminal, true);
    return 0;
}
