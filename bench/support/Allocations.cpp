#include <bench/support/Allocations.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> allocationCount{0};
std::atomic<std::size_t> allocatedBytes{0};

void* counted(void* memory, std::size_t size) {
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  allocationCount.fetch_add(1, std::memory_order_relaxed);
  allocatedBytes.fetch_add(size, std::memory_order_relaxed);
  return memory;
}

}  // namespace

// All other forms of new and delete call these.
void* operator new(std::size_t size) {
  return counted(std::malloc(size == 0 ? 1 : size), size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  auto const unit = static_cast<std::size_t>(alignment);
  return counted(std::aligned_alloc(unit, (size + unit - 1) / unit * unit), size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  std::free(memory);
}

namespace FullWaveform::Bench {

Allocations Allocations::soFar() noexcept {
  return {allocationCount.load(std::memory_order_relaxed), allocatedBytes.load(std::memory_order_relaxed)};
}

PerWaveform::PerWaveform(benchmark::State& state, std::size_t waveforms)
    : state(state), waveforms(waveforms), before(Allocations::soFar()) {}

PerWaveform::~PerWaveform() {
  Allocations const now = Allocations::soFar();
  double const all = static_cast<double>(state.iterations()) * static_cast<double>(waveforms);
  state.SetItemsProcessed(static_cast<std::int64_t>(all));
  state.counters["allocs/waveform"] = static_cast<double>(now.count - before.count) / all;
  state.counters["bytes/waveform"] = static_cast<double>(now.bytes - before.bytes) / all;
}

}  // namespace FullWaveform::Bench
