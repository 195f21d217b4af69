#pragma once
// Receiver of one device control string.

#include <cstdint>
#include <span>

#include "Termkit/parser/CsiParameters.h"

namespace termkit {

/// A handler made for one DCS string: hooked once, given the body in slices, then unhooked.
class DcsHandler {
public:
    virtual ~DcsHandler() = default;
    /// Start of the string, with its intermediates, parameters and final byte.
    virtual void hook(std::span<const uint8_t> collect, const CsiParameters& parameters, uint8_t flag) = 0;
    /// A slice of the body; called any number of times, at least once per chunk that carries body.
    virtual void put(std::span<const uint8_t> data) = 0;
    /// End of the string.
    virtual void unhook() = 0;
};

} // namespace termkit
