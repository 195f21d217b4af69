// termkit-dump --visual against GNU FriBidi's command-line tool, an independent
// implementation of the same algorithm, used as a black box: both get the same logical
// text; the rows must read the same. Where the two differ by design, the test says so.

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// A folder of its own for the inputs, removed at the end.
class TempDir {
public:
    TempDir() {
        std::string pattern = "/tmp/termkit-bidi-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr)
            m_path = pattern;
    }
    ~TempDir() {
        if (!m_path.empty())
            std::system(("rm -rf '" + m_path + "'").c_str());
    }
    std::string write(const std::string& name, const std::string& bytes) const {
        const std::string path = m_path + "/" + name;
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

private:
    std::string m_path;
};

std::string run(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return out;
    std::array<char, 4096> chunk{};
    size_t n = 0;
    while ((n = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0)
        out.append(chunk.data(), n);
    pclose(pipe);
    return out;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find('\n', start);
        out.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    return out;
}

std::string trimRight(std::string s) {
    while (!s.empty() && s.back() == ' ')
        s.pop_back();
    return s;
}

// FriBidi puts a lam-alef ligature where the alef was, marks the lam's place with U+FEFF
// and gives the pair one column, padding a right-aligned line with one more space; the
// terminal keeps the ligature in the lam's cell and leaves the alef's cell blank, just left
// of it. The filler, that extra padding and the blank cell are dropped before comparing,
// which compares everything else.
std::string withoutLigatureFiller(std::string s, bool fribidiOutput) {
    if (fribidiOutput) {
        for (size_t at = s.find("\xef\xbb\xbf"); at != std::string::npos;
             at = s.find("\xef\xbb\xbf", at + 1)) {
            if (!s.empty() && s.front() == ' ') {
                s.erase(0, 1);
                --at;
            }
        }
    }
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (fribidiOutput && s.compare(i, 3, "\xef\xbb\xbf") == 0) {
            i += 2;
            continue;
        }
        const bool blankBeforeLigature =
            !fribidiOutput && s[i] == ' ' && i + 3 < s.size() &&
            static_cast<unsigned char>(s[i + 1]) == 0xef && static_cast<unsigned char>(s[i + 2]) == 0xbb &&
            static_cast<unsigned char>(s[i + 3]) >= 0xb5 && static_cast<unsigned char>(s[i + 3]) <= 0xbc;
        if (!blankBeforeLigature)
            out += s[i];
    }
    return out;
}

// Scalars of a UTF-8 string, each as its own string.
std::vector<std::string> scalars(const std::string& text) {
    std::vector<std::string> out;
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const size_t n = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        out.push_back(text.substr(i, n));
        i += n;
    }
    return out;
}

class VisualOrderReferenceTest : public ::testing::Test {
protected:
    std::vector<std::string> dumpVisual(const std::string& bytes, int cols, int rows, bool visual = true) {
        const std::string path = m_dir.write("input", bytes);
        const std::string out =
            run(std::string(TERMKIT_DUMP) + (visual ? " --visual" : "") + " --cols " + std::to_string(cols) +
                " --rows " + std::to_string(rows) + " '" + path + "'");
        std::vector<std::string> result = lines(out);
        if (!result.empty())
            result.pop_back(); // the cursor line
        return result;
    }
    // FriBidi's visual line for one paragraph, right-aligned in `cols` when right-to-left.
    std::string fribidi(const std::string& logical, int cols, const std::string& direction = "") {
        const std::string path = m_dir.write("fribidi-input", logical + "\n");
        return trimRight(
            lines(run("fribidi --width " + std::to_string(cols) + " " + direction + " '" + path + "'"))
                .at(0));
    }
    std::string baseDirection(const std::string& logical) {
        const std::string path = m_dir.write("fribidi-input", logical + "\n");
        return run("fribidi --basedir --novisual '" + path + "'");
    }

    TempDir m_dir;
};

TEST_F(VisualOrderReferenceTest, FribidiIsThere) {
    ASSERT_NE(run("fribidi --version"), "") << "fribidi (Debian libfribidi-bin) is part of the bootstrap";
}

TEST_F(VisualOrderReferenceTest, SingleRowsReadAsFribidiReadsThem) {
    constexpr int kCols = 30;
    const std::vector<std::string> paragraphs = {
        "abc \xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d def",                          // Hebrew in Latin
        "\xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d \xd7\xa2\xd7\x95\xd7\x9c\xd7\x9d", // Hebrew only
        "\xd7\x90\xd7\x91 123 cd",                                           // numbers, Latin
        "\xd7\xa2\xd7\x91\xd7\xa8\xd7\x99\xd7\xaa English \xd7\xa2\xd7\x91\xd7\xa8\xd7\x99\xd7\xaa",
        "x = (\xd7\x90\xd7\x91\xd7\x92) + 5",               // brackets in LTR
        "\xd7\x9e\xd7\x97\xd7\x99\xd7\xa8 (42) [\xd7\x90]", // mirrored brackets
        "\xd9\x85\xd8\xb1\xd8\xad\xd8\xa8\xd8\xa7 \xd8\xa8\xd8\xa7\xd9\x84\xd8\xb9\xd8\xa7\xd9\x84\xd9\x85",
        "\xd8\xb3\xd9\x84\xd8\xa7\xd9\x85 \xd8\xb9\xd9\x84\xd9\x8a\xd9\x83\xd9\x85", // lam-alef
        "\xd8\xa7\xd9\x84\xd8\xb9\xd8\xaf\xd8\xaf 3.14 \xd9\x88 2025",               // Arabic and numbers
        "\xd9\xa3\xd9\xa4\xd9\xa5 \xd8\xb9\xd8\xb1\xd8\xa8\xd9\x8a",                 // Arabic-Indic digits
        "ls -la \xd8\xaa\xd8\xb7\xd8\xa8\xd9\x8a\xd9\x82 v2.0",                      // a command line
        "plain ascii text only",
    };
    std::string input;
    for (const std::string& p : paragraphs)
        input += p + "\r\n";
    const std::vector<std::string> rows = dumpVisual(input, kCols, static_cast<int>(paragraphs.size()) + 1);
    ASSERT_EQ(rows.size(), paragraphs.size() + 1);
    for (size_t i = 0; i < paragraphs.size(); ++i) {
        SCOPED_TRACE(paragraphs[i]);
        EXPECT_EQ(withoutLigatureFiller(rows[i], false),
                  withoutLigatureFiller(fribidi(paragraphs[i], kCols), true));
    }
}

TEST_F(VisualOrderReferenceTest, WrappedParagraphsReadRowByRowInTheParagraphsDirection) {
    // FriBidi breaks a long line from the visual left; a terminal wraps in logical order, so
    // its first row holds the logically first text. The reference is therefore FriBidi's
    // direction for the whole paragraph, and each row's text laid out in that direction.
    struct Case {
        std::string text;
        int cols;
    };
    const std::vector<Case> cases = {
        // Arabic words ending at the row edge, then a Latin word that alone would be LTR.
        {"\xd8\xa8\xd8\xa8\xd8\xa8\xd8\xa8 \xd8\xb3\xd8\xb3\xd8\xb3 abc", 8},
        // Hebrew over three rows, words cut at the edges.
        {"\xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d \xd7\xa2\xd7\x95\xd7\x9c\xd7\x9d \xd7\x95\xd7\x9e\xd7\x94 "
         "\xd7\xa9\xd7\x9c\xd7\x95\xd7\x9e\xd7\x9a \xd7\x94\xd7\x99\xd7\x95\xd7\x9d",
         10},
        // A left-to-right paragraph with Hebrew and numbers across the edge.
        {"abc \xd7\x90\xd7\x91\xd7\x92 \xd7\x93\xd7\x94\xd7\x95 123 zz \xd7\x96\xd7\x97 end", 12},
        // Arabic with a number cut at the edge; words end at the edges, since FriBidi laying
        // out a row alone cannot know that a letter joins one on the next row.
        {"\xd9\x85\xd8\xb1\xd8\xad\xd8\xa8\xd8\xa7 \xd8\xa7\xd9\x84\xd8\xb9\xd8\xa7\xd9\x84\xd9\x85 "
         "\xd8\xb1\xd9\x82\xd9\x85 42 \xd9\x87\xd9\x86\xd8\xa7",
         6},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const std::vector<std::string> chars = scalars(c.text);
        const int rowCount =
            static_cast<int>((chars.size() + static_cast<size_t>(c.cols) - 1) / static_cast<size_t>(c.cols));
        const std::vector<std::string> rows = dumpVisual(c.text, c.cols, rowCount + 1);
        ASSERT_EQ(rows.size(), static_cast<size_t>(rowCount + 1));
        const std::string direction =
            baseDirection(c.text).find(": R") != std::string::npos ? "--rtl" : "--ltr";
        for (int r = 0; r < rowCount; ++r) {
            std::string logicalRow;
            for (size_t k = static_cast<size_t>(r * c.cols);
                 k < chars.size() && k < static_cast<size_t>((r + 1) * c.cols); ++k)
                logicalRow += chars[k];
            SCOPED_TRACE(r);
            EXPECT_EQ(withoutLigatureFiller(rows[static_cast<size_t>(r)], false),
                      withoutLigatureFiller(fribidi(logicalRow, c.cols, direction), true));
        }
    }
}

TEST_F(VisualOrderReferenceTest, ExplicitModeLeavesTheApplicationsOrderAlone) {
    // An application that orders its own text: what it wrote is what is shown.
    const std::string text = "\x1b[8l\xd7\x9d\xd7\x95\xd7\x9c\xd7\xa9 abc \xd8\xa8\xd8\xa8 (1)\r\n"
                             "\xd7\x90\xd7\x91\xd7\x92 123";
    const std::vector<std::string> visual = dumpVisual(text, 20, 3);
    const std::vector<std::string> logical = dumpVisual(text, 20, 3, false);
    ASSERT_EQ(visual.size(), 3U);
    EXPECT_EQ(visual, logical);
    EXPECT_EQ(visual[1], "\xd7\x90\xd7\x91\xd7\x92 123");
    // The same text in the implicit mode is reordered, so the comparison above can fail.
    const std::vector<std::string> implicit = dumpVisual(text.substr(std::string("\x1b[8l").size()), 20, 3);
    EXPECT_NE(implicit, logical);
}

} // namespace
