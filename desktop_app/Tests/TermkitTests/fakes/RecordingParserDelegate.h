#pragma once
// A parser delegate that writes every call as one readable line.

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Termkit/parser/DcsHandler.h"
#include "Termkit/parser/ParserDelegate.h"

namespace termkit::testing {

inline std::string bytesText(std::span<const uint8_t> data) {
    return std::string(data.begin(), data.end());
}

inline std::string parsText(const CsiParameters& pars) {
    std::string out;
    for (int i = 0; i < pars.count; ++i) {
        if (i > 0)
            out += static_cast<char>(pars.separators[i - 1]);
        out += std::to_string(pars.values[i]);
    }
    return out;
}

/// A DCS handler that records hook, each put and unhook into a shared log.
class RecordingDcsHandler : public DcsHandler {
public:
    explicit RecordingDcsHandler(std::vector<std::string>& log, std::string name)
        : m_log(log), m_name(std::move(name)) {}
    void hook(std::span<const uint8_t> collect, const CsiParameters& pars, uint8_t flag) override {
        m_log.push_back(m_name + ".hook(" + bytesText(collect) + "," + parsText(pars) + "," +
                        std::string(1, static_cast<char>(flag)) + ")");
    }
    void put(std::span<const uint8_t> data) override {
        m_log.push_back(m_name + ".put(" + bytesText(data) + ")");
    }
    void unhook() override { m_log.push_back(m_name + ".unhook"); }

private:
    std::vector<std::string>& m_log;
    std::string m_name;
};

/// Records print runs, controls and dispatched sequences as text lines.
class RecordingParserDelegate : public ParserDelegate {
public:
    std::vector<std::string> log;
    RecordingDcsHandler sixel{log, "sixel"};
    RecordingDcsHandler decrqss{log, "decrqss"};
    CsiParameters lastPars;

    void print(std::span<const uint8_t> data) override { log.push_back("print(" + bytesText(data) + ")"); }
    void printAscii(std::span<const uint8_t> data) override {
        asciiRuns.push_back(bytesText(data));
        print(data);
    }
    void printStateReset() override { ++printResets; }
    void dispatchExecute(uint8_t code) override { log.push_back("exec(" + std::to_string(code) + ")"); }
    void dispatchCsi(uint8_t final, const CsiParameters& pars, std::span<const uint8_t> collect) override {
        lastPars = pars;
        log.push_back("csi(" + bytesText(collect) + "," + parsText(pars) + "," +
                      std::string(1, static_cast<char>(final)) + ")");
    }
    void dispatchEsc(std::span<const uint8_t> collect, uint8_t final) override {
        log.push_back("esc(" + bytesText(collect) + "," + std::string(1, static_cast<char>(final)) + ")");
    }
    void dispatchOsc(int code, std::span<const uint8_t> data) override {
        log.push_back("osc(" + std::to_string(code) + "," + bytesText(data) + ")");
    }
    void handleKittyGraphics(std::span<const uint8_t> data) override {
        log.push_back("kitty(" + bytesText(data) + ")");
    }
    DcsHandler* sixelDcsHandler() override { return &sixel; }
    DcsHandler* decrqssDcsHandler() override { return &decrqss; }

    int printResets = 0;
    /// The runs that came as printable ASCII only.
    std::vector<std::string> asciiRuns;
};

} // namespace termkit::testing
