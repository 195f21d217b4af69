#pragma once
// Parameters of a control sequence as the parser collected them.

#include <array>
#include <cstdint>
#include <span>

namespace termkit {

/// The numeric parameters of a CSI or DCS sequence and the separator before each one.
struct CsiParameters {
    /// A sequence carries at most this many parameters; one more drops the whole sequence.
    static constexpr int kMaxCount = 24;
    /// Parameter values saturate here instead of overflowing.
    static constexpr int32_t kMaxValue = 65535;

    std::array<int32_t, kMaxCount> values{};
    /// Separators met, `;` or `:`, one for each parameter after the first.
    std::array<uint8_t, kMaxCount - 1> separators{};
    /// Never 0: a fresh sequence holds the single parameter 0.
    int count = 1;

    /// Back to the state of a fresh sequence: one parameter, 0.
    void reset() {
        values[0] = 0;
        count = 1;
    }
    /// Value of parameter `i`, or `fallback` when there are fewer parameters.
    int32_t at(int i, int32_t fallback = 0) const { return i < count ? values[i] : fallback; }
    /// Value of parameter `i` where 0 and absence both mean `fallback` (cursor counts and such).
    int32_t atLeast1(int i, int32_t fallback = 1) const {
        const int32_t v = at(i, 0);
        return v == 0 ? fallback : v;
    }
    /// True when the separator before parameter `i` (i >= 1) is a colon.
    bool colonBefore(int i) const { return i >= 1 && i < count && separators[i - 1] == ':'; }
    std::span<const int32_t> span() const { return {values.data(), static_cast<size_t>(count)}; }
    std::span<const uint8_t> separatorSpan() const {
        return {separators.data(), static_cast<size_t>(count - 1)};
    }
};

} // namespace termkit
