#include "Termkit/buffer/Log.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "Termkit/buffer/Invariant.h"

namespace termkit {

namespace {

std::mutex& sinkLock() {
    static std::mutex lock;
    return lock;
}

LogSink& sink() {
    static LogSink s = [](std::string_view line) {
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
    };
    return s;
}

} // namespace

LogSink setLogSink(LogSink next) {
    std::lock_guard<std::mutex> guard(sinkLock());
    LogSink previous = std::move(sink());
    sink() = std::move(next);
    return previous;
}

void logInfo(std::string_view message) {
    std::string line = "Info: ";
    line += message;
    std::lock_guard<std::mutex> guard(sinkLock());
    if (sink())
        sink()(line);
}

void invariantFailed(const std::string& message, const char* file, int line) {
    std::fprintf(stderr, "Termkit invariant failed at %s:%d: %s\n", file, line, message.c_str());
    std::abort();
}

} // namespace termkit
