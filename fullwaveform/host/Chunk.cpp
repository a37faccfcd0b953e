#include <fullwaveform/host/Chunk.h>

#include <atomic>

namespace Holdex {
namespace {

std::atomic<std::size_t> totalBytes{0};

}  // namespace

ChunkBase::ChunkBase(std::size_t countedBytes) noexcept : bytes(countedBytes) {
  totalBytes.fetch_add(bytes, std::memory_order_relaxed);
}

ChunkBase::~ChunkBase() {
  totalBytes.fetch_sub(bytes, std::memory_order_relaxed);
}

std::size_t ChunkBase::memoryTotal() noexcept {
  return totalBytes.load(std::memory_order_relaxed);
}

}  // namespace Holdex
