#pragma once
// What the parser calls; the terminal implements it, tests record it.

#include <cstdint>
#include <span>

#include "Termkit/parser/CsiParameters.h"

namespace termkit {

class DcsHandler;

/// Target of the parser's dispatch. Every method does nothing by default, so a test or a
/// partial host only overrides what it needs.
class ParserDelegate {
public:
    virtual ~ParserDelegate() = default;
    /// A run of printable bytes from the ground state (may hold UTF-8, DEL and C1 bytes).
    virtual void print(std::span<const uint8_t> /*data*/) {}
    /// A run of printable ASCII only (0x20 to 0x7E), which the parser found while looking for
    /// its end anyway; by default the same as `print`.
    virtual void printAscii(std::span<const uint8_t> data) { print(data); }
    /// A sequence started or the parser was reset: carried partial characters are void.
    virtual void printStateReset() {}
    /// A C0 or C1 control to execute.
    virtual void dispatchExecute(uint8_t /*code*/) {}
    /// A complete CSI sequence with its final byte.
    virtual void dispatchCsi(uint8_t /*final*/, const CsiParameters& /*pars*/,
                             std::span<const uint8_t> /*collect*/) {}
    /// A complete ESC sequence.
    virtual void dispatchEsc(std::span<const uint8_t> /*collect*/, uint8_t /*final*/) {}
    /// An OSC string with a decimal code that no registered handler took.
    virtual void dispatchOsc(int /*code*/, std::span<const uint8_t> /*data*/) {}
    /// An APC string whose command byte is `G`, without that byte.
    virtual void handleKittyGraphics(std::span<const uint8_t> /*data*/) {}
    /// Handler for `DCS q` (sixel), or none.
    virtual DcsHandler* sixelDcsHandler() { return nullptr; }
    /// Handler for `DCS $ q` (status string request), or none.
    virtual DcsHandler* decrqssDcsHandler() { return nullptr; }
};

} // namespace termkit
