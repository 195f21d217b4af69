#pragma once
// Line-based golden scripts: feed bytes, then compare the whole visible state.
//
// A script file holds cases:
//
//   case NAME
//   size 20 4              the terminal's size (before the first feed)
//   option termName vt100  an option of the new terminal (termName, scrollback, convertEol,
//                          sixel, regionalIndicator, palette, history)
//   set send8bit on        a setting of the live terminal or its host (send8bit, trusted,
//                          cellSize W H, clipboard TEXT, windowReply TEXT, userScrolling)
//   feed hello\e[1mX       bytes with C escapes: \e \r \n \t \\ \xNN \uXXXX \UXXXXXXXX
//   resize 30 5
//   tick 500               moves the manual scheduler's clock (milliseconds)
//   expect                 everything below, up to the next case, is the expected state:
//   |hello                   screen rows (history rows first as ^text when "option history on")
//   cursor 0 6               cursor row and column
//   attrs 0: 5-5 0;1         attribute runs of a row
//   reply \e[0n              bytes sent to the program
//   event title x            what the host was told
//   log Info: ...            log lines
//
// Running the tests with TERMKIT_UPDATE_GOLDEN=1 rewrites the expected blocks from what
// the terminal does now; a person reviews the change before committing it.

#include <ostream>
#include <string>
#include <vector>

namespace termkit::testing {

struct GoldenCase {
    std::string file;
    std::string name;
    std::vector<std::string> steps;    // directive lines before `expect`
    std::vector<std::string> expected; // lines after `expect`
    int expectLine = 0;                // 0-based line of `expect` in the file
    int endLine = 0;                   // one past the last line of the case
};

/// Test names show the case, not its bytes.
inline void PrintTo(const GoldenCase& c, std::ostream* os) {
    *os << c.file << "/" << c.name;
}

/// Reads every case of every script in a folder.
std::vector<GoldenCase> loadGoldenCases(const std::string& folder);
/// Runs a case and returns the state lines in the expected format.
std::vector<std::string> runGoldenCase(const GoldenCase& c);
/// Decodes the escapes of a feed line into bytes.
std::string unescapeFeed(const std::string& text);

} // namespace termkit::testing
