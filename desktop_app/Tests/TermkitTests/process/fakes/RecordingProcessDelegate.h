#pragma once
// A process host that keeps everything it is told, in order.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Termkit/process/LocalProcess.h"

namespace termkit::testing {

class RecordingProcessDelegate : public LocalProcessDelegate {
public:
    /// "data" for each delivery and "exit" for the end, in the order they came.
    std::vector<std::string> events;
    std::string output;
    uint64_t deliveries = 0;
    int exits = 0;
    std::optional<int32_t> exitCode;
    std::vector<std::vector<uint8_t>> sent;
    std::optional<winsize> windowSize;
    /// Runs on each delivery, after it has been recorded.
    std::function<void(std::span<const uint8_t>)> onData;
    std::function<void(LocalProcess&)> onExit;
    /// Keeps only the byte count of each delivery, for floods.
    bool countOnly = false;
    uint64_t bytes = 0;

    void processTerminated(LocalProcess& source, std::optional<int32_t> code) override {
        events.push_back("exit");
        ++exits;
        exitCode = code;
        if (onExit)
            onExit(source);
    }
    void dataReceived(std::span<const uint8_t> slice) override {
        ++deliveries;
        bytes += slice.size();
        if (!countOnly) {
            if (events.empty() || events.back() != "data")
                events.push_back("data");
            output.append(reinterpret_cast<const char*>(slice.data()), slice.size());
        }
        if (onData)
            onData(slice);
    }
    void send(std::span<const uint8_t> data) override { sent.emplace_back(data.begin(), data.end()); }
    std::optional<winsize> getWindowSize() override { return windowSize; }

    /// The output split at line ends, carriage returns dropped.
    std::vector<std::string> lines() const {
        std::vector<std::string> out(1);
        for (char c : output) {
            if (c == '\r')
                continue;
            if (c == '\n') {
                out.emplace_back();
            } else {
                out.back() += c;
            }
        }
        if (out.back().empty())
            out.pop_back();
        return out;
    }
};

} // namespace termkit::testing
