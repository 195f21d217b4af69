#pragma once
// Byte stream to terminal calls: a table-driven VT500-family state machine.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "Termkit/parser/CsiParameters.h"
#include "Termkit/parser/ParserState.h"
#include "Termkit/parser/TransitionTable.h"

namespace termkit {

class DcsHandler;
class ParserDelegate;

/// What the error handler is told about a byte that the table calls an error.
struct ParsingState {
    int position = 0; // index of the byte in the chunk
    uint8_t code = 0; // the byte
    ParserState currentState = ParserState::ground;
    int print = -1; // start of the pending print run, or -1
    int dcs = -1;   // start of the pending DCS span, or -1
    std::vector<uint8_t> osc;
    std::vector<uint8_t> apc;
    std::vector<uint8_t> collect;
    std::vector<int32_t> parameters; // passed empty
    bool abort = false;              // set by the handler to stop parsing this chunk
};

/// Reads a decimal number from ASCII digits; nothing for an empty slice, a non-digit or
/// a value that needs more than 63 bits.
std::optional<int64_t> parseDecimal(std::span<const uint8_t> digits);

/// The escape sequence parser. It works on bytes; UTF-8 is decoded by the print path.
/// Everything but partial UTF-8 characters is kept across `parse` calls, so a sequence
/// may be cut anywhere between two chunks.
class EscapeSequenceParser {
public:
    using OscHandler = std::function<void(std::span<const uint8_t>)>;

    explicit EscapeSequenceParser(ParserDelegate* delegate);

    /// Runs the machine over one chunk. The only entry point; not re-entrant.
    void parse(std::span<const uint8_t> data);
    /// Back to the initial state, dropping everything collected and any DCS handler.
    void reset();

    /// Registers a handler for an OSC code; it wins over the terminal's own handling, and a
    /// later registration for the same code replaces the earlier one.
    void registerOscHandler(int code, OscHandler handler) { m_oscHandlers[code] = std::move(handler); }

    /// Separators of the sequence being dispatched (`;` or `:`), one per parameter after the first.
    std::span<const uint8_t> parsTxt() const { return m_pars.separatorSpan(); }
    /// Parameters of the sequence being dispatched.
    const CsiParameters& pars() const { return m_pars; }
    /// Intermediate and private-marker bytes of the sequence being dispatched.
    std::span<const uint8_t> collect() const { return m_collect.bytes; }

    /// The state the machine is in between chunks.
    ParserState currentState() const { return m_currentState; }

    /// Told of every byte the table calls an error; it may ask to abort the chunk.
    void setErrorHandler(std::function<ParsingState(ParsingState)> handler) {
        m_errorHandler = std::move(handler);
    }
    /// Told of an APC string that is not kitty graphics.
    void setApcFallback(std::function<void(uint8_t command, std::span<const uint8_t> data)> fallback) {
        m_apcFallback = std::move(fallback);
    }
    /// Told of a DCS string that no handler takes.
    void setDcsFallback(std::function<void(std::span<const uint8_t> collect, uint8_t final)> fallback) {
        m_dcsFallback = std::move(fallback);
    }

private:
    // A byte vector whose content at the start of a chunk can be restored when the error
    // handler aborts. Clearing swaps the old content aside instead of freeing it, so the
    // snapshot costs nothing and steady parsing allocates nothing.
    struct RestorableBytes {
        std::vector<uint8_t> bytes;
        std::vector<uint8_t> spare;
        size_t sizeAtStart = 0;
        bool swapped = false;
        // A spare that once held a huge string is not kept for ever.
        static constexpr size_t kSpareRetainLimit = 1 << 20;
        void begin() {
            sizeAtStart = bytes.size();
            swapped = false;
            if (spare.capacity() > kSpareRetainLimit)
                std::vector<uint8_t>().swap(spare);
        }
        void clear() {
            if (!swapped && !bytes.empty()) {
                std::swap(bytes, spare);
                swapped = true;
            }
            bytes.clear();
        }
        void restore() {
            if (swapped)
                std::swap(bytes, spare);
            bytes.resize(sizeAtStart);
            swapped = false;
        }
    };

    void beginChunk();
    void restoreChunkStart();
    void clearCollected();
    void endString(ParserState state, uint8_t terminator);
    void hookDcs(uint8_t final);
    void dispatchOscString();
    void dispatchApcString();
    void appendParameterByte(uint8_t code);
    int readPlainCsi(const uint8_t* data, int i, int length);
    int readSimpleCsi(const uint8_t* data, int i, int length);

    RestorableBytes m_osc;
    RestorableBytes m_apc;
    RestorableBytes m_collect;
    CsiParameters m_pars;
    bool m_parameterLimitExceeded = false;

    // Scalars of the chunk start, for an aborting error handler.
    ParserState m_stateAtStart = ParserState::ground;
    CsiParameters m_parsAtStart;
    bool m_limitAtStart = false;
    DcsHandler* m_dcsAtStart = nullptr;

    const TransitionTable& m_table;
    ParserDelegate* m_delegate;
    std::unordered_map<int, OscHandler> m_oscHandlers;
    DcsHandler* m_activeDcsHandler = nullptr;
    std::function<ParsingState(ParsingState)> m_errorHandler;
    std::function<void(uint8_t command, std::span<const uint8_t> data)> m_apcFallback;
    std::function<void(std::span<const uint8_t> collect, uint8_t final)> m_dcsFallback;
    ParserState m_initialState = ParserState::ground;
    ParserState m_currentState = ParserState::ground;
};

} // namespace termkit
