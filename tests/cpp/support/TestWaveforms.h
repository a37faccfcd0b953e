#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <vector>

namespace FullWaveform::Testing {

using Samples = std::vector<unsigned short>;

/// Consecutive sample values, the first of them at index `first`.
struct Pulse {
  std::size_t first;
  Samples values;
};

/// A waveform of `length` samples that is constant except for some pulses.
inline Samples waveformOf(std::size_t length, unsigned short baseline, std::vector<Pulse> const& pulses) {
  Samples samples(length, baseline);
  for (Pulse const& pulse : pulses) {
    std::copy(pulse.values.begin(), pulse.values.end(),
              samples.begin() + static_cast<std::ptrdiff_t>(pulse.first));
  }
  return samples;
}

/// Copy in a heap block of exactly its size: the address sanitizer detects a read on either side of it.
inline std::unique_ptr<unsigned short[]> onHeap(Samples const& samples) {
  std::unique_ptr<unsigned short[]> block(new unsigned short[samples.size()]);
  std::copy(samples.begin(), samples.end(), block.get());
  return block;
}

/// Copy next to an unreadable page: a read beyond the samples on that side ends the process in every build.
class GuardedSamples {
 public:
  enum class Guard { Before, After };

  GuardedSamples(Samples const& samples, Guard guard)
      : page(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
        readable((samples.size() * sizeof(unsigned short) / page + 1) * page) {
    void* const mapped = mmap(nullptr, readable + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
      throw std::bad_alloc();
    }
    memory = static_cast<std::byte*>(mapped);
    std::byte* const begin = memory + page;
    if (mprotect(begin, readable, PROT_READ | PROT_WRITE) != 0) {
      throw std::bad_alloc();
    }
    std::size_t const bytes = samples.size() * sizeof(unsigned short);
    std::byte* const first = guard == Guard::Before ? begin : begin + readable - bytes;
    copied = reinterpret_cast<unsigned short*>(first);
    std::copy(samples.begin(), samples.end(), copied);
  }
  GuardedSamples(GuardedSamples const&) = delete;
  GuardedSamples& operator=(GuardedSamples const&) = delete;
  ~GuardedSamples() { munmap(memory, readable + 2 * page); }

  [[nodiscard]] unsigned short const* data() const { return copied; }

 private:
  std::size_t page;
  std::size_t readable;
  std::byte* memory = nullptr;
  unsigned short* copied = nullptr;
};

/// Calls `use(first sample)` with copies for which a read beyond either end is detected.
template <class Use>
void withGuardedCopies(Samples const& samples, Use const& use) {
  use(static_cast<unsigned short const*>(onHeap(samples).get()));
  use(GuardedSamples(samples, GuardedSamples::Guard::Before).data());
  use(GuardedSamples(samples, GuardedSamples::Guard::After).data());
}

}  // namespace FullWaveform::Testing
