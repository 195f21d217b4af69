#pragma once
// Counts the heap allocations of the whole process, for the benchmarks.

#include <cstdint>

namespace termkit::bench {

/// Allocations made through operator new since the process started.
uint64_t allocationCount();

} // namespace termkit::bench
