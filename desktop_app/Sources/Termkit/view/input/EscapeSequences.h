#pragma once
// The byte strings the view sends for keys that have no text of their own.

#include <string_view>

namespace termkit::EscapeSequences {

inline constexpr std::string_view cmdNewLine = "\n";
inline constexpr std::string_view cmdRet = "\r";
inline constexpr std::string_view cmdEsc = "\x1b";
inline constexpr std::string_view cmdDel = "\x7f";
/// What Backspace sends instead of `cmdDel` when the host asks for ^H.
inline constexpr std::string_view cmdBackspaceControlH = "\x08";
inline constexpr std::string_view cmdDelKey = "\x1b[3~";

// Cursor keys: the application form (SS3) while the program has set application cursor
// mode, the normal form (CSI) otherwise.
inline constexpr std::string_view moveUpApp = "\x1bOA";
inline constexpr std::string_view moveDownApp = "\x1bOB";
inline constexpr std::string_view moveLeftApp = "\x1bOD";
inline constexpr std::string_view moveRightApp = "\x1bOC";
inline constexpr std::string_view moveUpNormal = "\x1b[A";
inline constexpr std::string_view moveDownNormal = "\x1b[B";
inline constexpr std::string_view moveLeftNormal = "\x1b[D";
inline constexpr std::string_view moveRightNormal = "\x1b[C";
inline constexpr std::string_view moveHomeApp = "\x1bOH";
inline constexpr std::string_view moveEndApp = "\x1bOF";
inline constexpr std::string_view moveHomeNormal = "\x1b[H";
inline constexpr std::string_view moveEndNormal = "\x1b[F";

inline constexpr std::string_view cmdTab = "\t";
inline constexpr std::string_view cmdBackTab = "\x1b[Z";
inline constexpr std::string_view cmdPageUp = "\x1b[5~";
inline constexpr std::string_view cmdPageDown = "\x1b[6~";
inline constexpr std::string_view cmdInsert = "\x1b[2~";

// Word motion as readline and emacs understand it, sent for Alt with the arrows.
inline constexpr std::string_view emacsBack = "\x1b"
                                              "b";
inline constexpr std::string_view emacsForward = "\x1b"
                                                 "f";
inline constexpr std::string_view controlLeft = "\x1b[1;5D";
inline constexpr std::string_view controlRight = "\x1b[1;5C";

inline constexpr std::string_view bracketedPasteStart = "\x1b[200~";
inline constexpr std::string_view bracketedPasteEnd = "\x1b[201~";

/// F1 to F12, in order: the first four in their SS3 form, the rest as CSI numbers with the
/// historical gaps (no 16, no 22).
inline constexpr std::string_view cmdF[12] = {
    "\x1bOP",   "\x1bOQ",   "\x1bOR",   "\x1bOS",   "\x1b[15~", "\x1b[17~",
    "\x1b[18~", "\x1b[19~", "\x1b[20~", "\x1b[21~", "\x1b[23~", "\x1b[24~",
};

} // namespace termkit::EscapeSequences
