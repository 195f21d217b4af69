#pragma once
// Where the core's informational log lines go.

#include <functional>
#include <string>
#include <string_view>

namespace termkit {

/// Receives one finished log line, prefix included.
using LogSink = std::function<void(std::string_view line)>;

/// Replaces the process-wide sink (standard output by default); returns the previous one.
LogSink setLogSink(LogSink sink);
/// Writes "Info: " and the message to the process-wide sink.
void logInfo(std::string_view message);

} // namespace termkit
