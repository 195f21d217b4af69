#pragma once
// Helpers shared by the process layer's tests: running a loop until something holds, and
// reading a terminal's lines.

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "Termkit/engine/ScreenText.h"
#include "Termkit/engine/Terminal.h"

namespace termkit::testing {

/// Generous: these waits end as soon as the awaited thing happens.
inline constexpr std::chrono::milliseconds kWait{20000};

/// Every line of the active buffer, scrollback included, trailing blanks trimmed.
inline std::vector<std::string> allLines(const Terminal& terminal) {
    const Buffer& buffer = terminal.buffer();
    std::vector<std::string> lines;
    for (LineIndex i(0); i.value < buffer.lineCount(); ++i)
        lines.push_back(rowText(buffer.line(i), terminal.tables().characters));
    return lines;
}

inline bool hasLine(const Terminal& terminal, const std::string& text) {
    const auto lines = allLines(terminal);
    return std::find(lines.begin(), lines.end(), text) != lines.end();
}

inline bool hasLine(const std::vector<std::string>& lines, const std::string& text) {
    return std::find(lines.begin(), lines.end(), text) != lines.end();
}

/// A fresh directory under the system's temporary folder.
inline std::string makeTempDir() {
    std::string pattern = "/tmp/termkit-process-XXXXXX";
    const char* made = mkdtemp(pattern.data());
    return made != nullptr ? std::string(made) : std::string();
}

/// How many descriptors this process has open.
inline size_t openDescriptorCount() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

/// Whether `pid` names no process any more (not even a zombie).
inline bool processIsGone(pid_t pid) {
    return access(("/proc/" + std::to_string(pid)).c_str(), F_OK) != 0;
}

} // namespace termkit::testing
