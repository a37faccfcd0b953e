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

/// `length` samples of the value `base` with short runs written over them.
struct Pulse {
  std::size_t first;
  Samples values;
};

inline Samples recordOf(std::size_t length, unsigned short base, std::vector<Pulse> const& pulses) {
  Samples samples(length, base);
  for (Pulse const& pulse : pulses) {
    std::copy(pulse.values.begin(), pulse.values.end(),
              samples.begin() + static_cast<std::ptrdiff_t>(pulse.first));
  }
  return samples;
}

/// Copy in a heap block of exactly its size: the address sanitizer sees a read on either side of it.
inline std::unique_ptr<unsigned short[]> onHeap(Samples const& samples) {
  std::unique_ptr<unsigned short[]> block(new unsigned short[samples.size()]);
  std::copy(samples.begin(), samples.end(), block.get());
  return block;
}

/// Copy beside a page that cannot be read: a read on that side of the record ends the process in every build.
class GuardedRecord {
 public:
  enum class Guard { Before, Behind };

  GuardedRecord(Samples const& samples, Guard guard)
      : page(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
        readable((samples.size() * sizeof(unsigned short) / page + 1) * page) {
    void* const mapped = mmap(nullptr, readable + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
      throw std::bad_alloc();
    }
    memory = static_cast<std::byte*>(mapped);
    std::byte* const front = memory + page;
    if (mprotect(front, readable, PROT_READ | PROT_WRITE) != 0) {
      throw std::bad_alloc();
    }
    std::size_t const bytes = samples.size() * sizeof(unsigned short);
    std::byte* const place = guard == Guard::Before ? front : front + readable - bytes;
    record = reinterpret_cast<unsigned short*>(place);
    std::copy(samples.begin(), samples.end(), record);
  }
  GuardedRecord(GuardedRecord const&) = delete;
  GuardedRecord& operator=(GuardedRecord const&) = delete;
  ~GuardedRecord() { munmap(memory, readable + 2 * page); }

  [[nodiscard]] unsigned short const* data() const { return record; }

 private:
  std::size_t page;
  std::size_t readable;
  std::byte* memory = nullptr;
  unsigned short* record = nullptr;
};

/// Calls `use(first sample)` with copies in places where a read outside the record shows.
template <class Use>
void inGuardedPlaces(Samples const& samples, Use const& use) {
  use(static_cast<unsigned short const*>(onHeap(samples).get()));
  use(GuardedRecord(samples, GuardedRecord::Guard::Before).data());
  use(GuardedRecord(samples, GuardedRecord::Guard::Behind).data());
}

}  // namespace FullWaveform::Testing
