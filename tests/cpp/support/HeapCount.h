#pragma once

#include <cstddef>

namespace FullWaveform::Testing {

/// How often this program has taken memory with `new` so far; in all its threads, and in the library.
std::size_t heapAllocations() noexcept;

}  // namespace FullWaveform::Testing
