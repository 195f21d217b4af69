#include "Termkit/parser/EscapeSequenceParser.h"

#include <algorithm>

#include "Termkit/parser/ByteScan.h"
#include "Termkit/parser/DcsHandler.h"
#include "Termkit/parser/ParserDelegate.h"
#include "Termkit/parser/ParserProfile.h"

namespace termkit {

namespace {

constexpr uint8_t kBel = 0x07;
constexpr uint8_t kCan = 0x18;
constexpr uint8_t kSub = 0x1A;
constexpr uint8_t kEsc = 0x1B;

std::span<const uint8_t> slice(const uint8_t* data, int start, int end) {
    return {data + start, static_cast<size_t>(end - start)};
}

} // namespace

std::optional<int64_t> parseDecimal(std::span<const uint8_t> digits) {
    if (digits.empty())
        return std::nullopt;
    constexpr int64_t kLimit = INT64_MAX;
    int64_t value = 0;
    for (uint8_t c : digits) {
        if (c < '0' || c > '9')
            return std::nullopt;
        const int d = c - '0';
        if (value > (kLimit - d) / 10)
            return std::nullopt;
        value = value * 10 + d;
    }
    return value;
}

EscapeSequenceParser::EscapeSequenceParser(ParserDelegate* target)
    : m_table(sharedVt500Table()), m_delegate(target) {
    // Capacity for the usual sizes up front, so that steady parsing never allocates.
    m_collect.bytes.reserve(16);
    m_collect.spare.reserve(16);
    m_osc.bytes.reserve(256);
    m_osc.spare.reserve(256);
}

void EscapeSequenceParser::reset() {
    m_currentState = m_initialState;
    m_osc.bytes.clear();
    m_apc.bytes.clear();
    m_collect.bytes.clear();
    m_pars.reset();
    m_parameterLimitExceeded = false;
    m_activeDcsHandler = nullptr;
    if (m_delegate != nullptr)
        m_delegate->printStateReset();
}

void EscapeSequenceParser::beginChunk() {
    m_osc.begin();
    m_apc.begin();
    m_collect.begin();
    m_stateAtStart = m_currentState;
    m_parsAtStart = m_pars;
    m_limitAtStart = m_parameterLimitExceeded;
    m_dcsAtStart = m_activeDcsHandler;
}

void EscapeSequenceParser::restoreChunkStart() {
    m_osc.restore();
    m_apc.restore();
    m_collect.restore();
    m_currentState = m_stateAtStart;
    m_pars = m_parsAtStart;
    m_parameterLimitExceeded = m_limitAtStart;
    m_activeDcsHandler = m_dcsAtStart;
}

void EscapeSequenceParser::clearCollected() {
    m_osc.clear();
    m_apc.clear();
    m_collect.clear();
    m_pars.reset();
    m_parameterLimitExceeded = false;
}

void EscapeSequenceParser::appendParameterByte(uint8_t code) {
    if (code == ';' || code == ':') {
        if (m_pars.count < CsiParameters::kMaxCount && !m_parameterLimitExceeded) {
            m_pars.separators[m_pars.count - 1] = code;
            m_pars.values[m_pars.count++] = 0;
        } else {
            m_parameterLimitExceeded = true;
        }
        return;
    }
    if (m_parameterLimitExceeded)
        return;
    // A value never exceeds the maximum, so v * 10 + d cannot overflow; taking the minimum
    // is the same as saturating once v > (max - d) / 10.
    const int d = code - '0';
    int32_t& v = m_pars.values[m_pars.count - 1];
    v = std::min(v * 10 + d, CsiParameters::kMaxValue);
}

void EscapeSequenceParser::dispatchOscString() {
    const std::vector<uint8_t>& body = m_osc.bytes;
    const auto semicolon = std::find(body.begin(), body.end(), ';');
    const auto code = parseDecimal(std::span<const uint8_t>(body.data(), semicolon - body.begin()));
    // A string without a decimal code is dropped without a word: it is nothing we know.
    if (!code || *code > INT32_MAX)
        return;
    std::span<const uint8_t> data;
    if (semicolon != body.end()) {
        data = std::span<const uint8_t>(&*semicolon + 1, body.end() - semicolon - 1);
    }
    const int number = static_cast<int>(*code);
    if (auto it = m_oscHandlers.find(number); it != m_oscHandlers.end()) {
        it->second(data);
        return;
    }
    if (m_delegate != nullptr)
        m_delegate->dispatchOsc(number, data);
}

void EscapeSequenceParser::dispatchApcString() {
    const std::vector<uint8_t>& body = m_apc.bytes;
    const uint8_t command = body[0];
    const std::span<const uint8_t> data(body.data() + 1, body.size() - 1);
    if (command == 'G') {
        if (m_delegate != nullptr)
            m_delegate->handleKittyGraphics(data);
    } else if (m_apcFallback) {
        m_apcFallback(command, data);
    }
}

void EscapeSequenceParser::endString(ParserState state, uint8_t terminator) {
    const bool cancelled = terminator == kCan || terminator == kSub;
    if (!cancelled) {
        if (state == ParserState::apcString) {
            if (!m_apc.bytes.empty())
                dispatchApcString();
        } else if (!m_osc.bytes.empty()) {
            dispatchOscString();
        }
    }
    if (m_delegate != nullptr)
        m_delegate->printStateReset();
    clearCollected();
}

void EscapeSequenceParser::hookDcs(uint8_t final) {
    m_activeDcsHandler = nullptr;
    if (m_parameterLimitExceeded || m_delegate == nullptr)
        return;
    const std::vector<uint8_t>& collect = m_collect.bytes;
    if (final == 'q' && collect.empty()) {
        m_activeDcsHandler = m_delegate->sixelDcsHandler();
    } else if (final == 'q' && collect.size() == 1 && collect[0] == '$') {
        m_activeDcsHandler = m_delegate->decrqssDcsHandler();
    } else if (m_dcsFallback) {
        m_dcsFallback(collect, final);
    }
    if (m_activeDcsHandler != nullptr)
        m_activeDcsHandler->hook(collect, m_pars, final);
}

int EscapeSequenceParser::readPlainCsi(const uint8_t* data, int i, int length) {
    // The commonest shape by far, `ESC [ digits (; digits)* final` (SGR, cursor moves), read
    // straight into the parameters. Anything else (a marker, a colon, an intermediate, too
    // many parameters, the end of the chunk) returns 0 for `readSimpleCsi`, which starts over.
    const uint8_t* p = data + i + 2;
    const uint8_t* const end = data + length;
    if (p >= end || data[i + 1] != '[')
        return 0;
    if (!m_osc.bytes.empty() || !m_apc.bytes.empty() || !m_collect.bytes.empty()) [[unlikely]]
        return 0;
    int32_t* values = m_pars.values.data();
    uint8_t* separators = m_pars.separators.data();
    int count = 0;
    for (;;) {
        int32_t value = 0;
        unsigned digit;
        // Four digits stay below the maximum; only longer numbers need saturating.
        int digits = 0;
        while (p < end && (digit = static_cast<unsigned>(*p) - '0') <= 9) {
            value = value * 10 + static_cast<int32_t>(digit);
            if (++digits > 4)
                value = std::min(value, CsiParameters::kMaxValue);
            ++p;
        }
        if (p >= end)
            return 0;
        values[count++] = value;
        const uint8_t b = *p;
        if (b == ';') {
            if (count == CsiParameters::kMaxCount)
                return 0;
            separators[count - 1] = ';';
            ++p;
            continue;
        }
        if (b < 0x40 || b > 0x7E)
            return 0;
        m_pars.count = count;
        m_parameterLimitExceeded = false;
        return static_cast<int>(p - data);
    }
}

int EscapeSequenceParser::readSimpleCsi(const uint8_t* data, int i, int length) {
    // Reads `ESC [ marker? params* intermediates* final` in one pass, collecting as it goes.
    // On anything else it gives up; the table path then starts at the ESC, whose clear
    // discards what was collected here.
    int j = i + 1;
    if (j + 1 >= length || data[j] != '[')
        return 0;
    ++j;
    if (!m_osc.bytes.empty() || !m_apc.bytes.empty()) {
        clearCollected();
    } else {
        m_collect.clear();
        m_pars.reset();
        m_parameterLimitExceeded = false;
    }
    uint8_t b = data[j];
    if (b >= 0x3C && b <= 0x3F) {
        m_collect.bytes.push_back(b);
        ++j;
    } else if (b == ':') {
        return 0; // a colon right after the introducer is an error the table reports
    }
    int32_t* values = m_pars.values.data();
    int count = 1;
    bool limit = false;
    // The parameter being read stays in a register until its separator; past the limit the
    // sequence will be dropped, so its values no longer matter.
    int32_t current = 0;
    for (; j < length; ++j) {
        b = data[j];
        const unsigned digit = static_cast<unsigned>(b) - '0';
        if (digit <= 9) {
            current = std::min(current * 10 + static_cast<int32_t>(digit), CsiParameters::kMaxValue);
        } else if (b == ';' || b == ':') {
            if (count < CsiParameters::kMaxCount && !limit) {
                values[count - 1] = current;
                m_pars.separators[count - 1] = b;
                ++count;
                current = 0;
            } else {
                limit = true;
            }
        } else {
            break;
        }
    }
    values[count - 1] = current;
    m_pars.count = count;
    m_parameterLimitExceeded = limit;
    for (; j < length && data[j] >= 0x20 && data[j] <= 0x2F; ++j)
        m_collect.bytes.push_back(data[j]);
    if (j >= length || data[j] < 0x40 || data[j] > 0x7E)
        return 0;
    return j;
}

void EscapeSequenceParser::parse(std::span<const uint8_t> input) {
    ParserProfileScope profile(input.size());
    beginChunk();
    const uint8_t* const data = input.data();
    const int length = static_cast<int>(input.size());
    ParserState state = m_currentState;
    int printStart = -1;
    // Whether the pending print run is printable ASCII only.
    bool printIsAscii = false;
    int dcsStart = -1;

    auto flushPrint = [&](int end) {
        if (printStart >= 0) {
            if (m_delegate != nullptr) {
                if (printIsAscii) {
                    m_delegate->printAscii(slice(data, printStart, end));
                } else {
                    m_delegate->print(slice(data, printStart, end));
                }
            }
            printStart = -1;
        }
    };

    for (int i = 0; i < length; ++i) {
        const uint8_t code = data[i];

        // Printable text in the ground state never touches the table: C1 and UTF-8 bytes
        // reach the print path as they are.
        // The scan first looks for anything but printable ASCII, so that the print path need
        // not look again when the run is plain.
        if (state == ParserState::ground && code > 0x1F) {
            const uint8_t* const end = data + length;
            const uint8_t* q = findNonPrintableAscii(data + i, end);
            bool ascii = true;
            if ((q < end) && *q > 0x1F) {
                ascii = false;
                q = findControl(q + 1, end);
            }
            if (printStart < 0) {
                printStart = i;
                printIsAscii = ascii;
            } else {
                printIsAscii = printIsAscii && ascii;
            }
            i = static_cast<int>(q - data) - 1;
            continue;
        }
        // A whole CSI sequence in the chunk is read without the table: the same clears, the same
        // parameter rules and the same dispatch as the machine would do byte by byte. Anything
        // unusual inside it (controls, DEL, a marker after a parameter) takes the table path.
        if (code == kEsc && state == ParserState::ground) {
            int end = readPlainCsi(data, i, length);
            if (end == 0)
                end = readSimpleCsi(data, i, length);
            if (end > 0) {
                flushPrint(i);
                if (m_delegate != nullptr) {
                    m_delegate->printStateReset();
                    m_delegate->printStateReset();
                }
                dcsStart = -1;
                if (!m_parameterLimitExceeded && m_delegate != nullptr)
                    m_delegate->dispatchCsi(data[end], m_pars, m_collect.bytes);
                i = end;
                continue;
            }
        }
        // Parameter digits are the commonest bytes of a sequence; they skip the table too.
        if (state == ParserState::csiParam && code >= '0' && code <= '9') {
            if (!m_parameterLimitExceeded) {
                const int d = code - '0';
                int32_t& v = m_pars.values[m_pars.count - 1];
                v = std::min(v * 10 + d, CsiParameters::kMaxValue);
            }
            continue;
        }

        const uint8_t entry = m_table.table[static_cast<int>(state) << 8 | std::min<uint8_t>(code, 0xA0)];
        const auto action = static_cast<ParserAction>(entry >> 4);
        auto next = static_cast<ParserState>(entry & 0x0F);

        switch (action) {
        case ParserAction::ignore:
            if (printStart >= 0) {
                flushPrint(i);
            } else if (dcsStart >= 0 && m_activeDcsHandler != nullptr) {
                m_activeDcsHandler->put(slice(data, dcsStart, i));
                dcsStart = -1;
            }
            break;
        case ParserAction::print:
            if (printStart < 0)
                printStart = i;
            printIsAscii = false;
            break;
        case ParserAction::execute:
            flushPrint(i);
            if (m_delegate != nullptr)
                m_delegate->dispatchExecute(code);
            break;
        case ParserAction::oscStart:
            flushPrint(i);
            if (next == ParserState::apcString) {
                m_apc.clear();
            } else {
                m_osc.clear();
            }
            break;
        case ParserAction::oscPut: {
            // The body is taken in one inner loop; other controls inside it are dropped, so
            // SUB and the 8-bit ST stop nothing once the body has begun.
            std::vector<uint8_t>& body = state == ParserState::apcString ? m_apc.bytes : m_osc.bytes;
            int j = i;
            while (j < length) {
                const uint8_t c = data[j];
                if (c == kBel || c == kCan || c == kEsc)
                    break;
                if (c > 0x1F)
                    body.push_back(c);
                ++j;
            }
            i = j - 1;
            next = state;
            break;
        }
        case ParserAction::oscEnd:
            endString(state, code);
            if (code == kEsc)
                next = ParserState::escape;
            break;
        case ParserAction::csiDispatch:
            // A sequence with too many parameters is swallowed whole.
            if (!m_parameterLimitExceeded && m_delegate != nullptr) {
                m_delegate->dispatchCsi(code, m_pars, m_collect.bytes);
            }
            break;
        case ParserAction::param:
            appendParameterByte(code);
            break;
        case ParserAction::collect:
            m_collect.bytes.push_back(code);
            break;
        case ParserAction::escDispatch:
            if (m_delegate != nullptr)
                m_delegate->dispatchEsc(m_collect.bytes, code);
            break;
        case ParserAction::clear:
            flushPrint(i);
            clearCollected();
            if (m_delegate != nullptr)
                m_delegate->printStateReset();
            dcsStart = -1;
            break;
        case ParserAction::dcsHook:
            hookDcs(code);
            break;
        case ParserAction::dcsPut:
            if (dcsStart < 0)
                dcsStart = i;
            break;
        case ParserAction::dcsUnhook:
            if (m_activeDcsHandler != nullptr) {
                if (dcsStart >= 0)
                    m_activeDcsHandler->put(slice(data, dcsStart, i));
                m_activeDcsHandler->unhook();
                m_activeDcsHandler = nullptr;
            }
            dcsStart = -1;
            if (m_delegate != nullptr)
                m_delegate->printStateReset();
            clearCollected();
            if (code == kEsc)
                next = ParserState::escape;
            break;
        case ParserAction::error:
            if (code > 0x9F) {
                if (state == ParserState::ground) {
                    if (printStart < 0)
                        printStart = i;
                    printIsAscii = false;
                    break;
                }
                if (state == ParserState::csiIgnore || state == ParserState::dcsIgnore) {
                    next = state;
                    break;
                }
                if (state == ParserState::dcsPassthrough) {
                    if (dcsStart < 0)
                        dcsStart = i;
                    next = state;
                    break;
                }
            }
            if (m_errorHandler) {
                ParsingState report;
                report.position = i;
                report.code = code;
                report.currentState = state;
                report.print = printStart;
                report.dcs = dcsStart;
                report.osc = m_osc.bytes;
                report.apc = m_apc.bytes;
                report.collect = m_collect.bytes;
                const ParsingState answer = m_errorHandler(std::move(report));
                if (answer.abort) {
                    restoreChunkStart();
                    return;
                }
            }
            break;
        }
        state = next;
    }

    if (state == ParserState::ground) {
        flushPrint(length);
    } else if (state == ParserState::dcsPassthrough && dcsStart >= 0 && m_activeDcsHandler != nullptr) {
        m_activeDcsHandler->put(slice(data, dcsStart, length));
    }
    m_currentState = state;
}

} // namespace termkit
