#pragma once

#include <cstddef>

namespace FullWaveform::Testing {

/// Number of allocations with `new` in this process so far, in all threads and including the library.
std::size_t heapAllocations() noexcept;

}  // namespace FullWaveform::Testing
